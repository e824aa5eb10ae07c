def run(device): return 0
