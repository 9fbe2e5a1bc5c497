// The objects that the daemon around the module supplies, found when they are needed.
#pragma once

#include <exception>

#include "module/module_state.hpp"
#include "module/python.hpp"

namespace health {

// The daemon's object called `name`: the one set on the module itself, else that of the daemon's
// module `home`, relative to the daemon's package. An ImportError names one that is not found.
Ref collaborator(const ModuleState& module, const char* home, const char* name);

// Whether the registry `tools` has a tool and, unless `action` is none, that action of it.
bool registry_knows(const Names& names, PyObject* tools, PyObject* tool, PyObject* action);

// Logs the interpreter's error as the argument of `message`, a warning, and clears it; passes on
// what is not an Exception.
void log_history_error(const ModuleState& module, const char* message);

// Runs `read`, which reads stored history. False, and the error logged, when that failed.
template <class Read>
bool read_history(const ModuleState& module, const char* message, Read&& read) {
    try {
        read();
        return true;
    } catch (const std::exception&) {
        set_error_from_exception();
    }
    log_history_error(module, message);
    return false;
}

}  // namespace health
