// The tool_health table: read when a tracker is made, written when it is flushed.
#include <string>
#include <utility>
#include <vector>

#include "module/collaborators.hpp"
#include "module/health_mirror.hpp"
#include "module/tracker.hpp"
#include "module/values.hpp"

namespace health {
namespace {

constexpr const char* kSelect = "SELECT " HEALTH_COLUMNS " FROM tool_health";
constexpr const char* kDelete = "DELETE FROM tool_health WHERE tool_name = ?";
constexpr const char* kUpsert = "INSERT INTO tool_health (" HEALTH_COLUMNS
                                ")\n"
                                "                    VALUES (?, ?, ?, ?, ?, ?)\n"
                                "                    ON CONFLICT(tool_name) DO UPDATE SET\n"
                                "                        call_count = excluded.call_count,\n"
                                "                        error_count = excluded.error_count,\n"
                                "                        last_error = excluded.last_error,\n"
                                "                        disabled_at = excluded.disabled_at,\n"
                                "                        updated_at = excluded.updated_at";

struct StoredState {
    Ref name;
    Text tool;  // a view of the name
    ToolState state;
};

// The stored rows of known tools, as sequences of values. Deletes those of the others.
Ref read_rows(const Tracker& tracker) {
    const auto& names = tracker.module.names;
    const auto db = database(tracker);
    const auto select = owned(PyUnicode_FromString(kSelect));
    const auto stored =
        owned(PyObject_CallMethodOneArg(db.get(), names[Name::fetchall], select.get()));
    const auto rows = owned(PySequence_Tuple(stored.get()));
    auto known = owned(PyList_New(0));
    const auto removed = owned(PyList_New(0));
    Ref tools;
    Pacer pacer;
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(rows.get()); ++i) {
        PyObject* row = PyTuple_GET_ITEM(rows.get(), i);
        const auto tool = owned(PySequence_GetItem(row, 0));
        if (!tools) {
            tools = collaborator(tracker.module, "tool_registry", "TOOLS");
        }
        if (registry_knows(names, tools.get(), tool.get(), Py_None)) {
            checked(PyList_Append(known.get(), row));
        } else {
            checked(PyList_Append(removed.get(), make_tuple(tool).get()));
        }
        pacer.step();
    }
    if (PyList_GET_SIZE(removed.get()) > 0) {
        const auto statement = owned(PyUnicode_FromString(kDelete));
        owned(PyObject_CallMethodObjArgs(db.get(), names[Name::executemany], statement.get(),
                                         removed.get(), nullptr));
    }
    return known;
}

// A stored count: zero for what is empty, otherwise what Python makes an integer of.
Count stored_count(PyObject* value) {
    return checked(PyObject_IsTrue(value)) != 0 ? to_count(owned(PyNumber_Long(value)).get()) : 0;
}

StoredState stored_state(PyObject* row) {
    const auto values = owned(PySequence_Tuple(row));
    if (PyTuple_GET_SIZE(values.get()) != 6) {
        PyErr_Format(PyExc_ValueError, "a row of tool_health has %zd values, not 6",
                     PyTuple_GET_SIZE(values.get()));
        throw PythonError();
    }
    const auto value = [&](Py_ssize_t column) { return PyTuple_GET_ITEM(values.get(), column); };
    if (!PyUnicode_Check(value(0))) {
        PyErr_Format(PyExc_TypeError, "a tool_name must be str, not %.200s",
                     Py_TYPE(value(0))->tp_name);
        throw PythonError();
    }
    ToolState state;
    state.call_count = stored_count(value(1));
    state.error_count = stored_count(value(2));
    state.last_error = to_last_error(value(3));
    state.disabled_at = stored_time(value(4));
    state.updated_at = stored_time(value(5)).value_or(0.0);
    return {shared(value(0)), Text(value(0)), std::move(state)};
}

Ref row_values(const HealthRow& row) {
    return make_tuple(to_python(row.tool), to_python(row.call_count), to_python(row.error_count),
                      to_python(row.last_error), to_python(row.disabled_at),
                      to_python(std::optional(row.updated_at)));
}

void write_rows(const Tracker& tracker, const std::vector<HealthRow>& rows) {
    const auto values = owned(PyList_New(0));
    Pacer pacer;
    for (const auto& row : rows) {
        checked(PyList_Append(values.get(), row_values(row).get()));
        pacer.step();
    }
    const auto statement = owned(PyUnicode_FromString(kUpsert));
    owned(PyObject_CallMethodObjArgs(database(tracker).get(),
                                     tracker.module.names[Name::executemany], statement.get(),
                                     values.get(), nullptr));
}

}  // namespace

std::optional<double> stored_time(PyObject* value) {
    if (checked(PyObject_IsTrue(value)) == 0) {
        return std::nullopt;
    }
    if (!PyUnicode_Check(value)) {
        PyErr_Format(PyExc_TypeError, "a stored time must be str, not %.200s",
                     Py_TYPE(value)->tp_name);
        throw PythonError();
    }
    return parse_timestamp(Text(value).text);
}

Ref load_health(Tracker& tracker) {
    Ref rows;
    if (!read_history(tracker.module, "Could not read the tool health history: %s",
                      [&] { rows = read_rows(tracker); })) {
        return none();
    }
    // Converting calls Python, so it comes before the lock is taken. The rows before one that
    // cannot be converted are installed all the same.
    std::vector<StoredState> states;
    const auto install = [&] {
        tracker.lock.run_aside([&] {
            for (auto& stored : states) {
                tracker.states.seed(stored.tool, std::move(stored.state));
            }
        });
    };
    try {
        Pacer pacer;
        for (Py_ssize_t i = 0; i < PyList_GET_SIZE(rows.get()); ++i) {
            states.push_back(stored_state(PyList_GET_ITEM(rows.get(), i)));
            pacer.step();
        }
    } catch (const PythonError&) {
        install();
        throw;
    }
    install();
    return none();
}

Ref flush_health(Tracker& tracker) {
    const auto rows = tracker.lock.run_aside([&] { return tracker.states.take_changes(); });
    if (rows.empty()) {
        return to_python(Count{0});
    }
    try {
        write_rows(tracker, rows);
    } catch (const std::exception&) {
        tracker.lock.run([&] { tracker.states.restore_changes(rows); });
        throw;
    }
    return to_python(static_cast<Count>(rows.size()));
}

}  // namespace health
