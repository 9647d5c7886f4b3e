"""The page in a browser: the device, the air, the neighbours, the time line, record and replay."""

from __future__ import annotations

import json
import subprocess
from collections.abc import Callable
from pathlib import Path

import pytest
from page import Page
from running import DEADLINE, ROOT, Running
from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.keys import Keys
from vantora_sim.world_file import read_world

HOME = "02:00:00:00:30:01"
START = Callable[..., Running]
LOOK = Callable[..., Page]
OFF = "net::ERR_CONNECTION_REFUSED"


@pytest.fixture
def page(start: START, look: LOOK) -> Page:
    """The page of a new device in the world "home"."""
    device = start("--desk")
    device.wait_up()
    return look(device).opened()


def join_home(page: Page) -> None:
    """Make the device a station of the first network."""
    page.ask_for_home()
    page.until(lambda: page.value("WiFiClientState") == '"completed"', "the connection")


# The device


def test_the_device_is_shown_as_it_publishes_itself_and_follows_what_it_announces(page: Page) -> None:
    assert (page.value("Mode"), page.value("SSID"), page.value("WiFiState")) == ('"Host"', '"Korrin One-3456"', "1")
    page.until_text("#hero", "Access point on the air")
    writable = [form.get_attribute("aria-label") for form in page.all("#properties .writer input")]
    assert sorted(writable) == [f"new value of {name}" for name in ("Mode", "SSID", "WiFiFrequency", "WiFiState")]
    methods = {form.text.split()[-1]: len(form.find_elements("css selector", "input")) for form in page.all(".method")}
    assert methods == {"Scan": 0, "Connect": 2, "Disconnect": 0}
    page.press('[data-station="tablet"]')
    page.until(lambda: page.value("WiFiConnectedClients") in ("1", "2"), "the station to be counted")
    page.until_text("#hero", "station")
    join_home(page)
    page.until(
        lambda: page.value("IPAddress") == '"192.168.1.50"' and page.value("ClientSSID") == '"Casa Marisol"', "the address"
    )
    page.until_text("#hero", "Station, connected")
    assert page.all(f'[data-bssid="{HOME}"].joined')


def test_an_error_is_shown_by_name_and_text_with_what_the_manual_says(page: Page) -> None:
    page.write("Mode", "Sideways")
    page.until_text("#device-answer", "org.freedesktop.DBus.Error.AccessDenied: Operation not permitted")
    page.until_text("#device-answer", "What to do: check the value; read Mode and WiFiState again.")
    assert page.text("#device-answer .line").endswith("com.vantora.Network1.WiFi Mode s Sideways")
    page.press(".method:nth-of-type(3) button")  # Disconnect
    page.until_text("#device-answer", "org.freedesktop.DBus.Error.Failed: WiFi is not in client mode")
    page.until_text("#device-answer", "write Mode Client first")
    page.write("WiFiState", "on")
    page.until_text("#device-answer", "'on' is no number")


# The air


def test_a_network_is_moved_farther_by_keyboard_and_lost_and_its_command_is_shown(page: Page) -> None:
    join_home(page)
    page.until(lambda: page.all(f'[data-bssid="{HOME}"].joined'), "the strongest one to be joined")
    page.slide(f'[data-bssid="{HOME}"] input[type="range"]', -52)
    page.until_text("#air-answer", f"vantora-simctl signal -- {HOME} -100")
    # Another access point of that name takes over, perhaps before anybody has looked: what stays is that this one is left.
    page.until(lambda: not page.all(f'[data-bssid="{HOME}"].joined'), "the network to be lost")


def test_a_network_is_dragged_nearer(page: Page) -> None:
    page.put("#network-search", "Attic")
    before = page.text("#clock")
    page.until(lambda: page.text("#clock") != before, "signals to drift, which leaves what was looked for alone in sight")
    (dot,) = page.all(".radar .dot:not(.faded) .hit")
    centre = page.one(".radar .self")
    page.driver.execute_script("arguments[0].scrollIntoView({block: 'center'})", page.one(".radar"))
    ActionChains(page.driver).click_and_hold(dot).move_to_element(centre).release().perform()
    page.until_text("#air-answer", "-30")
    assert '"Attic" (02:00:00:00:30:07) is received with -30 dBm' in page.text("#air-answer")


