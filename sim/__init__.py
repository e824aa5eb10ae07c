"""A device in a scratch folder: the shipped daemon, its fixed paths and its bus, all private.

sandbox.py  the mount namespace in which the daemon finds its fixed paths
bus.py      a private message bus and its clients
device.py   the device as scripts/run and the system tests handle it
peers.py    stand-ins for the services that the daemon calls
show.py     what scripts/run shows
scenario.py the story that scripts/run --scenario plays
"""
