// The tool_health table.
#include <optional>
#include <utility>
#include <vector>

#include "module/collaborators.hpp"
#include "module/mirror.hpp"
#include "module/operation.hpp"
#include "module/tracker.hpp"

namespace health {
namespace {

constexpr std::string_view kSelect = "SELECT " HEALTH_COLUMNS " FROM tool_health";
constexpr std::string_view kDelete = "DELETE FROM tool_health WHERE tool_name = ?";
constexpr std::string_view kUpsert = "INSERT INTO tool_health (" HEALTH_COLUMNS R"sql()
                    VALUES (?, ?, ?, ?, ?, ?)
                    ON CONFLICT(tool_name) DO UPDATE SET
                        call_count = excluded.call_count,
                        error_count = excluded.error_count,
                        last_error = excluded.last_error,
                        disabled_at = excluded.disabled_at,
                        updated_at = excluded.updated_at)sql";

// Timestamps

constexpr Signature<1> kSqliteTimeSignature{"_sqlite_time", {Name::epoch}};

PyDoc_STRVAR(kSqliteTimeDoc, R"(_sqlite_time($module, epoch)
--

The timestamp text, in UTC, of a time in epoch seconds; None for None.

Raises ValueError for a time outside the years 1 to 9999.)");

Ref sqlite_time(const ModuleState& /*module*/, PyObject* epoch) {
    if (epoch == Py_None) {
        return none();
    }
    return to_python(format_timestamp(to_double_or_infinity(epoch)));
}

constexpr Signature<1> kEpochSignature{"_epoch", {Name::text}};

PyDoc_STRVAR(kEpochDoc, R"(_epoch($module, text)
--

The epoch seconds of a timestamp text; None when it is None, empty or cannot be
read. Raises TypeError for a value that is neither empty nor text.)");

std::optional<double> stored_time(PyObject* value) {
    if (!truth(value)) {
        return std::nullopt;
    }
    if (!PyUnicode_Check(value)) {
        raise(PyExc_TypeError, "a stored time must be str, not %.200s", Py_TYPE(value)->tp_name);
    }
    return parse_timestamp(Text(value).text);
}

Ref epoch(const ModuleState& /*module*/, PyObject* value) { return to_python(stored_time(value)); }

// Reading

// The stored rows of known tools, as a list. Deletes those of the others.
Ref read_rows(Tracker& tracker) {
    const auto db = database(tracker);
    const auto stored = db.method(tracker.names[Name::fetchall], to_python(kSelect));
    auto known = owned(PyList_New(0));
    const auto removed = owned(PyList_New(0));
    Ref tools;
    Pacer pacer;
    stored.for_each([&](const Ref& row) {
        const auto tool = row.at(0);
        if (tools == nullptr) {
            tools = find_collaborator(tracker.module, kTools);
        }
        if (registry_knows(tracker.names, tools, tool, Py_None)) {
            checked(PyList_Append(known, row));
        } else {
            checked(PyList_Append(removed, make_tuple(tool)));
        }
        pacer.step();
    });
    if (PyList_GET_SIZE(removed.get()) > 0) {
        db.method(tracker.names[Name::executemany], to_python(kDelete), removed);
    }
    return known;
}

// A stored count: zero for what is empty, otherwise what Python makes an integer of.
Count stored_count(const Ref& value) {
    return truth(value) ? to_count(owned(PyNumber_Long(value))) : 0;
}

void seed(ToolStates& states, const Ref& row) {
    const auto tool = row.at(0);
    if (!PyUnicode_Check(tool.get())) {
        raise(PyExc_TypeError, "a tool_name must be str, not %.200s", Py_TYPE(tool.get())->tp_name);
    }
    ToolState state;
    state.call_count = stored_count(row.at(1));
    state.error_count = stored_count(row.at(2));
    state.last_error = to_last_error(row.at(3));
    state.disabled_at = stored_time(row.at(4));
    state.updated_at = stored_time(row.at(5)).value_or(0.0);
    states.seed(Text(tool), std::move(state));
}

Ref load_health(Tracker& tracker) {
    Ref rows;
    if (!read_or_log(tracker.module, "Could not read the tool health history: %s",
                     [&] { rows = read_rows(tracker); })) {
        return none();
    }
    // Converting calls Python, so it comes before the lock is taken. The rows before one that does
    // not convert are installed all the same.
    ToolStates states;
    const auto error = error_of([&] {
        Pacer pacer;
        rows.for_each([&](const Ref& row) {
            seed(states, row);
            pacer.step();
        });
    });
    tracker.health.run_without_gil([&](Health& health) {
        for (const auto& [tool, state] : states.entries()) {
            health.states.seed(tool, state);
        }
    });
    raise_if(error);
    return none();
}

// Writing

Ref row_values(const HealthRow& row) {
    return make_tuple(to_python(row.tool), to_python(row.call_count), to_python(row.error_count),
                      to_python(row.last_error), to_python(row.disabled_at),
                      to_python(row.updated_at));
}

void write_rows(Tracker& tracker, const std::vector<HealthRow>& rows) {
    const auto values = owned(PyList_New(0));
    Pacer pacer;
    for (const auto& row : rows) {
        checked(PyList_Append(values, row_values(row)));
        pacer.step();
    }
    database(tracker).method(tracker.names[Name::executemany], to_python(kUpsert), values);
}

Ref flush_health(Tracker& tracker) {
    auto rows =
        tracker.health.run_without_gil([](Health& health) { return health.states.take_changes(); });
    const auto count = static_cast<Count>(rows.size());
    if (count > 0) {
        write_or_mark(
            tracker.health, [&] { write_rows(tracker, rows); },
            [&](Health& health) { health.states.restore_changes(rows); });
    }
    free_without_gil(rows);
    return to_python(count);
}

}  // namespace

Methods health_mirror_methods() {
    return {
        method<load_health>("_load", "_load($self)\n--\n\nRead the tool_health table."),
        method<flush_health>(
            "_flush_health",
            "_flush_health($self)\n--\n\nWrite the changed rows of tool_health; return how many."),
    };
}

Methods health_mirror_functions() {
    return {
        method<epoch, kEpochSignature>(kEpochDoc),
        method<sqlite_time, kSqliteTimeSignature>(kSqliteTimeDoc),
    };
}

}  // namespace health
