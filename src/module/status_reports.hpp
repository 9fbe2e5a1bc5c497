// The answers of the status tools that need no tracker.
#pragma once

#include "module/arguments.hpp"
#include "module/module_state.hpp"
#include "module/python.hpp"

namespace health {

// performance_stats.cpp
Ref tool_performance_stats(const ModuleState& module, const Call& call);
// thread_report.cpp
Ref thread_census_report(const ModuleState& module, const Call& call);

}  // namespace health
