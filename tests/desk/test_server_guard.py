"""The page's server from outside: who does not have the page gets nothing, and what the page gets is shown as text."""

from __future__ import annotations

import asyncio
import http.client
import json
import re
import socket
import time
from collections.abc import Callable
from pathlib import Path
from typing import Any
from urllib.parse import urlsplit

import aiohttp
import pytest
from running import DEADLINE, Running

GETS = ("/api/stream", "/api/settings", "/api/replay/script", "/api/replay/world")
POSTS = ("/api/command", "/api/write", "/api/call", "/api/read", "/api/link")
DO = json.dumps({"command": "remove", "arguments": {"network": "Attic"}})


class Outside:
    """Somebody on the same machine."""

    def __init__(self, device: Running) -> None:
        self.base = device.base
        self.port = urlsplit(device.base).port or 0
        self.visit = self.ask("POST", "/api/enter", body=json.dumps({"key": device.key()}))[1]["visit"]

    def raw(
        self, method: str, path: str, headers: dict[str, str], body: str | None = None
    ) -> tuple[int, dict[str, str], bytes]:
        """Status, headers and body of an answer to exactly these headers."""
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=DEADLINE)
        connection.putrequest(method, path, skip_host=True, skip_accept_encoding=True)
        data = (body or "").encode()
        for name, value in {**headers, **({"Content-Length": str(len(data))} if data else {})}.items():
            connection.putheader(name, value)
        connection.endheaders(data or None)
        answer = connection.getresponse()
        found = answer.status, {name.lower(): value for name, value in answer.getheaders()}, answer.read()
        connection.close()
        return found

    def headers(self, **changes: str | None) -> dict[str, str]:
        """Those of the page; with changes, or without one where it is None."""
        usual: dict[str, str | None] = {
            "Host": f"127.0.0.1:{self.port}",
            "Origin": self.base,
            "Content-Type": "application/json",
            "Authorization": f"Bearer {getattr(self, 'visit', '')}",
        }
        usual.update({name.replace("_", "-"): value for name, value in changes.items()})
        return {name: value for name, value in usual.items() if value is not None}

    def ask(self, method: str, path: str, body: str | None = None, **changes: str | None) -> tuple[int, Any]:
        """Status and body of an answer; None for what is no JSON."""
        status, headers, data = self.raw(method, path, self.headers(**changes), body)
        return status, json.loads(data) if "json" in headers.get("content-type", "") else None


@pytest.fixture(scope="module")
def outside(served: Running) -> Outside:
    """Somebody who has opened the page once."""
    return Outside(served)


def test_where_there_is_a_desktop_the_page_is_opened_with_a_link_of_its_own(
    start: Callable[..., Running], tmp_path: Path
) -> None:
    opened = tmp_path / "opened"
    program = tmp_path / "xdg-open"
    program.write_text(f'#!/bin/sh\necho "$@" >"{opened}.part"\nmv "{opened}.part" "{opened}"\n')
    program.chmod(0o755)
    desktop = {"DISPLAY": ":7", "PATH": f"{tmp_path}:/usr/sbin:/usr/bin:/sbin:/bin"}
    device = start("--desk", desktop=desktop)
    deadline = time.monotonic() + DEADLINE
    while not opened.exists():
        assert time.monotonic() < deadline, "".join(device.output)
        time.sleep(0.05)
    link = opened.read_text().strip()
    assert link.startswith(f"{device.base}/#key=")
    person = Outside(device)  # uses the link that was printed
    assert person.ask("POST", "/api/enter", json.dumps({"key": link.rpartition("=")[2]}))[0] == 200


def test_the_page_itself_may_do_everything(outside: Outside) -> None:
    assert outside.ask("GET", "/api/settings")[0] == 200
    status, answer = outside.ask(
        "POST", "/api/command", json.dumps({"command": "signal", "arguments": {"network": "Attic", "dbm": -80}})
    )
    assert (status, answer["text"]) == (200, '"Attic" (02:00:00:00:30:07) is received with -80 dBm')
    assert outside.ask("GET", "/api/replay/script", Host=f"localhost:{outside.port}", Origin=None)[0] == 200


