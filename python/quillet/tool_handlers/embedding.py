"""Stands in for the local embedding model: it hardly computes, but keeps threads like the real one.

A thread that ran it keeps a team of further threads for as long as it lives. The environment may
name a file for the model, QUILLET_EMBED_MODEL; without that file, every call fails.
"""

import hashlib
import os
import threading
from pathlib import Path
from typing import Annotated, Any

from quillet.regular_files import read_regular_file
from quillet.tool_handlers.context import ToolContext
from quillet.utils.process import started_pool

OWN_TEAM_SIZE = 8
MAX_TEAM_SIZE = 64
MAX_MODEL_BYTES = 1_000_000

_kept = threading.local()


def embed_text(context: ToolContext, text: Annotated[str, "what to embed"]) -> dict[str, Any]:
    """A text's vector, which here is its digest, keyed with the model."""
    model = os.environ.get("QUILLET_EMBED_MODEL")
    weights = read_regular_file(Path(model), MAX_MODEL_BYTES)[0] if model else b""
    if not hasattr(_kept, "team"):
        size = int(os.environ.get("QUILLET_EMBED_THREADS", "0")) or OWN_TEAM_SIZE
        _kept.team = started_pool(min(size, MAX_TEAM_SIZE), "embedding")
    words = text.encode("utf-8", "surrogatepass")
    digest = hashlib.blake2b(words, digest_size=8, key=weights[: hashlib.blake2b.MAX_KEY_SIZE])
    return {"vector": list(digest.digest())}
