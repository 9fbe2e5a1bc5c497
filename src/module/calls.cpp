// The operations of every tool call. None of them touches the database, and one that finds the tool
// known allocates nothing but its answer and an error's text that is new.
#include <chrono>
#include <optional>

#include "module/operation.hpp"
#include "module/tracker.hpp"
#include "module/values.hpp"

namespace health {
namespace {

// How much of an error's text is kept, in code points.
constexpr Py_ssize_t kLastErrorLength = 500;

// Epoch seconds.
double wall_clock() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration<double>(now).count();
}

// Calls

constexpr Signature<5> kRecordCallSignature{
    "record_call",
    {Name::tool_name, Name::action, Name::outcome, Name::alias_hit, Name::duration_ms},
    3};

PyDoc_STRVAR(kRecordCallDoc,
             R"(record_call($self, tool_name, action, outcome, *, alias_hit, duration_ms)
--

Count a call under its tool, action, outcome and use of a synonym.

Arguments:
    tool_name: the tool's name, str.
    action: the action that ran, str, or None for a tool without actions.
    outcome: how the call ended, str.
    alias_hit: whether the call named a parameter or an action by a synonym.
    duration_ms: how long the handler ran, in milliseconds, or None when it
        did not run or did not answer.

Raises TypeError for a missing or wrong argument and OverflowError for a time
that no float holds, and then counts nothing.)");

std::optional<double> duration_argument(PyObject* argument) {
    if (argument == Py_None) {
        return std::nullopt;
    }
    if (!PyNumber_Check(argument)) {
        raise_wrong_type(kRecordCallSignature, Name::duration_ms, "a number or None", argument);
    }
    return to_double(argument);
}

Ref record_call(Tracker& tracker, PyObject* tool, PyObject* action, PyObject* outcome,
                PyObject* alias_hit, PyObject* duration) {
    text_argument(kRecordCallSignature, Name::tool_name, tool);
    if (action != Py_None && !PyUnicode_Check(action)) {
        raise_wrong_type(kRecordCallSignature, Name::action, "str or None", action);
    }
    text_argument(kRecordCallSignature, Name::outcome, outcome);
    if (!PyBool_Check(alias_hit)) {
        raise_wrong_type(kRecordCallSignature, Name::alias_hit, "bool", alias_hit);
    }
    const auto duration_ms = duration_argument(duration);
    const CallKey key(tool, action, outcome, alias_hit == Py_True);
    tracker.health.run([&](Health& health) { health.usage.record_call(key.view(), duration_ms); });
    return none();
}

// Successes

constexpr Signature<1> kRecordSuccessSignature{"record_success", {Name::tool_name}};

PyDoc_STRVAR(kRecordSuccessDoc, R"(record_success($self, tool_name)
--

Record a successful call: ends the tool's run of errors and enables it.)");

Ref record_success(Tracker& tracker, PyObject* tool_name) {
    const Text tool(text_argument(kRecordSuccessSignature, Name::tool_name, tool_name));
    tracker.health.run([&](Health& health) { health.states.record_success(tool, wall_clock()); });
    return none();
}

// Errors

constexpr Signature<2> kRecordErrorSignature{"record_error", {Name::tool_name, Name::error}};

PyDoc_STRVAR(kRecordErrorDoc, R"(record_error($self, tool_name, error)
--

Record a failed call. The first 500 characters of the text `error` are kept
(None counts as empty). The error that completes a run of
limits.disable_after_errors disables the tool, and so does each one after it:
the cooldown counts from the latest.)");

// As much of an error's text as is kept. No more is encoded, however long it is.
Ref error_argument(PyObject* argument) {
    if (argument == Py_None) {
        return to_python(std::string_view());
    }
    if (!PyUnicode_Check(argument)) {
        raise_wrong_type(kRecordErrorSignature, Name::error, "str or None", argument);
    }
    return checked(PyUnicode_GetLength(argument)) > kLastErrorLength
               ? owned(PyUnicode_Substring(argument, 0, kLastErrorLength))
               : shared(argument);
}

Ref record_error(Tracker& tracker, PyObject* tool_name, PyObject* error) {
    const Text tool(text_argument(kRecordErrorSignature, Name::tool_name, tool_name));
    const auto kept = error_argument(error);
    const Text text(kept);
    std::optional<double> disable_after;
    const auto unreadable = error_of([&] {
        disable_after = to_double_or_infinity(
            settings(tracker).attribute(tracker.names[Name::disable_after_errors]));
    });
    // The call failed whatever the settings are.
    tracker.health.run([&](Health& health) {
        health.states.record_error(tool, text.text, wall_clock(), disable_after);
    });
    raise_if(unreadable);
    return none();
}

// Disabled tools

constexpr Signature<1> kIsDisabledSignature{"is_disabled", {Name::tool_name}};

PyDoc_STRVAR(kIsDisabledDoc, R"(is_disabled($self, tool_name)
--

Whether the tool is disabled, as a pair: (False, None), or (True, last error).

A disabled tool whose cooldown has passed is enabled by this call. A tool never
seen is not disabled.)");

// An agent tends to ask for the same disabled tool again, and then gets the same answer object.
Ref disabled_answer(DisabledAnswer& latest, const LastError& error) {
    if (latest.answer == nullptr || latest.error != error) {
        latest = {error, make_tuple(to_python(true), to_python(error))};
    }
    return latest.answer;
}

Ref is_disabled(Tracker& tracker, PyObject* tool_name) {
    const Text tool(text_argument(kIsDisabledSignature, Name::tool_name, tool_name));
    const auto disabled =
        tracker.health.run([&](Health& health) { return health.states.find_disabled(tool); });
    if (!disabled) {
        return tracker.module.enabled;
    }
    // The settings are Python's, so they are read outside the lock.
    const auto cooldown = owned(PyObject_GetAttr(tracker.self, tracker.names[Name::cooldown_s]));
    const double cooldown_s = to_double_or_infinity(cooldown);
    const auto last_error = tracker.health.run([&](Health& health) {
        return health.states.enable_if_cooled_down(*disabled, wall_clock(), cooldown_s);
    });
    return last_error ? disabled_answer(tracker.latest_answer, *last_error)
                      : tracker.module.enabled;
}

}  // namespace

Methods call_methods() {
    return {
        method<record_call, kRecordCallSignature>(kRecordCallDoc),
        method<record_success, kRecordSuccessSignature>(kRecordSuccessDoc),
        method<record_error, kRecordErrorSignature>(kRecordErrorDoc),
        method<is_disabled, kIsDisabledSignature>(kIsDisabledDoc),
    };
}

}  // namespace health
