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

// The one set on the module itself, else the daemon's own. An ImportError names one that is not
// found.
Ref find(const ModuleState& module, const Collaborator& collaborator);

// Whether the registry `tools` has a tool and, unless `action` is none, that action of it.
bool registry_knows(const Names& names, const Ref& tools, PyObject* tool, PyObject* action);

// Logs an error as the argument of `message`, a warning; passes on what is not an Exception.
void log_history_error(const ModuleState& module, const char* message, const Ref& error);

// Runs `read`, which reads stored history. False, and the error logged, when that failed.
template <class Read>
bool read_history(const ModuleState& module, const char* message, Read&& read) {
    const auto error = error_of(read);
    if (error != nullptr) {
        log_history_error(module, message, error);
    }
    return error == nullptr;
}

}  // namespace health