@pytest.mark.parametrize(
    "host", ["desk.example:{port}", "127.0.0.1", "127.0.0.1:1", "localhost.:{port}", "[::1]:{port}", "0.0.0.0:{port}", ""]
)
@pytest.mark.parametrize("path", ["/", "/static/main.js", "/api/settings"])
def test_who_asks_for_another_host_is_turned_away(outside: Outside, host: str, path: str) -> None:
    assert outside.raw("GET", path, outside.headers(Host=host.format(port=outside.port), Origin=None))[0] in (400, 403)
    if not host:
        assert outside.raw("GET", path, outside.headers(Host=None, Origin=None))[0] in (400, 403)


@pytest.mark.parametrize(
    "origin", ["http://evil.example", "https://127.0.0.1:{port}", "http://127.0.0.1:1", "http://localhost:{port}", "null", ""]
)
@pytest.mark.parametrize(
    "method, path", [("POST", path) for path in (*POSTS, "/api/enter")] + [("GET", "/api/stream"), ("GET", "/")]
)
def test_another_page_is_turned_away(outside: Outside, origin: str, method: str, path: str) -> None:
    assert (
        outside.raw(method, path, outside.headers(Origin=origin.format(port=outside.port)), DO if method == "POST" else None)[0]
        == 403
    )


@pytest.mark.parametrize("site", ["cross-site", "same-site"])
def test_what_a_browser_says_about_other_sites_is_believed(outside: Outside, site: str) -> None:
    assert outside.raw("GET", "/static/main.js", outside.headers(Sec_Fetch_Site=site, Origin=None))[0] == 403


@pytest.mark.parametrize(
    "authorization", [None, "", "Bearer", "Bearer ", "Bearer {wrong}", "Basic {visit}", "Bearer {visit}x", "Bearer \u00e9"]
)
@pytest.mark.parametrize("method, path", [("GET", path) for path in GETS] + [("POST", path) for path in POSTS])
def test_without_the_key_nothing_is_told_or_done(outside: Outside, authorization: str | None, method: str, path: str) -> None:
    given = authorization.format(visit=outside.visit, wrong=outside.visit[::-1]) if authorization is not None else None
    assert outside.raw(method, path, outside.headers(Authorization=given), DO if method == "POST" else None)[0] == 403


def test_a_form_of_another_page_cannot_pose_as_a_request(outside: Outside) -> None:
    for kind in ("text/plain", "application/x-www-form-urlencoded", "multipart/form-data; boundary=x"):
        assert outside.raw("POST", "/api/command", outside.headers(Content_Type=kind), DO)[0] == 403


def test_the_key_of_a_link_works_once_and_guesses_never(outside: Outside, served: Running) -> None:
    key = served.key()
    for guess in ("", key[:-1], key + "x", key.swapcase(), "\ud800"):
        assert outside.ask("POST", "/api/enter", json.dumps({"key": guess}))[0] == 403
    for wrong in ({"key": None}, {"key": [key]}, {}, [key], "x"):
        assert outside.ask("POST", "/api/enter", json.dumps(wrong))[0] == 400
    status, first = outside.ask("POST", "/api/enter", json.dumps({"key": key}))
    assert status == 200
    assert outside.ask("POST", "/api/enter", json.dumps({"key": key}))[0] == 403
    assert outside.ask("POST", "/api/enter", json.dumps({"key": first["visit"]}))[0] == 403, "the key of a visit is no link"
    assert outside.ask("GET", "/api/settings", Authorization=f"Bearer {key}")[0] == 403, "and that of a link no visit"
    assert outside.ask("GET", "/api/settings", Authorization=f"Bearer {first['visit']}")[0] == 200


