"""The world around the device: stations and access points on the simulated air, a computer on the cable."""

from __future__ import annotations

import re
import shlex
from dataclasses import dataclass

from .deadline import EVENT
from .device import Device
from .evidence import TOOL

IN_WORLD = "ip netns exec world"
CHANNELS = "2412 2437 2462 5180 5200 5220 5240"
"""What may be on air here: the device's access point takes one of these, and the world's use the first three."""


@dataclass(frozen=True)
class OnAir:
    """One access point as a scan of the world's sees it."""

    ssid: str
    channel: int
    frequency: int
    protected: bool


class World:
    """Radios 1 to 4 (wlan1 to wlan4), in a network namespace of their own."""

    def __init__(self, device: Device) -> None:
        self.device = device
        self.guest = device.guest

    def run(self, command: str, *, seconds: float = EVENT) -> str:
        """Runs a command in the world."""
        return self.guest.run(f"{IN_WORLD} {command}", seconds=seconds)

    def see(self, command: str) -> str:
        """What a program in the world says, kept as evidence."""
        output = self.run(command)
        self.device.evidence.add(TOOL, f"world$ {command}\n{output}")
        return output

    # Stations.

    def join(self, ssid: str, passphrase: str, *, radio: int = 1) -> None:
        """A station joins an access point with WPA2 and gets an address."""
        network = f'ctrl_interface=/run/station{radio}\\nnetwork={{\\n ssid="{ssid}"\\n psk="{passphrase}"\\n}}\\n'
        self.guest.run(
            f"printf {shlex.quote(network)} >/run/station{radio}.conf && {IN_WORLD} wpa_supplicant -B -Dnl80211 "
            f"-iwlan{radio} -c/run/station{radio}.conf -P/run/station{radio}.pid -f/run/station{radio}.log"
        )
        self.wait_for_station("COMPLETED", radio=radio)

    def wait_for_station(self, state: str, *, radio: int = 1) -> None:
        """Waits until a station's wpa_supplicant is in a state."""
        self.guest.wait_until(f"{self.station_command('status', radio)} | grep wpa_state={state}")

    def station_command(self, command: str, radio: int = 1) -> str:
        """The shell command that asks a station's wpa_supplicant."""
        return f"{IN_WORLD} wpa_cli -p /run/station{radio} -i wlan{radio} {command}"

    def station_status(self, *, radio: int = 1) -> dict[str, str]:
        """What a station's own wpa_supplicant says."""
        output = self.see(f"wpa_cli -p /run/station{radio} -i wlan{radio} status")
        return dict(line.split("=", 1) for line in output.splitlines() if "=" in line)

    def lease(self, *, interface: str = "wlan1") -> str:
        """Gets an address from the DHCP server at the other end; the address."""
        output = self.see(f"busybox udhcpc -i {interface} -n -q -t 20 -T 2 -s /usr/local/libexec/world-dhcp-client 2>&1")
        found = re.search(r"lease of ([0-9.]+) obtained", output)
        assert found, output
        return found.group(1)

    def ping(self, address: str) -> None:
        """Reaches an address through the air."""
        self.see(f"ping -c 2 -i 0.3 -W 10 {address}")

    def leave(self, *, radio: int = 1) -> None:
        """A station says good-bye and ends."""
        self.guest.run(f"kill $(cat /run/station{radio}.pid)")
        self.guest.wait_until(f"! test -e /run/station{radio}.pid")

    def power(self, radio: int, dbm: int) -> None:
        """Sets the power of a radio: others hear it 50 dB below that."""
        self.run(f"iw dev wlan{radio} set txpower fixed {dbm * 100}")

    # Access points.

    def access_point(
        self,
        ssid: str,
        *,
        radio: int,
        passphrase: str = "",
        channel: int = 1,
        dbm: int = 20,
        hidden: bool = False,
        address: str = "",
    ) -> None:
        """Puts an access point on air; with an address, also with a DHCP server behind it."""
        lines = [
            f"interface=wlan{radio}",
            "driver=nl80211",
            f"ctrl_interface=/run/ap{radio}",
            f"ssid={ssid}",
            "hw_mode=g",
            f"channel={channel}",
            f"ignore_broadcast_ssid={int(hidden)}",
        ]
        if passphrase:
            lines += ["wpa=2", "wpa_key_mgmt=WPA-PSK", "rsn_pairwise=CCMP", f"wpa_passphrase={passphrase}"]
        configuration = shlex.quote("\n".join(lines) + "\n")
        self.guest.run(
            f"printf %s {configuration} >/run/ap{radio}.conf && {IN_WORLD} hostapd -B -t -P /run/ap{radio}.pid "
            f"-f /run/ap{radio}.log /run/ap{radio}.conf"
        )
        self.guest.wait_until(f"{IN_WORLD} hostapd_cli -p /run/ap{radio} -i wlan{radio} status | grep -x state=ENABLED")
        self.power(radio, dbm)
        if address:
            network = address.rsplit(".", 1)[0]
            lines = [
                f"interface wlan{radio}",
                f"start {network}.100",
                f"end {network}.120",
                f"lease_file /run/leases{radio}",
                f"pidfile /run/dhcp{radio}.pid",
                "option subnet 255.255.255.0",
                f"option router {address}",
            ]
            configuration = shlex.quote("\n".join(lines) + "\n")
            self.guest.run(
                f"printf %s {configuration} >/run/dhcp{radio}.conf && : >/run/leases{radio} && "
                f"{IN_WORLD} ip address replace {address}/24 dev wlan{radio} && "
                f"{IN_WORLD} busybox udhcpd -a 50 /run/dhcp{radio}.conf"
            )
        self.device.evidence.add(
            TOOL,
            f"world: access point {ssid!r} on channel {channel}, {dbm} dBm"
            f"{', hidden' if hidden else ''}{', WPA2' if passphrase else ', open'}",
        )

    def crowd(self, ssids: list[str], *, radio: int) -> None:
        """Puts many open access points on air with one radio."""
        first, *others = ssids
        lines = [
            f"interface=wlan{radio}",
            "driver=nl80211",
            f"ctrl_interface=/run/ap{radio}",
            f"ssid={first}",
            "hw_mode=g",
            "channel=1",
        ]
        for number, ssid in enumerate(others):
            lines += [f"bss=wlan{radio}c{number}", f"ssid={ssid}"]
        configuration = shlex.quote("\n".join(lines) + "\n")
        self.guest.run(
            f"printf %s {configuration} >/run/ap{radio}.conf && {IN_WORLD} hostapd -B -t -P /run/ap{radio}.pid "
            f"-f /run/ap{radio}.log /run/ap{radio}.conf"
        )
        self.guest.wait_until(f"{IN_WORLD} hostapd_cli -p /run/ap{radio} -i wlan{radio} status | grep -x state=ENABLED")
        self.device.evidence.add(TOOL, f"world: {len(ssids)} open access points on channel 1")

    def access_point_command(self, command: str, *, radio: int) -> str:
        """Tells or asks an access point's hostapd."""
        return self.see(f"hostapd_cli -p /run/ap{radio} -i wlan{radio} {command}")

    # The air.

    def scan(self, *, radio: int = 4) -> list[OnAir]:
        """What is on air, as a radio of the world's hears it."""
        self.run(f"ip link set wlan{radio} up")
        output = self.guest.wait_until(f"{IN_WORLD} iw dev wlan{radio} scan freq {CHANNELS} flush")
        return [on_air(part) for part in re.split(r"(?m)^BSS ", output)[1:]]

    def find_on_air(self, ssid: str, *, radio: int = 4) -> OnAir | None:
        """One access point on air, by its SSID."""
        found = next((one for one in self.scan(radio=radio) if one.ssid == ssid), None)
        self.device.evidence.add(TOOL, f"scan of the world's: {found if found is not None else f'no {ssid!r} on air'}")
        return found

    def wait_on_air(self, ssid: str, *, radio: int = 4) -> OnAir:
        """Waits until an access point is on air."""
        self.run(f"ip link set wlan{radio} up")
        self.guest.wait_until(
            f"{IN_WORLD} iw dev wlan{radio} scan freq {CHANNELS} flush | " f"grep -x '[[:space:]]*SSID: '{shlex.quote(ssid)}"
        )
        found = self.find_on_air(ssid, radio=radio)
        assert found is not None, f"{ssid!r} came on air and went again"
        return found


def on_air(part: str) -> OnAir:
    """One block of iw's scan list."""

    def field(pattern: str) -> str:
        found = re.search(pattern, part)
        return found.group(1) if found else ""

    frequency = int(field(r"\n\s*freq: (\d+)"))
    channel = (frequency - 2407) // 5 if frequency < 3000 else (frequency - 5000) // 5
    return OnAir(field(r"\n\s*SSID: (.*)"), channel, frequency, "\n\tRSN:" in part)
