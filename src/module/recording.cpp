// The operations of every tool call. None of them touches the database, and one that finds the
// tool known allocates nothing but its answer and an error's text that is new.
#include <cmath>
#include <ctime>
#include <limits>
#include <optional>

#include "module/tracker.hpp"
#include "module/values.hpp"

namespace health {
namespace {

constexpr Signature<5> kRecordCall{
    .function = "ToolHealthTracker.record_call",
    .parameters = {Name::tool_name, Name::action, Name::outcome, Name::alias_hit,
                   Name::duration_ms},
    .positional = 3,
};
constexpr Signature<1> kRecordSuccess{"ToolHealthTracker.record_success", {Name::tool_name}};
constexpr Signature<2> kRecordError{"ToolHealthTracker.record_error",
                                    {Name::tool_name, Name::error}};
constexpr Signature<1> kIsDisabled{"ToolHealthTracker.is_disabled", {Name::tool_name}};

// Epoch seconds, without the division that std::chrono's count of nanoseconds would need.
double wall_clock() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

template <std::size_t Size>
Text text_argument(const Tracker& tracker, const Signature<Size>& signature, Name parameter,
                   PyObject* argument) {
    if (!PyUnicode_Check(argument)) {
        raise_wrong_type(signature.function, tracker.module.names[parameter], "str", argument);
    }
    return Text(argument);
}

std::optional<double> duration_argument(const Tracker& tracker, PyObject* argument) {
    if (argument == Py_None) {
        return std::nullopt;
    }
    return number_argument(kRecordCall.function, tracker.module.names[Name::duration_ms], argument);
}

bool truth_argument(const Tracker& tracker, PyObject* argument) {
    if (!PyBool_Check(argument)) {
        raise_wrong_type(kRecordCall.function, tracker.module.names[Name::alias_hit], "bool",
                         argument);
    }
    return argument == Py_True;
}

// The text of an error, or of so much of a long one as is kept.
Ref error_argument(const Tracker& tracker, PyObject* argument) {
    if (argument == Py_None) {
        return owned(PyUnicode_New(0, 0));
    }
    if (!PyUnicode_Check(argument)) {
        raise_wrong_type(kRecordError.function, tracker.module.names[Name::error], "str or None",
                         argument);
    }
    constexpr auto kMost = static_cast<Py_ssize_t>(kLastErrorLength);
    return checked(PyUnicode_GetLength(argument)) > kMost
               ? owned(PyUnicode_Substring(argument, 0, kMost))
               : shared(argument);
}

// The least count that is not below a number; one that no run reaches for infinity.
Count least_count(double number) {
    constexpr double kLimit = 0x1p63;
    if (!(number < kLimit)) {
        return std::numeric_limits<Count>::max();
    }
    return number > -kLimit ? static_cast<Count>(std::ceil(number))
                            : std::numeric_limits<Count>::min();
}

// How many errors in a row disable a tool.
Count disable_after(const Tracker& tracker) {
    const auto setting =
        owned(settings(tracker).getattr(tracker.module.names[Name::disable_after_errors]));
    if (setting.is_float()) {
        return least_count(PyFloat_AS_DOUBLE(setting.get()));
    }
    const auto integer = owned(PyNumber_Index(setting.get()));
    int overflow = 0;
    const Count errors = PyLong_AsLongLongAndOverflow(integer.get(), &overflow);
    if (overflow != 0) {
        return overflow > 0 ? std::numeric_limits<Count>::max() : std::numeric_limits<Count>::min();
    }
    if (errors == -1 && PyErr_Occurred() != nullptr) {
        throw PythonError();
    }
    return errors;
}

bool cooldown_has_passed(const Tracker& tracker, double elapsed) {
    const auto cooldown =
        owned(PyObject_GetAttr(tracker.self, tracker.module.names[Name::cooldown_s]));
    if (PyFloat_CheckExact(cooldown.get())) {
        return elapsed >= PyFloat_AS_DOUBLE(cooldown.get());
    }
    const auto seconds = owned(PyFloat_FromDouble(elapsed));
    return checked(PyObject_RichCompareBool(seconds.get(), cooldown.get(), Py_GE)) != 0;
}

// An agent tends to ask for the same disabled tool again, and then gets the same answer object.
Ref disabled_answer(DisabledAnswer& latest, const LastError& error) {
    if (!latest.answer || latest.error != error) {
        latest = {error, make_tuple(to_python(true), to_python(error))};
    }
    return latest.answer;
}

}  // namespace

Ref record_call(Tracker& tracker, const Call& call) {
    const auto [tool_name, action_name, outcome_value, alias_hit, duration] =
        bind(kRecordCall, tracker.module.names, call);
    const auto tool = text_argument(tracker, kRecordCall, Name::tool_name, tool_name);
    std::optional<Text> action;
    if (action_name != Py_None) {
        if (!PyUnicode_Check(action_name)) {
            raise_wrong_type(kRecordCall.function, tracker.module.names[Name::action],
                             "str or None", action_name);
        }
        action.emplace(action_name);
    }
    const auto outcome = text_argument(tracker, kRecordCall, Name::outcome, outcome_value);
    const UsageKey key{&tool, action ? &*action : nullptr, &outcome,
                       truth_argument(tracker, alias_hit)};
    const auto duration_ms = duration_argument(tracker, duration);
    tracker.lock.run([&] { tracker.usage.record_call(key, duration_ms); });
    return none();
}

Ref record_success(Tracker& tracker, const Call& call) {
    const auto [tool_name] = bind(kRecordSuccess, tracker.module.names, call);
    const auto tool = text_argument(tracker, kRecordSuccess, Name::tool_name, tool_name);
    tracker.lock.run([&] { tracker.states.record_success(tool, wall_clock()); });
    return none();
}

Ref record_error(Tracker& tracker, const Call& call) {
    const auto [tool_name, error] = bind(kRecordError, tracker.module.names, call);
    const auto tool = text_argument(tracker, kRecordError, Name::tool_name, tool_name);
    const auto kept = error_argument(tracker, error);
    const Text text(kept.get());
    const auto count = [&](std::optional<Count> limit) {
        tracker.lock.run(
            [&] { tracker.states.record_error(tool, text.text, wall_clock(), limit); });
    };
    Count limit = 0;
    try {
        limit = disable_after(tracker);
    } catch (const PythonError&) {
        // The call failed whatever the settings are.
        count(std::nullopt);
        throw;
    }
    count(limit);
    return none();
}

Ref is_disabled(Tracker& tracker, const Call& call) {
    const auto [tool_name] = bind(kIsDisabled, tracker.module.names, call);
    const auto tool = text_argument(tracker, kIsDisabled, Name::tool_name, tool_name);
    for (;;) {
        const auto disabled = tracker.lock.run([&] { return tracker.states.disablement(tool); });
        if (!disabled) {
            return tracker.module.enabled;
        }
        // The settings are Python's, so they are read without the lock.
        const double now = wall_clock();
        if (!cooldown_has_passed(tracker, now - disabled->since)) {
            return disabled_answer(tracker.latest_answer, disabled->last_error);
        }
        if (tracker.lock.run([&] { return tracker.states.reenable(tool, disabled->since, now); })) {
            return tracker.module.enabled;
        }
    }
}

}  // namespace health
