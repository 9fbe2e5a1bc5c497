import time
from collections.abc import Callable

import health
from harbord import Database, Limits, Repository  # a daemon in one file, beside this one

limits = Limits(disable_after_errors=2, disable_cooldown_s=0.5)
tracker = health.ToolHealthTracker(Repository(Database(":memory:")), limits)


def call(tool: str, handler: Callable[[], object]) -> str:
    disabled, last_error = tracker.is_disabled(tool)
    if disabled:
        return f"{tool} is disabled: {last_error!r}"
    try:
        answer = handler()
    except Exception as error:
        tracker.record_error(tool, str(error))
        return f"{tool} failed: {error}"
    tracker.record_success(tool)
    return f"{tool}: {answer}"


for _ in range(3):
    print(call("divide", lambda: 1 / 0))
time.sleep(0.5)
print(call("divide", lambda: 1 / 2))
for tool in tracker.get_health_summary():
    print(tool["tool_name"], tool["call_count"], "calls,", tool["error_count"], "errors")
print(tracker.flush(), "row written")
