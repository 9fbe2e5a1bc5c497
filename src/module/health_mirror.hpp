// What the rest of the module shares with the tool_health table's reader and writer.
#pragma once

#include <optional>

#include "module/python.hpp"

// The table's columns, in the order in which they are read and written.
#define HEALTH_COLUMNS "tool_name, call_count, error_count, last_error, disabled_at, updated_at"

namespace health {

// Epoch seconds of a stored timestamp text; nothing for one that is empty or cannot be read.
std::optional<double> stored_time(PyObject* value);

}  // namespace health
