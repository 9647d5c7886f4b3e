"""What the real wpa_supplicant reports, and what the daemon announces of it."""

from __future__ import annotations

from real_device import RealDevice
from vantora_sim import Process, Variant, changed, log, units
from vantora_sim.wpa_supplicant import INTERFACE
from waiting import wait_until

CERTIFICATE = {
    "key_mgmt": Variant("s", "IEEE8021X"),
    "eap": Variant("s", "MD5"),
    "identity": Variant("s", "phone"),
    "password": Variant("s", "secret"),
    "eapol_flags": Variant("i", 0),
}


def start_authenticator(device: RealDevice) -> Process:
    """An access point on the other end of the cable that asks for a proof of identity."""
    (device.world.work / "run/peer-hostapd.conf").write_text(
        "interface=air0\ndriver=wired\nctrl_interface=/run/peer-hostapd\nieee8021x=1\neap_server=1\n"
        "eap_user_file=/run/eap_users\nuse_pae_group_addr=1\n"
    )
    authenticator = device.start_peer("/usr/sbin/hostapd", "-t", "/run/peer-hostapd.conf")
    wait_until(lambda: "AP-ENABLED" in authenticator.stdout, lambda: f"the authenticator\n{authenticator.stdout}")
    return authenticator


def heard(device: RealDevice) -> list[str]:
    """The state words that the daemon has heard."""
    begin = "[WPA Supplicant] State change: "
    return [text.split("'")[3] for _, text in device.world.journal.logs() if text.startswith(begin)]


def authenticate(device: RealDevice, password: str = "secret") -> None:
    """Let wpa_supplicant join by IEEE 802.1X, which the daemon itself does not offer."""
    added = device.supplicant.call("AddNetwork", "a{sv}", [{**CERTIFICATE, "password": Variant("s", password)}])
    device.supplicant.call("SelectNetwork", "o", added)


def test_open_connection_is_announced_and_disconnecting_too(station: RealDevice) -> None:
    mark = station.world.journal.mark()
    station.world.call("Connect", "ss", ["open", ""])
    station.world.journal.expect_in_order(
        [
            log("info", "[WPE supplicant] BSS changed: / SSID: <none>"),  # a cable has no access point
            log("info", "[WPA Supplicant] State change: 'disconnected' -> 'completed'"),
            log("info", "StateChangeHandler: Emitting state change: state = completed ssid = "),
            changed("WiFiClientState", "completed"),
        ],
        mark,
    )
    assert station.world.get("WiFiClientState") == "completed"
    assert station.world.get("ClientSSID") == "open"

    mark = station.world.journal.mark()
    station.world.call("Disconnect")
    station.world.journal.wait_for(changed("WiFiClientState", "disconnected"), mark)
    assert station.world.get("ClientSSID") == ""


def test_connection_that_is_really_authenticated_is_announced_step_by_step(station: RealDevice) -> None:
    authenticator = start_authenticator(station)
    authenticate(station)
    station.world.journal.expect_in_order(
        [
            log("info", "[WPA Supplicant] State change: 'disconnected' -> 'associated'"),
            log("info", "[WPA Supplicant] State change: 'associated' -> 'completed'"),
            log("info", "[WPA Supplicant] Restarting udhcpc"),
            changed("WiFiClientState", "completed"),
        ]
    )
    assert "CTRL-EVENT-EAP-SUCCESS 02:00:00:00:10:01" in authenticator.stdout
    assert station.supplicant.states()[-2:] == ["associated", "completed"]


def test_wrong_secret_is_never_completed(station: RealDevice) -> None:
    authenticator = start_authenticator(station)
    authenticate(station, "a wrong one")
    wait_until(lambda: "CTRL-EVENT-EAP-FAILURE" in authenticator.stdout, lambda: f"the refusal\n{authenticator.stdout}")
    wait_until(lambda: heard(station)[-1:] == station.supplicant.states()[-1:] != ["disconnected"], "the daemon to have heard")
    assert "completed" not in heard(station)
    assert station.world.get("WiFiClientState") != "completed"


