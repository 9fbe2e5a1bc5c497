// The types that show a tracker's memory to Python: _ToolState, _Usage and _UsageKey.
#pragma once

#include "module/python.hpp"

namespace health {

// A dict that holds them.
Ref make_records(PyObject* module_name);

}  // namespace health
