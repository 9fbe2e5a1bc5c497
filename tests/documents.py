"""The code in the documents, for tests to run as it stands."""

import re


def snippets(path, language):
    """The texts of a Markdown file's fenced blocks in a language, in their order."""
    return re.findall(rf"^```{language}\n(.*?)^```$", path.read_text(), re.MULTILINE | re.DOTALL)
