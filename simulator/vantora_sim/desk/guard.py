"""Who may talk to the page's server: the browser that was given the key, from the page itself, and nobody else.

The server listens on the loopback address, which every user of a machine and every page in a browser can reach. So each
request must name this server as its host (a name of somebody else's that was made to point here does not), come from a page
of this server where it says where it comes from, and bring the key of a visit. The key of a link opens one visit; the key of
the visit lives in the page and is sent as a header, because a browser sends cookies to every port of a host.
"""

from __future__ import annotations

import hmac
import secrets
from collections.abc import Awaitable, Callable

from aiohttp import web

PROTOCOL = "vantora-desk"
"""Sub-protocol of the stream; the key of the visit is offered beside it, since a page can add no header there."""

HEADERS = {
    "Content-Security-Policy": "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; connect-src 'self'; "
    "base-uri 'none'; form-action 'none'; frame-ancestors 'none'; "
    "require-trusted-types-for 'script'; trusted-types 'none'",
    "X-Content-Type-Options": "nosniff",
    "X-Frame-Options": "DENY",
    "Referrer-Policy": "no-referrer",
    "Cross-Origin-Opener-Policy": "same-origin",
    "Cross-Origin-Resource-Policy": "same-origin",
    "Permissions-Policy": "camera=(), geolocation=(), microphone=()",
    "Cache-Control": "no-store",
}
"""What every answer carries."""

Handler = Callable[[web.Request], Awaitable[web.StreamResponse]]


class Keys:
    """The keys of one run."""

    def __init__(self) -> None:
        self._links: list[str] = []
        self._visits: list[str] = []

    def new_link(self) -> str:
        """A key that opens one visit."""
        self._links.append(secrets.token_urlsafe(24))
        return self._links[-1]

    def enter(self, key: str) -> str | None:
        """Use the key of a link up; returns the key of the visit, None when there is no such link."""
        found = [link for link in self._links if _same(link, key)]
        if not found:
            return None
        self._links.remove(found[0])
        self._visits.append(secrets.token_urlsafe(24))
        return self._visits[-1]

    def admits(self, key: str) -> bool:
        """Whether this is the key of a visit. Every one is looked at, so that the time tells nothing."""
        return sum(_same(visit, key) for visit in self._visits) > 0


def _same(one: str, other: str) -> bool:
    return hmac.compare_digest(one.encode(), other.encode(errors="surrogatepass"))


class Guard:
    """Turns away what is not for the page."""

    def __init__(self, keys: Keys, port: int) -> None:
        self._keys = keys
        self._hosts = (f"127.0.0.1:{port}", f"localhost:{port}")

    @property
    def middleware(self) -> Callable[[web.Request, Handler], Awaitable[web.StreamResponse]]:
        """For the application."""

        @web.middleware
        async def check(request: web.Request, handler: Handler) -> web.StreamResponse:
            refusal = self._refusal(request)
            if refusal is not None:
                raise web.HTTPForbidden(text=refusal)
            return await handler(request)

        return check

    async def add_headers(self, request: web.Request, response: web.StreamResponse) -> None:
        """For the application's on_response_prepare: also what was turned away carries them."""
        response.headers.update(HEADERS)
        response.headers.pop("Server", None)

    def _refusal(self, request: web.Request) -> str | None:
        hosts = request.headers.getall("Host", [])
        if len(hosts) != 1 or hosts[0] not in self._hosts:
            return "this is not the host that you asked for"
        origins = request.headers.getall("Origin", [])
        if any(origin != f"http://{hosts[0]}" for origin in origins):
            return "only the page itself may ask"
        if request.headers.get("Sec-Fetch-Site", "none") not in ("none", "same-origin"):
            return "only the page itself may ask"
        if not request.path.startswith("/api/"):
            return None
        changes = request.method != "GET" or request.path == "/api/stream"
        if changes and not origins:
            return "only a page may ask for this"
        if request.method != "GET" and request.content_type != "application/json":
            return "a request is JSON"
        if request.path != "/api/enter" and not self._keys.admits(_key_of(request)):
            return "the key is missing or wrong: open the page with the link that was printed"
        return None


def _key_of(request: web.Request) -> str:
    scheme, _, key = request.headers.get("Authorization", "").partition(" ")
    if scheme == "Bearer":
        return key
    offered = [word.strip() for word in request.headers.get("Sec-WebSocket-Protocol", "").split(",")]
    return offered[1] if len(offered) == 2 and offered[0] == PROTOCOL else ""
