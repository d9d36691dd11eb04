#!/usr/bin/python3
"""Carries one connection to a Unix socket from standard input and to standard output, as a program of "unixexec:" does.
What goes to the socket is late by RELAY_DELAY_S seconds; the connection ends, undelivered, with what holds RELAY_END_AT.
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


def main():
    threading.Timer(PATIENCE_S, os._exit, [1]).start()
    os.set_blocking(0, True)
    bus = socket.socket(socket.AF_UNIX)
    bus.connect(sys.argv[1])

    def late(data):
        if END_AT and END_AT in data:
            os._exit(0)
        time.sleep(DELAY_S)
        bus.sendall(data)

    def close():
        bus.shutdown(socket.SHUT_WR)

    threading.Thread(target=pump, args=(lambda: os.read(0, 65536), late, close), daemon=True).start()
    pump(lambda: bus.recv(65536), lambda data: os.write(1, data), lambda: None)
    os._exit(0)


main()
