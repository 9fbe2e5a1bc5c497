// The tracker's mirror in its repository's database: the tool_health table and the usage document.
// Both are read when a tracker is made and written when it is flushed.
#pragma once

#include <string_view>

#include "module/shared_health.hpp"
#include "module/values.hpp"

namespace health {

// In the order in which they are read and written.
#define HEALTH_COLUMNS "tool_name, call_count, error_count, last_error, disabled_at, updated_at"

// Of the document's row in schema_info.
inline constexpr std::string_view kUsageDocumentKey = "tool_usage";

// Whether the registry `tools` has a tool and, unless `action` is none, that action of it.
inline bool registry_knows(const Names& names, const Ref& tools, PyObject* tool, PyObject* action) {
    const auto spec = tools.method(names[Name::get], tool);
    return !spec.is_none() &&
           (action == Py_None || !spec.method(names[Name::action], action).is_none());
}

// Reads from the database and returns whether that worked. An Exception is logged as the argument
// of `message`, a warning.
template <class Read>
bool read_or_log(const ModuleState& module, const char* message, Read&& read) {
    const auto error = exception_of(read);
    if (error == nullptr) {
        return true;
    }
    const auto logger = shared(module.module).attribute(module.names[Name::logger]);
    logger.method(module.names[Name::warning], to_python(std::string_view(message)), error);
    return false;
}

// Writes to the database. When that fails, `mark_again` marks what was to be written as changed.
template <class Write, class MarkAgain>
void write_or_mark(SharedHealth& health, Write&& write, MarkAgain&& mark_again) {
    const auto error = error_of(write);
    if (error != nullptr) {
        health.run_surely(mark_again);
        checked(PyErr_CheckSignals());  // which had to wait
        raise_again(error);
    }
}

}  // namespace health
