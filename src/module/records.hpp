// The record types that show a tracker's memory to Python.
#pragma once

#include "module/python.hpp"

namespace health {

cppy::ptr make_tool_state_type(PyObject* module_name);
cppy::ptr make_usage_type(PyObject* module_name);

}  // namespace health
