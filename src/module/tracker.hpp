// ToolHealthTracker: a repository's tool health, kept in memory and mirrored into its database.
#pragma once

#include <string_view>

#include "core/tool_states.hpp"
#include "core/usage.hpp"
#include "module/arguments.hpp"
#include "module/lock.hpp"
#include "module/module_state.hpp"
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
    TrackerLock lock;  // guards the two below
    ToolStates states;
    UsageCounts usage;
    DisabledAnswer latest_answer;  // guarded by the interpreter lock
};

// The attribute `db` of the tracker's repository.
Ref database(const Tracker& tracker);

// The tracker's repository and settings. They raise an AttributeError before __init__ has run.
const Ref& repository(const Tracker& tracker);
const Ref& settings(const Tracker& tracker);

// The operations, each in the file of its subject. The results are new references.
//
// recording.cpp
Ref record_call(Tracker& tracker, const Call& call);
Ref record_success(Tracker& tracker, const Call& call);
Ref record_error(Tracker& tracker, const Call& call);
Ref is_disabled(Tracker& tracker, const Call& call);
// health_mirror.cpp
Ref load_health(Tracker& tracker);
Ref flush_health(Tracker& tracker);
// usage_mirror.cpp
Ref load_usage(Tracker& tracker);
Ref flush_usage(Tracker& tracker);
// summary.cpp
Ref get_health_summary(Tracker& tracker);
// views.cpp
Ref state_view(Tracker& tracker);
Ref dirty_view(Tracker& tracker);
Ref usage_view(Tracker& tracker);

// Makes the class for a module that is being loaded.
Ref make_tracker_type(PyObject* module, PyObject* module_name);

}  // namespace health