def test_a_network_is_switched_off_and_on_again_and_gets_another_passphrase(page: Page) -> None:
    page.press('[aria-label="switch off Upstairs, 02:00:00:00:30:04"]')
    page.until(lambda: page.all(".network.removed"), "the network to be off")
    assert not page.all('[data-bssid="02:00:00:00:30:04"]')
    page.until(
        lambda: page.driver.switch_to.active_element.get_attribute("aria-label") == "On again: Upstairs, 02:00:00:00:30:04",
        "the keyboard to be where it can be undone",
    )
    page.driver.refresh()  # what is off is known to the device's side, and not to one page only
    page.opened()
    page.press('[aria-label="On again: Upstairs, 02:00:00:00:30:04"]')
    page.until(lambda: page.all('[data-bssid="02:00:00:00:30:04"]'), "the network to be back")
    page.press('[aria-label="Key: change the passphrase of Upstairs, 02:00:00:00:30:04"]')
    page.put('[aria-label="new passphrase of Upstairs, 02:00:00:00:30:04"]', "eight green doors")
    page.one('[aria-label="new passphrase of Upstairs, 02:00:00:00:30:04"]').send_keys(Keys.ENTER)
    page.until_text("#air-answer", "protected by the new passphrase")
    assert "vantora-simctl key 02:00:00:00:30:04 'eight green doors'" in page.text("#air-answer")


def test_a_network_is_added_and_a_refusal_says_why(page: Page) -> None:
    page.one("#add-network summary").click()
    page.put('#add-form [name="ssid"]', "Balcony")
    page.put('#add-form [name="passphrase"]', "short")
    page.one('#add-form [name="passphrase"]').send_keys(Keys.ENTER)
    page.until_text("#air-answer", "passphrase")
    page.put('#add-form [name="passphrase"]', "long enough now")
    page.one('#add-form [name="passphrase"]').send_keys(Keys.ENTER)
    page.until_text("#air-answer", '"Balcony"')
    page.until(lambda: any("Balcony" in name.text for name in page.all("#networks .name")), "the network")
    page.put('#add-form [name="ssid"]', "c3280a")
    page.put('#add-form [name="passphrase"]', "")
    page.one('#add-form [name="hex"]').send_keys(Keys.SPACE)
    page.one('#add-form [name="no-dhcp"]').send_keys(Keys.SPACE)
    page.press("#add-form button")
    page.until_text("#air-answer", "vantora-simctl add --band=2.4 --signal=-55 --no-dhcp --hex -- c3280a")


def test_a_slider_that_is_moved_on_quickly_ends_where_it_was_left(page: Page) -> None:
    page.slide(f'[data-bssid="{HOME}"] input[type="range"]', -30)
    page.until_text("#air-answer", f"vantora-simctl signal -- {HOME} -78")

    def done() -> list[int]:
        return [int(line.text.split()[-1]) for line in page.all("#deeds .line")]

    page.until(lambda: done()[-1:] == [-78], "the last deed to be the last place")
    assert done() == sorted(done(), reverse=True), "in the order in which they were asked for"
    assert page.one(f'[data-bssid="{HOME}"] input[type="range"]').get_attribute("value") == "-78"


def test_stations_join_and_leave_and_radio_and_cable_are_switched(page: Page) -> None:
    page.press('[data-station="laptop"]')
    page.until_text("#air-answer", "laptop has joined")
    page.until(lambda: page.text('[data-station="laptop"]') == "Leave", "the station")
    page.press('[data-station="laptop"]')
    page.until_text("#air-answer", "laptop has left")
    page.press("#cable-plug")
    page.until_text("#switches", "eth0: 192.168.2.20/24")
    page.press("#cable-plug")
    page.until_text("#switches", "eth0: no address")
    page.put("#cable-address", "10.9.8.7/16")
    page.press("#cable-plug")
    page.until_text("#switches", "eth0: 10.9.8.7/16")
    page.until_text("#air-answer", "vantora-simctl cable plug --address 10.9.8.7/16")
    page.press("#soft-block")
    page.until_text("#air-answer", "vantora-simctl radio block")
    page.until(lambda: page.one("#soft-block").get_attribute("aria-pressed") == "true", "the radio to be blocked")
    page.press("#hard-block")
    page.until(lambda: page.one("#hard-block").get_attribute("aria-pressed") == "true", "the switch to be off")
    page.until_text("#air-answer", "vantora-simctl radio block --hard")
    page.press("#read-again")
    page.until(lambda: page.value("WiFiState") == "0" and "Radio off" in page.text("#hero"), "the device to say so")


# The neighbours


