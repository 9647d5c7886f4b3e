"""Another program of the device changes settings: each is followed at once, and on the air."""

from __future__ import annotations

from bench import Device, World

SSID = "Korrin One-3456"


def test_a_device_name_set_by_another_program_is_the_new_ssid_on_air(device: Device, world: World) -> None:
    """device.deviceName: announced as SSID, and heard on air."""
    mark = device.mark()
    device.store("device", "deviceName", "s", "Garden")
    # Announced while hostapd is on its way: see test_access_point.py.
    assert device.wait_for_change("SSID", since=mark) in ("Garden", "")
    device.wait_for_access_point()
    device.wait_for_property("SSID", "Garden")
    world.wait_on_air("Garden")
    assert world.find_on_air(SSID) is None


def test_a_band_set_by_another_program_is_heard_on_air(device: Device, world: World) -> None:
    """network.frequency: announced as WiFiFrequency, and heard on air."""
    mark = device.mark()
    device.store("network", "frequency", "s", "5")
    device.wait_for_change("WiFiFrequency", "5", since=mark)
    device.see_once("hostapd_cli -i wlan0 status | grep -E '^freq=5[0-9]{3}'")
    device.wait_for_access_point()
    assert world.wait_on_air(SSID).frequency > 5000


def test_a_mode_set_by_another_program_is_switched_to(device: Device, world: World) -> None:
    """network.mode: Client ends the access point and starts wpa_supplicant; Host brings it back on air."""
    mark = device.mark()
    device.store("network", "mode", "s", "Client")
    device.wait_for_change("Mode", "Client", since=mark)
    device.wait_for_unit("wpa_supplicant-nl80211@wlan0.service", "active")
    device.wait_for_unit("hostapd.service", "inactive")
    assert "type managed" in device.see("iw dev wlan0 info")

    mark = device.mark()
    device.store("network", "mode", "s", "Host")
    device.wait_for_change("Mode", "Host", since=mark)
    device.wait_for_access_point()
    world.wait_on_air(SSID)
    device.wait_for_unit("wpa_supplicant-nl80211@wlan0.service", "inactive")


def test_wifi_switched_by_another_program_goes_off_and_on(device: Device, world: World) -> None:
    """network.enabled: false blocks the radio, true brings the access point back on air."""
    mark = device.mark()
    device.store("network", "enabled", "b", "false")
    device.wait_for_change("WiFiState", 0, since=mark)
    assert "Soft blocked: yes" in device.see("rfkill list wlan | head -n 3")
    device.wait_for_unit("hostapd.service", "inactive")

    mark = device.mark()
    device.store("network", "enabled", "b", "true")
    device.wait_for_change("WiFiState", 1, since=mark)
    device.wait_for_access_point()
    world.wait_on_air(SSID)
