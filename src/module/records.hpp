// The types of the records that show a tracker's memory to Python.
#pragma once

#include "module/python.hpp"

namespace health {

Ref make_tool_state_type(PyObject* module_name);
Ref make_usage_type(PyObject* module_name);
Ref make_usage_key_type();

}  // namespace health