def test_restarted_wpa_supplicant_is_followed(station: RealDevice) -> None:
    station.world.call("Connect", "ss", ["before", ""])
    station.world.journal.wait_for(changed("WiFiClientState", "completed"))
    before = station.supplicant.wait_present()
    station.services.job("Restart", units.STATION)
    station.supplicant.wait_present(other_than=before)
    assert station.supplicant.get("Networks") == []

    mark = station.world.journal.mark()
    station.world.call("Connect", "ss", ["after", ""])
    station.world.journal.wait_for(changed("WiFiClientState", "completed"), mark)
    assert station.world.get("ClientSSID") == "after"


def test_killed_wpa_supplicant_is_followed_when_it_is_started_again(station: RealDevice) -> None:
    before = station.supplicant.wait_present()
    station.world.call("Connect", "ss", ["before", ""])
    station.world.journal.wait_for(changed("WiFiClientState", "completed"))
    station.services.process(units.STATION).stop(9)
    assert station.world.get("AccessPoints") == []
    assert station.supplicant.states()[-1:] == ["completed"], "a killed one says no farewell"

    mark = station.world.journal.mark()
    station.services.job("Start", units.STATION)
    station.supplicant.wait_present(other_than=before)
    station.world.journal.wait_for(changed("WiFiClientState", "disconnected"), mark)
    wait_until(lambda: station.supplicant.states()[-2:] == ["completed", "disconnected"], "the first word of the new one")

    mark = station.world.journal.mark()
    station.world.call("Connect", "ss", ["after", ""])
    station.world.journal.wait_for(changed("WiFiClientState", "completed"), mark)


def test_every_change_it_reports_is_understood(station: RealDevice) -> None:
    """Whatever the types in a notification, the daemon takes what it knows and leaves the rest."""
    start_authenticator(station)
    station.world.call("Scan")
    station.world.call("Connect", "ss", ["secured", "12345678"])
    station.world.call("Connect", "ss", ["open", ""])
    station.world.journal.wait_for(changed("WiFiClientState", "completed"))
    station.world.call("Disconnect")
    for name, value in (
        ("ApScan", Variant("u", 1)),
        ("BSSExpireAge", Variant("u", 20)),
        ("BSSExpireCount", Variant("u", 3)),
        ("ScanInterval", Variant("i", 7)),
        ("FastReauth", Variant("b", False)),
        ("Country", Variant("s", "DE")),
        ("Pmf", Variant("s", "1")),
    ):
        try_set(station, name, value)
    authenticate(station)
    wait_until(lambda: station.supplicant.states()[-1:] == ["completed"], "the authenticated connection")
    station.supplicant.call("RemoveNetwork", "o", [station.supplicant.get("CurrentNetwork")])
    wait_until(lambda: station.supplicant.states()[-1:] in (["disconnected"], ["inactive"]), "the end of the connection")

    def all_heard() -> bool:
        station.world.settle()
        lines = station.world.journal.count(log("info", "[WPA Supplicant] Properties changed"))
        return lines == len(station.supplicant.own_changes()) and heard(station)[-1:] == station.supplicant.states()[-1:]

    wait_until(all_heard, lambda: f"{len(station.supplicant.own_changes())} notifications to be heard")
    # Of every interface: its own is not the only one it listens to.
    assert heard(station) == [values["State"].value for values in station.supplicant.own_changes() if "State" in values]
    kinds = {value.signature for values in station.supplicant.own_changes() for value in values.values()}
    assert kinds >= {"s", "o", "u", "i", "b"}, kinds
    assert station.world.daemon is not None and station.world.daemon.running


def try_set(device: RealDevice, name: str, value: Variant) -> None:
    """Write a property of interface 1, as another program could."""
    device.supplicant.call("Set", "ssv", [INTERFACE, name, value], interface="org.freedesktop.DBus.Properties")
