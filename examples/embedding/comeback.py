import time

import health
from harbord import Database, Limits, Repository, Tool  # a daemon in one file, beside this one

online = False


def forecast(place: str) -> str:
    if not online:
        raise ConnectionError("the weather service does not answer")
    return f"sunny in {place}"


tools = {"forecast": Tool(forecast)}
health.TOOLS = tools  # your tools; the history of any other tool is dropped at a start
health.is_slow_call = lambda tool, action: False  # which calls the summary marks as slow
limits = Limits(disable_after_errors=2, disable_cooldown_s=0.5)
tracker = health.ToolHealthTracker(Repository(Database(":memory:")), limits)


def call(tool: str, argument: str) -> str:
    disabled, last_error = tracker.is_disabled(tool)
    if disabled:
        return f"{tool} is disabled: {last_error}"
    try:
        answer = tools[tool].handler(argument)
    except Exception as error:
        tracker.record_error(tool, str(error))
        return f"{tool} failed: {error}"
    tracker.record_success(tool)
    return f"{tool}: {answer}"


for _ in range(3):
    print(call("forecast", "Kiel"))
time.sleep(0.5)
online = True
print(call("forecast", "Kiel"))
for tool in tracker.get_health_summary():
    print(tool["tool_name"], "ran", tool["call_count"], "times,", tool["error_count"], "errors")
print(tracker.flush(), "row written")
