"""Stands in for the local embedding model: it hardly computes, but keeps threads like the real one.

A thread that ran it keeps a team of further threads for as long as it lives.
"""

import hashlib
import os
import threading
from concurrent.futures import ThreadPoolExecutor
from typing import Annotated, Any

from quillet.tool_handlers.context import ToolContext
from quillet.utils.pools import started_pool

OWN_TEAM_SIZE = 8
MAX_TEAM_SIZE = 64

_kept = threading.local()


def embed_text(context: ToolContext, text: Annotated[str, "what to embed"]) -> dict[str, Any]:
    """A text's vector, which here is its digest."""
    if not hasattr(_kept, "team"):
        _kept.team = _start_team()
    digest = hashlib.blake2b(text.encode("utf-8", "surrogatepass"), digest_size=8).digest()
    return {"vector": list(digest)}


def _start_team() -> ThreadPoolExecutor:
    allowed = int(os.environ.get("QUILLET_EMBED_THREADS", "0"))
    return started_pool(min(allowed or OWN_TEAM_SIZE, MAX_TEAM_SIZE), "embedding")