def test_neighbours_are_hung_killed_and_started(page: Page) -> None:
    def how(name: str) -> str | None:
        return page.one(f'[data-daemon="{name}"]').get_attribute("data-how")

    def wait_is(name: str, expected: str) -> None:
        page.until(lambda: how(name) == expected, f"{name} to be {expected}")

    def press(verb: str, name: str, expected: str) -> None:
        page.press(f'[aria-label="{verb} {name}"]')
        wait_is(name, expected)

    page.write("Mode", "Client")
    page.until(lambda: how("wpa_supplicant") == "running" and how("hostapd") == "gone", "the other mode")
    for name in ("wpa_supplicant", "hostapd", "vantora-settingsd", "systemd"):
        if name == "hostapd":
            page.write("Mode", "Host")
        wait_is(name, "running")
        press("hang", name, "hanging")
        press("release", name, "running")
        press("kill", name, "gone")
        press("start", name, "running")
    assert "vantora-simctl start systemd" in page.text("#neighbours-answer")
    page.press('[aria-label="hang vantora-network"]')
    page.until(lambda: how("vantora-network") == "hanging", "the daemon to hang")
    page.press("#read-again")
    page.until_text("#hero", "The daemon does not answer")
    assert {page.value(name) for name in ("Mode", "SSID", "AccessPoints")} == {"no answer"}
    page.press('[aria-label="release vantora-network"]')
    page.until(lambda: how("vantora-network") == "running", "the daemon to go on")
    page.until(lambda: page.value("Mode") == '"Host"' and "Access point" in page.text("#hero"), "it to answer")


def test_stored_settings_are_read_and_changed(page: Page) -> None:
    page.until(lambda: page.all('[data-setting="network.frequency"]'), "the settings")
    page.put('[aria-label="network.frequency"]', "5")
    page.press('[aria-label="set network.frequency"]')
    page.until_text("#neighbours-answer", 'network.frequency is "5"')
    page.until(lambda: page.value("WiFiFrequency") == '"5"', "the band")


def test_a_daemon_that_dies_is_gone_and_comes_back(page: Page) -> None:
    # It is gone for two seconds only: what is shown meanwhile is kept, however late it is looked at.
    said = page.keep_texts("#hero")
    page.press('[aria-label="kill vantora-network"]')
    page.until(lambda: any("The daemon is gone" in text for text in said()), "the page to say so")
    page.until_text("#hero", "Access point")
    page.until(lambda: page.one('[data-daemon="vantora-network"]').get_attribute("data-how") == "running", "the daemon")
    assert page.entries("has ended with status -9") == ["vantora-network has ended with status -9"]
    assert page.text("#connection") == "live"


# The time line


def test_each_lane_has_what_belongs_to_it_and_a_click_shows_all_of_it(page: Page) -> None:
    join_home(page)
    wanted = {
        "world": "is received with -47 dBm",
        "dbus": 'Mode = "Client"',
        "log": "[WiFi] Start Client mode",
        "command": "rfkill list wlan",
        "unit": "Stop hostapd.service",
        "hostapd": "AP-ENABLED",
        "wpa": 'State = "completed"',
        "address": "wlan0 has 192.168.8.1/24",
    }
    page.slide(f'[data-bssid="{HOME}"] input[type="range"]', 1)
    page.until_text("#air-answer", "is received with -47 dBm")
    for lane, text in wanted.items():
        found = page.entries(text)
        assert any(text in title for title in found), f"{lane}: {found}"
        assert page.all(f'#list .entry:not([hidden])[data-lane="{lane}"]'), lane
    page.entries("Set Mode")
    page.all("#list .entry:not([hidden])")[0].click()
    page.until_text("#detail", "org.freedesktop.DBus.Properties")
    for part in ("the desk", "com.vantora.Network1", "/com/vantora/Network1", "ssv", "took"):
        assert part in page.text("#detail"), part


def test_the_time_line_is_filtered_searched_paused_and_zoomed(page: Page) -> None:
    page.entries("")
    assert page.all('#list .entry:not([hidden])[data-lane="log"]')
    page.press('#lane-choice [data-lane="log"]')
    page.until(lambda: not page.all('#list .entry:not([hidden])[data-lane="log"]'), "the log to be hidden")
    assert page.all('#list .entry:not([hidden])[data-lane="command"]')
    page.put("#search", "no such thing at all")
    page.until(lambda: page.titles() == [], "nothing to be found")
    page.put("#search", "")
    page.until(page.titles, "everything to be back")
    before = page.text("#shown")
    page.press("#zoom-in")
    page.until(lambda: page.text("#shown") != before, "another view")
    held = page.text("#shown").rpartition(", ")[2]
    page.press('[data-station="tablet"]')
    page.until_text("#air-answer", "tablet")
    assert page.text("#shown").rpartition(", ")[2] == held, "what is paused stays where it is"
    page.press("#pause")
    page.until(lambda: page.text("#shown").rpartition(", ")[2] != held, "the view to go on")


