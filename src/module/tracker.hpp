// ToolHealthTracker: a repository's tool health, kept in memory and mirrored into its database.
#pragma once

#include "module/arguments.hpp"
#include "module/lock.hpp"
#include "module/module.hpp"
#include "module/python.hpp"

namespace health {

// What is_disabled answers for a disabled tool: (True, last error).
struct DisabledAnswer {
    LastError error;
    Ref answer;  // null before the first
};

struct Tracker {
    Tracker(PyObject* object, const ModuleState& loaded)
        : self(object), module(loaded), module_owner(shared(loaded.module)) {}

    PyObject* self;  // the Python object that holds this
    const ModuleState& module;
    Ref module_owner;  // the class alone would let go of it when the collector takes both
    Ref repository;    // null until __init__ has run, and after the collector cleared it
    Ref limits;        // likewise
    SharedHealth health;
    DisabledAnswer latest_answer;  // guarded by the interpreter lock
};

Tracker& tracker_of(PyObject* self);

template <>
inline Tracker& owner_of(PyObject* self) {
    return tracker_of(self);
}

inline const Names& names_of(const Tracker& tracker) { return tracker.module.names; }

// The tracker's settings, and the attribute `db` of its repository. They raise an AttributeError
// before __init__ has run.
const Ref& settings(const Tracker& tracker);
Ref database(Tracker& tracker);

// Makes the class for a module that is being loaded.
Ref make_tracker_type(PyObject* module, PyObject* module_name);

}  // namespace health
