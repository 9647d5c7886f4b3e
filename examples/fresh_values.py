#!/usr/bin/python3
"""Prints the network joined, and each change of it, with GDBus (Debian package python3-gi).

The daemon never announces `ClientSSID`, so a value that the proxy remembers would stay what it was at the start. This proxy
loads none, which also means that it hears no announcements: they are subscribed to beside it, and the value is asked for when
`WiFiClientState` or `SSID` says that it may have changed.
"""

from gi.repository import Gio, GLib

NAME = "com.vantora.Network1"
PATH = "/com/vantora/Network1"
INTERFACE = "com.vantora.Network1.WiFi"
PROPERTIES = "org.freedesktop.DBus.Properties"
PATIENCE_MS = 60_000


def show(proxy: Gio.DBusProxy, name: str) -> None:
    """Ask the daemon; proxy.get_cached_property(name) would be what the proxy remembers."""

    def answered(source: Gio.DBusProxy, result: Gio.AsyncResult) -> None:
        try:
            (value,) = source.call_finish(result).unpack()
        except GLib.Error as error:
            value = f"unknown ({error.message})"
        print(f"{name} = {value}", flush=True)

    proxy.call(
        f"{PROPERTIES}.Get", GLib.Variant("(ss)", (INTERFACE, name)), Gio.DBusCallFlags.NONE, PATIENCE_MS, None, answered
    )


def main() -> None:
    """First listen, then read: so nothing is missed in between."""
    proxy = Gio.DBusProxy.new_for_bus_sync(
        Gio.BusType.SESSION, Gio.DBusProxyFlags.DO_NOT_LOAD_PROPERTIES, None, NAME, PATH, INTERFACE, None
    )

    def changed(*signal: object) -> None:
        """These two say when the network joined may be another one."""
        _interface, values, _invalidated = signal[5].unpack()  # type: ignore[attr-defined]
        if {"WiFiClientState", "SSID"} & set(values):
            show(proxy, "ClientSSID")

    connection = proxy.get_connection()
    connection.signal_subscribe(NAME, PROPERTIES, "PropertiesChanged", PATH, INTERFACE, Gio.DBusSignalFlags.NONE, changed)
    show(proxy, "ClientSSID")
    loop = GLib.MainLoop()
    connection.set_exit_on_close(False)
    connection.connect("closed", lambda *_: loop.quit())
    loop.run()


main()
