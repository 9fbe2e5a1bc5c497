"""Which revision of the protocol a request is of.

The stateless revision has every request say so in its `_meta`; an earlier one is agreed on in a
handshake at the start.
"""

from reprlib import repr as shortened
from typing import Any

from quillet.protocol.messages import INVALID_PARAMS, ProtocolError
from quillet.tool_handlers.health import __version__

STATELESS = "2026-07-28"
WITH_HANDSHAKE = ("2025-11-25", "2025-06-18", "2024-11-05")
VERSION = "io.modelcontextprotocol/protocolVersion"
CLIENT_CAPABILITIES = "io.modelcontextprotocol/clientCapabilities"
SERVER_INFO = "io.modelcontextprotocol/serverInfo"
UNSUPPORTED_VERSION = -32022
FRESH_MS = 60_000  # the tools change with the program alone, which a client starts itself

INSTRUCTIONS = """\
A tool that keeps failing is disabled for a while, and says until when; call another meanwhile. \
The tool status tells how all tools fare."""
INTRODUCTION = {"capabilities": {"tools": {}}, "instructions": INSTRUCTIONS}
SERVER = {"name": "quillet", "version": __version__}


def is_stateless(params: dict[str, Any]) -> bool:
    """Whether a request is of the stateless revision; a ProtocolError if it names another one."""
    meta = params.get("_meta", {})
    if not isinstance(meta, dict):
        raise ProtocolError(INVALID_PARAMS, "_meta must be an object")
    if VERSION not in meta and CLIENT_CAPABILITIES not in meta:
        return False
    version = meta.get(VERSION)
    if not isinstance(version, str):
        raise ProtocolError(INVALID_PARAMS, f"_meta lacks {VERSION}, a text")
    if version != STATELESS:
        data = {"supported": [STATELESS], "requested": version}
        raise ProtocolError(UNSUPPORTED_VERSION, f"No version {shortened(version)}", data)
    if not isinstance(meta.get(CLIENT_CAPABILITIES), dict):
        raise ProtocolError(INVALID_PARAMS, f"_meta lacks {CLIENT_CAPABILITIES}, an object")
    return True


def discovery() -> dict[str, Any]:
    """The answer to `server/discover`."""
    # Clients would send a version with a handshake in `_meta`, too, were it named here.
    return {"supportedVersions": [STATELESS], **INTRODUCTION}


def stateless_result(result: dict[str, Any], *, cacheable: bool) -> dict[str, Any]:
    """A result with what the stateless revision has in each."""
    caching = {"ttlMs": FRESH_MS, "cacheScope": "public"} if cacheable else {}
    return {"resultType": "complete", "_meta": {SERVER_INFO: SERVER}, **caching, **result}


def initialize_result(params: dict[str, Any]) -> dict[str, Any]:
    """The answer to `initialize`: the version asked for if there is one, else the latest."""
    for name, kind in {"protocolVersion": str, "capabilities": dict, "clientInfo": dict}.items():
        if not isinstance(params.get(name), kind):
            raise ProtocolError(INVALID_PARAMS, f"initialize lacks {name}")
    asked = params["protocolVersion"]
    version = asked if asked in WITH_HANDSHAKE else WITH_HANDSHAKE[0]
    return {"protocolVersion": version, "serverInfo": SERVER, **INTRODUCTION}
