#!/usr/bin/python3
"""Carries one connection to a Unix socket: relay.py TARGET from standard input and to standard output, as a program
of "unixexec:" does; relay.py TARGET SOCKET from SOCKET, which it makes and listens at, as ssh -L does. What goes to
TARGET is late by RELAY_DELAY_S seconds; the connection ends, undelivered, with what holds RELAY_END_AT."""

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