@pytest.mark.parametrize(
    "method, path, status",
    [
        ("GET", "/", 200),
        ("GET", "/static/main.js", 200),
        ("GET", "/lib/chart.mjs", 200),
        ("GET", "/lib/chunks/helpers.segment.mjs", 200),
        ("GET", "/api/settings", 200),
        ("GET", "/nothing", 404),
        ("PUT", "/", 405),
        ("POST", "/api/enter", 400),
    ],
)
def test_every_answer_forbids_what_the_page_does_not_need(outside: Outside, method: str, path: str, status: int) -> None:
    found, headers, _ = outside.raw(method, path, outside.headers(), "{}" if method == "POST" else None)
    assert found == status
    policy = dict(part.strip().partition(" ")[::2] for part in headers["content-security-policy"].split(";"))
    assert policy == {
        "default-src": "'none'",
        "script-src": "'self'",
        "style-src": "'self'",
        "img-src": "'self'",
        "connect-src": "'self'",
        "base-uri": "'none'",
        "form-action": "'none'",
        "frame-ancestors": "'none'",
        "require-trusted-types-for": "'script'",
        "trusted-types": "'none'",
    }
    assert (headers["x-content-type-options"], headers["referrer-policy"], headers["x-frame-options"]) == (
        "nosniff",
        "no-referrer",
        "DENY",
    )
    assert (headers["cross-origin-opener-policy"], headers["cross-origin-resource-policy"]) == ("same-origin", "same-origin")
    assert headers["cache-control"] == "no-store"
    assert not {"set-cookie", "server", "access-control-allow-origin"} & set(headers)


def test_also_who_is_turned_away_gets_no_more_than_that(outside: Outside) -> None:
    for changes in ({"Host": "evil.example"}, {"Authorization": None}):
        _, headers, body = outside.raw("GET", "/api/settings", outside.headers(Origin=None, **changes))
        assert headers["content-security-policy"].startswith("default-src 'none'")
        assert len(body) < 120 and b"evil" not in body


@pytest.mark.parametrize(
    "path",
    [
        "/static/../server.py",
        "/static/..%2fserver.py",
        "/static/%2e%2e/server.py",
        "/static/",
        "/lib/../../../../etc/passwd",
        "/lib/..%2f..%2f..%2f..%2fetc%2fpasswd",
        "/lib//etc/passwd",
        "/lib/chart.js",
        "/lib/",
        "/desk.py",
        "/api/replay/passwd",
    ],
)
def test_only_the_files_of_the_page_are_served(outside: Outside, path: str) -> None:
    status, _, body = outside.raw("GET", path, outside.headers())
    assert status == 404 and b"root:" not in body and b"import" not in body


@pytest.mark.parametrize(
    "body",
    [
        "",
        "[]",
        "nonsense",
        '{"command": 1, "arguments": {}}',
        '{"command": "remove", "arguments": []}',
        "[" * 5000,
        '{"command": "show"}',
    ],
)
def test_nonsense_is_refused_and_changes_nothing(outside: Outside, body: str) -> None:
    assert outside.ask("POST", "/api/command", body)[0] == 400
    assert outside.ask("GET", "/api/settings")[0] == 200


def test_odd_arguments_are_refused_in_words(outside: Outside) -> None:
    for request in (
        {"command": "remove", "arguments": {}},
        {"command": "remove", "arguments": {"network": "x", "more": 1}},
        {"command": "_show", "arguments": {}},
        {"command": "add", "arguments": {"network": "x"}},
        {"command": "signal", "arguments": {"network": "Attic", "dbm": "loud"}},
        {"command": "radio", "arguments": {}},
        {"command": "remove", "arguments": {"network": 7}},
    ):
        status, answer = outside.ask("POST", "/api/command", json.dumps(request))
        assert status == 200 and "error" in answer, request
    for path, request in (
        ("/api/write", {"name": "Nothing", "value": "1"}),
        ("/api/call", {"member": "Nothing", "arguments": []}),
        ("/api/call", {"member": "Connect", "arguments": ["one"]}),
    ):
        status, answer = outside.ask("POST", path, json.dumps(request))
        assert status == 200 and "error" in answer, request


def test_a_request_that_is_too_large_is_refused(outside: Outside) -> None:
    assert (
        outside.raw("POST", "/api/command", outside.headers(), json.dumps({"command": "x" * 100_000, "arguments": {}}))[0]
        == 413
    )


