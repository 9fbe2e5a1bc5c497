"""The documents' code, for the tests that run it as it stands."""

import re
from pathlib import Path

ROOT = Path(__file__).parent.parent


def snippets(path, language):
    """The fenced blocks in a language of one of the repository's documents, in order."""
    text = (ROOT / path).read_text(encoding="utf-8")
    return re.findall(rf"^```{language}\n(.*?)^```$", text, re.MULTILINE | re.DOTALL)
