"""The tools that the daemon serves, with their handlers and the synonyms that agents may use."""

from dataclasses import dataclass, field

from quillet.tool_handlers import embedding, files, status
from quillet.tool_schemas import Handler


@dataclass(frozen=True)
class ToolSpec:
    """A tool: one handler per action; a tool without actions has its only one under None."""

    handlers: dict[str | None, Handler]
    parameter_synonyms: dict[str, str] = field(default_factory=dict)
    action_synonyms: dict[str, str] = field(default_factory=dict)

    def action(self, name: object) -> Handler | None:
        """The entry of a named action."""
        return self.handlers.get(name) if isinstance(name, str) else None


TOOLS = {
    "search_text": ToolSpec(
        {None: files.search_text}, {"query": "text", "pattern": "text", "folder": "path"}
    ),
    "read_file": ToolSpec({None: files.read_file}, {"file": "path", "file_path": "path"}),
    "count_lines": ToolSpec({None: files.count_lines}, {"folder": "path"}),
    "embed_text": ToolSpec({None: embedding.embed_text}),
    "status": ToolSpec(
        {"perf_stats": status.perf_stats, "threads": status.threads},
        action_synonyms={"performance": "perf_stats"},
    ),
    "get_tool_performance_stats": ToolSpec({None: status.tool_performance_stats}),
}
