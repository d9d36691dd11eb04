#!/usr/bin/python3
"""Follows one transfer over the bus, like a client that uses only python3-dbus and nothing of this project:

  follow_transfer.py ADDRESS FUNCTION KEY=VALUE...

sends the request, follows its object by InterfacesAdded and PropertiesChanged, and prints a line for each phase and,
at the end, for outcome and reason. Then it compares the signalled properties with those of the object."""

import ctypes
import sys
import time

import dbus
import dbus.bus
import dbus.mainloop.glib

SERVER = "kova.kova_ctlserver"
TRANSFER = "kova.Transfer1"
PROPERTIES = "org.freedesktop.DBus.Properties"
MANAGER = "org.freedesktop.DBus.ObjectManager"
REQUEST_ID = 7_000_000_000_000_000_001
PATIENCE_S = 30

transfers = {}  # by path: the properties signalled so far
phases = []


def is_mine(path):
    return transfers.get(path, {}).get("RequestId") == REQUEST_ID


def note(path):
    if is_mine(path):
        phase = str(transfers[path]["Phase"])
        if not phases or phases[-1] != phase:
            phases.append(phase)
            print(f"phase {phase}", flush=True)


def on_added(path, interfaces):
    if TRANSFER in interfaces:
        transfers[path] = dict(interfaces[TRANSFER])
        note(path)


def on_changed(interface, changed, invalidated, path=None):
    if interface == TRANSFER and path in transfers:
        assert not invalidated, invalidated
        transfers[path].update(changed)
        note(path)


def main():
    address, function, *fields = sys.argv[1:]
    dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
    turn = ctypes.CDLL("libglib-2.0.so.0").g_main_context_iteration
    bus = dbus.bus.BusConnection(address)
    bus.add_signal_receiver(on_added, "InterfacesAdded", MANAGER, SERVER, "/kova")
    bus.add_signal_receiver(on_changed, "PropertiesChanged", PROPERTIES, SERVER, path_keyword="path")
    camera = bus.get_object(SERVER, "/kova", introspect=False)
    message = {"functionName": function, "id": dbus.UInt64(REQUEST_ID), "from": "client.follower",
               "timeoutMs": dbus.UInt32(20_000)}
    message.update(field.split("=", 1) for field in fields)
    camera.Send(dbus.Dictionary(message, signature="sv"), dbus_interface="kova.Ipc1")

    deadline = time.monotonic() + PATIENCE_S
    while not phases or phases[-1] != "ended":
        if time.monotonic() > deadline:
            sys.exit("it did not end")
        if not turn(None, 0):
            time.sleep(0.005)

    path = next(path for path in transfers if is_mine(path))
    heard = transfers[path]
    print(f"outcome {heard['Outcome']}\nstatus {heard['HttpStatus']}\nreason {heard['Reason']}")
    told = bus.get_object(SERVER, path, introspect=False).GetAll(TRANSFER, dbus_interface=PROPERTIES)
    managed = camera.GetManagedObjects(dbus_interface=MANAGER)[path][TRANSFER]
    if not heard == told == managed:
        sys.exit(f"heard {heard}\ntold {told}\nmanaged {managed}")
    try:
        bus.get_object(SERVER, path, introspect=False).Cancel(dbus_interface=TRANSFER)
        sys.exit("what has ended was cancelled")
    except dbus.DBusException as error:
        print(error.get_dbus_name())


main()