def test_the_list_is_walked_by_keyboard(page: Page) -> None:
    page.entries("rfkill")
    listed = page.one("#list")
    listed.send_keys(Keys.HOME)
    page.until(lambda: listed.get_attribute("aria-activedescendant"), "an entry to be chosen")
    assert page.one('#list [aria-selected="true"]').get_attribute("aria-posinset") == "1"
    listed.send_keys(Keys.ARROW_DOWN)
    page.until(lambda: page.one('#list [aria-selected="true"]').get_attribute("aria-posinset") == "2", "the next")
    listed.send_keys(Keys.ENTER)
    assert page.driver.switch_to.active_element.get_attribute("id") == "detail"
    page.put("#search", "AP-ENABLED")
    page.until(lambda: page.titles() and all("AP-ENABLED" in title for title in page.titles()), "what was looked for")
    listed.send_keys(Keys.HOME)
    page.put("#search", "")
    page.until(
        lambda: len(page.titles()) > 5 and "AP-ENABLED" in page.text('#list [aria-selected="true"]'), "it among the others"
    )
    box, row = listed.rect, page.one('#list [aria-selected="true"]').rect
    assert box["y"] <= row["y"] and row["y"] + row["height"] <= box["y"] + box["height"], "in sight"


def test_the_curves_show_the_signals_and_above_them_the_station(page: Page) -> None:
    join_home(page)
    page.allowed.append("getImageData")
    # What is drawn cannot be read from a canvas, so its picture is: it changes where the curves are when the view does.
    painted = (
        "const c = document.getElementById(arguments[0]); const d = c.getContext('2d').getImageData(0, 0, c.width, c.height).data;"
        "const seen = new Set(); for (let i = 0; i < d.length; i += 4) if (d[i + 3] > 200) seen.add(`${d[i]},${d[i+1]},${d[i+2]}`);"
        "return [...seen]"
    )
    colours = page.until(
        lambda: {"36,86,201", "22,32,46", "176,48,124"} <= set(page.driver.execute_script(painted, "curves"))
        and page.driver.execute_script(painted, "curves"),
        "the curves",
    )
    assert "22,32,46" in colours, "the station's state"
    assert {"36,86,201", "93,106,128"} <= set(page.driver.execute_script(painted, "lanes"))
    # The library tells what it draws: one curve for each network, of whatever is on the air or was, and the station.
    labels = (
        "const done = arguments[0]; import('/lib/chart.mjs').then(({Chart}) => "
        "done(Chart.getChart('curves').data.datasets.map((one) => one.label)))"
    )
    around = len(page.all("#networks .network"))
    page.press('[aria-label="switch off Attic, 02:00:00:00:30:07"]')
    page.until(lambda: len(page.all("#networks .network:not(.removed)")) == around - 1, "the network to be off")
    drawn = page.driver.execute_async_script(labels)
    assert len(drawn) == around + 1 and {"Attic, 5 GHz", "printer-7F2A, 2.4 GHz", "state of the station"} <= set(drawn)


def test_a_run_is_saved_and_opened_again_without_a_device(page: Page, start: START, look: LOOK, tmp_path: Path) -> None:
    join_home(page)
    page.until(lambda: page.value("ClientSSID") == '"Casa Marisol"', "the name to be read")
    page.press("#save")
    saved = page.downloaded(".jsonl")
    lines = [json.loads(line) for line in saved.read_text().splitlines()]
    assert (lines[0]["k"], lines[0]["world"], lines[0]["format"]) == ("run", "home", 1)
    assert {"e", "done", "sig", "sta", "state", "device"} <= {line["k"] for line in lines}
    kept = tmp_path / "kept.jsonl"
    kept.write_bytes(saved.read_bytes())

    opened = look(start("--open", str(kept)))
    opened.until(lambda: opened.text("#connection") == "saved run", "the saved run")
    assert opened.entries('State = "completed"')
    assert opened.value("ClientSSID") == '"Casa Marisol"'
    assert not any(one.is_enabled() for one in opened.all("[data-live] button, button[data-live]"))

    page.one("#open").send_keys(str(kept))
    page.until(lambda: page.text("#connection") == "saved run", "the file in the page")
    assert page.entries('State = "completed"')
    kept.write_text("{}\n")
    page.one("#open").send_keys(str(kept))
    page.until_text("#notice", "kept.jsonl cannot be opened: not a saved run of this page")