def test_it_listens_on_the_loopback_address_only(outside: Outside) -> None:
    listening = [
        line.split()[1]
        for name in ("tcp", "tcp6")
        for line in Path(f"/proc/net/{name}").read_text(encoding="utf-8").splitlines()[1:]
        if line.split()[3] == "0A"
    ]
    assert [address for address in listening if address.endswith(f":{outside.port:04X}")] == [f"0100007F:{outside.port:04X}"]
    with socket.socket(socket.AF_INET6) as other, pytest.raises(OSError):
        other.connect(("::1", outside.port))


@pytest.mark.parametrize(
    "origin, protocols",
    [
        ("{base}", ()),
        ("{base}", ("vantora-desk",)),
        ("{base}", ("vantora-desk", "wrong")),
        ("http://evil.example", ("vantora-desk", "{visit}")),
        (None, ("vantora-desk", "{visit}")),
        ("{base}", ("other", "{visit}")),
    ],
)
def test_the_stream_is_for_the_page_only(outside: Outside, origin: str | None, protocols: tuple[str, ...]) -> None:
    async def open_stream() -> None:
        headers = {"Origin": origin.format(base=outside.base)} if origin else {}
        async with aiohttp.ClientSession() as session, session.ws_connect(
            f"{outside.base}/api/stream", headers=headers, protocols=[one.format(visit=outside.visit) for one in protocols]
        ):
            pass

    with pytest.raises(aiohttp.WSServerHandshakeError) as refused:
        asyncio.run(open_stream())
    assert refused.value.status == 403


def stream(outside: Outside, enough: Callable[[dict[str, Any]], bool]) -> list[dict[str, Any]]:
    """What the stream says until a message is enough."""

    async def read() -> list[dict[str, Any]]:
        found: list[dict[str, Any]] = []
        async with aiohttp.ClientSession(headers={"Origin": outside.base}) as session, session.ws_connect(
            f"{outside.base}/api/stream", protocols=["vantora-desk", outside.visit]
        ) as socket_:
            while not found or not enough(found[-1]):
                found.append(await asyncio.wait_for(socket_.receive_json(), DEADLINE))
        return found

    return asyncio.run(read())


def test_the_stream_begins_with_how_things_are_and_goes_on_with_what_happened(outside: Outside) -> None:
    messages = stream(
        outside,
        lambda message: message["type"] == "records"
        and any(record.get("title") == 'Mode = "Host"' for record in message["records"]),
    )
    assert [message["type"] for message in messages[:3]] == ["hello", "now", "records"]
    assert messages[0]["world"] == "home" and messages[1]["device"]["values"]["Mode"] == "Host"
    records = [record for message in messages if message["type"] == "records" for record in message["records"]]
    numbers = [record["i"] for record in records if record["k"] == "e"]
    assert numbers == list(range(len(numbers)))


def test_a_talkative_page_is_cut_off(outside: Outside) -> None:
    async def talk() -> int | None:
        async with aiohttp.ClientSession(headers={"Origin": outside.base}) as session, session.ws_connect(
            f"{outside.base}/api/stream", protocols=["vantora-desk", outside.visit]
        ) as socket_:
            await socket_.send_str("x" * 10_000)
            while (await socket_.receive()).type not in (aiohttp.WSMsgType.CLOSE, aiohttp.WSMsgType.CLOSED):
                pass
            return socket_.close_code

    # "Too large"; or the connection is gone before that word has been read, which the other end sees as 1006. A server that
    # takes it all goes on, and the deadline ends this.
    assert asyncio.run(asyncio.wait_for(talk(), DEADLINE)) in (1009, 1006)
    assert outside.ask("GET", "/api/settings")[0] == 200


def test_the_files_of_the_page_load_nothing_from_elsewhere_and_make_no_markup() -> None:
    folder = Path(__file__).resolve().parents[2] / "simulator/vantora_sim/desk/static"
    for path in folder.iterdir():
        text = path.read_text()
        assert not re.search(
            r"innerHTML|outerHTML|insertAdjacentHTML|document\.write|\beval\(|new Function|DOMParser", text
        ), path.name
        assert not re.search(r"(?:src|href|from|import|url|fetch)\W{0,3}[\"'(](?:https?:)?//", text), path.name
        assert not re.search(r"<script(?![^>]*\bsrc=)|\son\w+=[\"']|style=[\"']", text) or path.suffix == ".js", path.name
