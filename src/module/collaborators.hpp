// The objects that the daemon around the module supplies, found when they are needed.
#pragma once

#include "module/module.hpp"
#include "module/python.hpp"

namespace health {

// An object of the daemon's, in a module of the daemon's.
struct Collaborator {
    Name name;
    const char* home;  // relative to the daemon's package
};

inline constexpr Collaborator kToolsConfig{Name::ToolsConfig, "config"};
inline constexpr Collaborator kTools{Name::TOOLS, "tool_registry"};
inline constexpr Collaborator kIsSlowCall{Name::is_slow_call, "tool_schemas"};
inline constexpr Collaborator kGetTimingCollector{Name::get_timing_collector, "utils.timing"};
inline constexpr Collaborator kThreadCensus{Name::thread_census, "utils.process"};

// The one set on the module itself, else the daemon's own. An ImportError says to set one that is
// not found.
Ref find_collaborator(const ModuleState& module, const Collaborator& collaborator);

}  // namespace health