# Record and replay


def test_what_was_done_becomes_a_script_and_a_world_that_do_it_again(page: Page, build_dir: Path, tmp_path: Path) -> None:
    page.press('[aria-label="switch off Upstairs, 02:00:00:00:30:04"]')
    page.until(lambda: page.all(".network.removed"), "the network to be off")
    page.press('[data-station="tablet"]')
    page.until_text("#deeds", "tablet has joined")
    page.write("WiFiFrequency", "5")
    page.until_text("#deeds", "WiFiFrequency = 5")
    page.press("#script")
    script = page.downloaded(".txt").read_text()
    for line in (
        "vantora-simctl remove 02:00:00:00:30:04",
        "vantora-simctl join tablet",
        "busctl --user set-property com.vantora.Network1 /com/vantora/Network1 com.vantora.Network1.WiFi WiFiFrequency s 5",
    ):
        assert line in script.splitlines()
    page.press("#world-file")
    world = tmp_path / "again.json"
    world.write_bytes(page.downloaded(".json").read_bytes())
    plan = read_world(str(world))
    assert [(event.command, event.arguments) for event in plan.events] == [
        ("remove", {"network": "02:00:00:00:30:04"}),
        ("join", {"station": "tablet"}),
    ]
    assert "02:00:00:00:30:04" in [network.bssid for network in plan.networks], "as it was at first"

    # Both do it again.
    check = (
        "vantora-simctl show --json | python3 -c 'import json, sys; found = json.load(sys.stdin); "
        'here = [one["name"] for one in found["stations"] if one["here"]]; '
        'gone = "02:00:00:00:30:04" not in [one["bssid"] for one in found["networks"]]; '
        'sys.exit(0 if gone and "tablet" in here else 9)\''
    )
    # Another band starts the access point anew, and its stations come back a moment later.
    check_until = f"for i in $(seq 60); do {check} && exit 0; sleep 0.5; done; exit 9"
    (tmp_path / "again.sh").write_text(f"PATH={ROOT}/simulator:$PATH\n{script}\n{check_until}\n")
    run_sim = [ROOT / "simulator/vantora-sim", "--build-dir", build_dir]
    ran = subprocess.run(
        [*run_sim, "--", "sh", tmp_path / "again.sh"], capture_output=True, text=True, timeout=3 * DEADLINE, check=False
    )
    assert ran.returncode == 0, ran.stderr[-2000:]
    waited = f"PATH={ROOT}/simulator:$PATH\n{check_until}"
    ran = subprocess.run(
        [*run_sim, "--world", world, "--", "sh", "-c", waited],
        capture_output=True,
        text=True,
        timeout=3 * DEADLINE,
        check=False,
    )
    assert ran.returncode == 0, ran.stderr[-2000:]


# What else may happen


def test_a_page_that_is_left_open_says_so_when_the_device_is_switched_off(start: START, look: LOOK) -> None:
    device = start("--desk")
    device.wait_up()
    page = look(device).opened()
    page.allowed.append(OFF)
    assert device.end() == 0
    page.until(lambda: page.text("#connection") == "switched off", "the page to notice")
    assert "What was recorded stays here" in page.text("#notice")
    assert not any(one.is_enabled() for one in page.all("[data-live] button, button[data-live]"))
    assert page.entries("AP-ENABLED")
    page.press("#save")
    assert "AP-ENABLED" in page.downloaded(".jsonl").read_text()


def test_a_page_is_reloaded_and_goes_on_and_a_used_link_opens_nothing(start: START, look: LOOK) -> None:
    device = start("--desk")
    device.wait_up()
    page = look(device).opened()
    page.driver.refresh()
    page.opened()
    assert "#" not in page.driver.current_url, "the key does not stay in the address"
    page.press("#link")
    page.until_text("#notice", f"{device.base}/#key=")
    fresh = page.text("#notice code")

    def open_as_a_stranger(link: str) -> None:
        # A tab that was here before keeps its own key, and an address that differs behind "#" only loads nothing anew.
        page.driver.execute_script("sessionStorage.clear()")
        page.open("about:blank")
        page.open(link)

    open_as_a_stranger(fresh)
    page.opened()
    page.allowed.append("403")
    open_as_a_stranger(fresh)
    page.until_text("#notice", "the link was used already")
    assert page.text("#connection") == "no key" and page.value("Mode") == ""
    open_as_a_stranger(device.link)  # the one that was printed when the first was used
    page.opened()
