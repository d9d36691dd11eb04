#!/usr/bin/python3
"""Relays one connection to the Unix socket TARGET.

relay.py TARGET          connects standard input and output, as a program of "unixexec:" does
relay.py TARGET SOCKET   creates SOCKET and accepts a connection there, as ssh -L does

Data to TARGET is delayed by RELAY_DELAY_S seconds. Data that contains RELAY_END_AT is dropped and ends the relay.
"""

import os
import socket
import sys
import threading
import time

PATIENCE_S = 60
DELAY_S = float(os.environ.get("RELAY_DELAY_S", "0"))
END_AT = os.environb.get(b"RELAY_END_AT")


def pump(read, write, close):
    while data := read():
        write(data)
    close()


def both_ways(read, write, target):
    bus = socket.socket(socket.AF_UNIX)
    bus.connect(target)

    def late(data):
        if END_AT and END_AT in data:
            os._exit(0)
        time.sleep(DELAY_S)
        bus.sendall(data)

    forth = threading.Thread(target=pump, args=(read, late, lambda: bus.shutdown(socket.SHUT_WR)), daemon=True)
    forth.start()
    pump(lambda: bus.recv(65536), write, lambda: None)


def main():
    threading.Timer(PATIENCE_S, os._exit, [1]).start()
    os.set_blocking(0, True)
    if len(sys.argv) == 2:
        both_ways(lambda: os.read(0, 65536), lambda data: os.write(1, data), sys.argv[1])
    else:
        listener = socket.socket(socket.AF_UNIX)
        listener.bind(sys.argv[2])
        listener.listen(1)
        client, _ = listener.accept()
        both_ways(lambda: client.recv(65536), client.sendall, sys.argv[1])
    os._exit(0)


main()
