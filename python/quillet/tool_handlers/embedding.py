"""Stands in for the local embedding model: it hardly computes, but keeps threads like the real one.

A thread that ran it keeps a team of further threads for as long as it lives.
"""

import hashlib
import os
import threading
from typing import Annotated, Any

from quillet.tool_handlers.context import ToolContext
from quillet.utils.process import started_pool

OWN_TEAM_SIZE = 8
MAX_TEAM_SIZE = 64

_kept = threading.local()


def embed_text(context: ToolContext, text: Annotated[str, "what to embed"]) -> dict[str, Any]:
    """A text's vector, which here is its digest."""
    if not hasattr(_kept, "team"):
        size = int(os.environ.get("QUILLET_EMBED_THREADS", "0")) or OWN_TEAM_SIZE
        _kept.team = started_pool(min(size, MAX_TEAM_SIZE), "embedding")
    digest = hashlib.blake2b(text.encode("utf-8", "surrogatepass"), digest_size=8).digest()
    return {"vector": list(digest)}
