// ToolHealthTracker: a repository's tool health, kept in memory and mirrored into its database.
#pragma once

#include "module/operation.hpp"
#include "module/shared_health.hpp"

namespace health {

// What is_disabled answers for a disabled tool: (True, last error).
struct DisabledAnswer {
    LastError error;
    Ref answer;  // null before the first
};

struct Tracker {
    explicit Tracker(const ModuleState& loaded) : module(loaded) {}

    const ModuleState& module;
    const Names& names = module.names;
    Ref module_owner = shared(module.module);  // the class lets go of it when both are collected
    PyObject* self = nullptr;                  // the Python object that holds this
    Ref repository;                            // null until __init__ has run
    Ref limits;                                // likewise
    SharedHealth health;
    DisabledAnswer latest_answer;  // guarded by the interpreter lock
};

Tracker& tracker_of(PyObject* self);

template <>
inline Tracker& owner_of(PyObject* self) {
    return tracker_of(self);
}

// What __init__ is given; an AttributeError before.
const Ref& settings(const Tracker& tracker);
Ref database(const Tracker& tracker);

// Make the class, and a dict of the types _ToolState, _Usage and _UsageKey, for a module that is
// being loaded.
Ref make_tracker_type(PyObject* module, PyObject* module_name);
Ref make_records(PyObject* module_name);

}  // namespace health
