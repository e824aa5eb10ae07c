"""The simulated device on a terminal.

model     what the bus and the log said; knows no terminal
controls  what keys do to the simulated device; knows no terminal either
view      the model as lines of styled text; draws nothing itself
bar       a measured line against its ranges
app       the terminal: keys in, lines out
"""
