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
    cppy::ptr answer;  // null before the first
};

struct Tracker {
    Tracker(PyObject* object, const ModuleState& loaded) : self(object), module(loaded) {}

    PyObject* self;  // the Python object that holds this
    const ModuleState& module;
    cppy::ptr repository;  // null until __init__ has run, and after the collector cleared it
    cppy::ptr limits;      // likewise
    TrackerLock lock;      // guards the two below
    ToolStates states;
    UsageCounts usage;
    DisabledAnswer latest_answer;  // guarded by the interpreter lock
};

// The attribute `db` of the tracker's repository.
cppy::ptr database(const Tracker& tracker);

// The tracker's repository and settings. They raise an AttributeError before __init__ has run.
cppy::ptr repository(const Tracker& tracker);
cppy::ptr settings(const Tracker& tracker);

// The operations, each in the file of its subject. The results are new references.
//
// recording.cpp
cppy::ptr record_call(Tracker& tracker, const Call& call);
cppy::ptr record_success(Tracker& tracker, const Call& call);
cppy::ptr record_error(Tracker& tracker, const Call& call);
cppy::ptr is_disabled(Tracker& tracker, const Call& call);
// health_mirror.cpp
cppy::ptr load_health(Tracker& tracker);
cppy::ptr flush_health(Tracker& tracker);
// usage_mirror.cpp
cppy::ptr load_usage(Tracker& tracker);
cppy::ptr flush_usage(Tracker& tracker);
// summary.cpp
cppy::ptr get_health_summary(Tracker& tracker);
// views.cpp
cppy::ptr state_view(Tracker& tracker);
cppy::ptr dirty_view(Tracker& tracker);
cppy::ptr usage_view(Tracker& tracker);

// Makes the class for a module that is being loaded.
cppy::ptr make_tracker_type(PyObject* module, PyObject* module_name);

}  // namespace health
