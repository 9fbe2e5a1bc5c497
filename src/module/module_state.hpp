// What one loaded module owns. The module may be loaded more than once in a process, under
// different names.
#pragma once

#include <string>

#include "module/names.hpp"
#include "module/python.hpp"

namespace health {

struct ModuleState {
    PyObject* module;     // owns this state
    std::string package;  // what the names of the daemon's modules start with
    Names names;
    Ref tool_state_type;  // _ToolState
    Ref usage_type;       // _Usage
    Ref enabled;          // (False, None), the answer of nearly every is_disabled
};

const ModuleState& state_of(PyObject* module);

// The state of the module whose class `type` is, or is derived from.
const ModuleState& state_of_class(PyTypeObject* type);

}  // namespace health
