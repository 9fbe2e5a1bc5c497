"""The form of what a tool answers."""

import json
import math
from typing import Any


def tool_result(content: Any, *, failed: bool) -> dict[str, Any]:
    """A call's result. A failure is one, too, and no protocol error: a model can read its text."""
    content = json_safe(content)
    words = content if isinstance(content, str) else json.dumps(content)
    result: dict[str, Any] = {"content": [{"type": "text", "text": words}]}
    if isinstance(content, dict):
        result["structuredContent"] = content
    return {**result, "isError": failed}


def json_safe(value: Any) -> Any:
    """The value as JSON has it: bytes as text, and null for a number that is not finite."""
    match value:
        case dict():
            return {key: json_safe(inner) for key, inner in value.items()}
        case list():
            return [json_safe(inner) for inner in value]
        case bytes():
            return value.decode("utf-8", "backslashreplace")
        case float() if not math.isfinite(value):
            return None
    return value
