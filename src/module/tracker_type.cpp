// The class ToolHealthTracker: the life of its objects, its methods and their documentation.
#include <array>
#include <cstddef>
#include <memory>
#include <vector>

#include "module/collaborators.hpp"
#include "module/tracker.hpp"
#include "module/values.hpp"

// Needs Python.h before it.
#include <structmember.h>

namespace health {
namespace {

struct TrackerHead {
    PyObject_HEAD PyObject* attributes;  // the instance's __dict__, as for a class of Python's own
    PyObject* weak_references;
};

struct TrackerObject : TrackerHead {
    Tracker tracker;
};

TrackerObject* as_object(PyObject* self) { return reinterpret_cast<TrackerObject*>(self); }

Tracker& as_tracker(PyObject* self) { return as_object(self)->tracker; }

// Life

PyObject* tracker_new(PyTypeObject* type, PyObject* /*args*/, PyObject* /*kwargs*/) {
    return guarded([&] {
        const auto& module = state_of_class(type);
        auto self = owned(type->tp_alloc(type, 0));
        try {
            std::construct_at(&as_object(self.get())->tracker, self.get(), module);
        } catch (const std::exception&) {
            // There is no tracker yet for tracker_dealloc to destroy.
            PyObject_GC_UnTrack(self.get());
            type->tp_free(self.release());
            Py_DECREF(type);
            throw;
        }
        return self;
    });
}

constexpr Signature<2> kInit{
    .function = "ToolHealthTracker.__init__",
    .parameters = {Name::repository, Name::limits},
    .required = 1,
};

constexpr Signature<0> kFlush{"ToolHealthTracker.flush", {}};
constexpr Signature<0> kSummary{"ToolHealthTracker.get_health_summary", {}};
constexpr Signature<0> kLoad{"ToolHealthTracker._load", {}};
constexpr Signature<0> kLoadUsage{"ToolHealthTracker._load_usage", {}};
constexpr Signature<0> kFlushHealth{"ToolHealthTracker._flush_health", {}};
constexpr Signature<0> kFlushUsage{"ToolHealthTracker._flush_usage", {}};

void initialize(Tracker& tracker, const Call& call) {
    const auto [repository, limits] = bind(kInit, tracker.module.names, call);
    const bool given = limits != nullptr && limits != Py_None;
    auto settings = given ? shared(limits)
                          : owned(PyObject_CallNoArgs(
                                collaborator(tracker.module, "config", "ToolsConfig").get()));
    // After what calls Python: once set, neither is replaced while an operation may be using it.
    if (tracker.repository) {
        PyErr_SetString(PyExc_RuntimeError, "the tracker is initialized already");
        throw PythonError();
    }
    tracker.limits = std::move(settings);
    tracker.repository = shared(repository);
    const auto& names = tracker.module.names;
    owned(PyObject_CallMethodNoArgs(tracker.self, names[Name::_load]));
    owned(PyObject_CallMethodNoArgs(tracker.self, names[Name::_load_usage]));
}

int tracker_init(PyObject* self, PyObject* args, PyObject* kwargs) {
    const Ref done(guarded([&] {
        if (kwargs != nullptr && PyArg_ValidateKeywordArguments(kwargs) == 0) {
            throw PythonError();
        }
        // In the form of a vectorcall: the arguments by name follow those by position.
        const auto keywords = kwargs == nullptr ? Ref() : owned(PySequence_Tuple(kwargs));
        const auto positional = PyTuple_GET_SIZE(args);
        std::vector<PyObject*> arguments;
        for (Py_ssize_t i = 0; i < positional; ++i) {
            arguments.push_back(PyTuple_GET_ITEM(args, i));
        }
        PyObject* value = nullptr;
        for (Py_ssize_t place = 0;
             kwargs != nullptr && PyDict_Next(kwargs, &place, nullptr, &value) != 0;) {
            arguments.push_back(value);
        }
        initialize(as_tracker(self),
                   {arguments.data(), static_cast<std::size_t>(positional), keywords.get()});
        return none();
    }));
    return done ? 0 : -1;
}

int tracker_traverse(PyObject* self, visitproc visit, void* arg) {
    const auto& tracker = as_tracker(self);
    for (PyObject* referent :
         {reinterpret_cast<PyObject*>(Py_TYPE(self)), as_object(self)->attributes,
          tracker.module_owner.get(), tracker.repository.get(), tracker.limits.get()}) {
        Py_VISIT(referent);
    }
    return 0;
}

int tracker_clear(PyObject* self) {
    Py_CLEAR(as_object(self)->attributes);
    as_tracker(self).repository = nullptr;
    as_tracker(self).limits = nullptr;
    return 0;
}

void tracker_dealloc(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    PyObject_GC_UnTrack(self);
    Py_TRASHCAN_BEGIN(self, tracker_dealloc);
    PyObject_ClearWeakRefs(self);
    tracker_clear(self);
    std::destroy_at(&as_tracker(self));
    type->tp_free(self);
    Py_DECREF(type);
    Py_TRASHCAN_END
}

// Operations that are not in a file of their own

Ref flush(Tracker& tracker) {
    const auto& names = tracker.module.names;
    const auto health = owned(PyObject_CallMethodNoArgs(tracker.self, names[Name::_flush_health]));
    const auto usage = owned(PyObject_CallMethodNoArgs(tracker.self, names[Name::_flush_usage]));
    return owned(PyNumber_Add(health.get(), usage.get()));
}

Ref cooldown_s(Tracker& tracker) {
    return owned(settings(tracker).getattr(tracker.module.names[Name::disable_cooldown_s]));
}

Ref has_unsaved_changes(Tracker& tracker) {
    return to_python(tracker.lock.run(
        [&] { return tracker.states.has_changes() || tracker.usage.has_changes(); }));
}

Ref usage_dirty(Tracker& tracker) {
    return to_python(tracker.lock.run([&] { return tracker.usage.has_changes(); }));
}

// The tables of the class

template <Ref (*Operation)(Tracker&, const Call&)>
PyObject* with_arguments(PyObject* self, PyObject* const* arguments, Py_ssize_t positional,
                         PyObject* keywords) {
    return guarded([&] {
        return Operation(as_tracker(self),
                         {arguments, static_cast<std::size_t>(positional), keywords});
    });
}

template <Ref (*Operation)(Tracker&, const Call&)>
PyMethodDef method(const char* name, const char* doc) {
    const _PyCFunctionFastWithKeywords function = with_arguments<Operation>;
    return {name, reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(function)),
            METH_FASTCALL | METH_KEYWORDS, doc};
}

// An operation without arguments. It takes them all the same, for the error to be Python's.
template <Ref (*Operation)(Tracker&), const auto& kSignature>
Ref without_arguments(Tracker& tracker, const Call& call) {
    bind(kSignature, tracker.module.names, call);
    return Operation(tracker);
}

template <auto Get>
PyGetSetDef property(const char* name, const char* doc) {
    const getter get = [](PyObject* self, void* /*closure*/) {
        return guarded([&] { return Ref(Get(as_tracker(self))); });
    };
    return {name, get, nullptr, doc, nullptr};
}

PyDoc_STRVAR(kClassDoc, R"(ToolHealthTracker(repository, limits=None)
--

The health of a repository's tools: counts every call, disables a tool that
keeps failing and tries it again after a cooldown.

The state is kept in memory and mirrored into the repository's database. The
constructor reads the mirror and flush() writes it; both may block. No other
operation waits for the database, and all may be called from any thread.

Arguments:
    repository: its attribute `db` is the database connection, with fetchall,
        fetchone, execute and executemany.
    limits: the settings, with `disable_after_errors` (a number of calls) and
        `disable_cooldown_s` (seconds); a default ToolsConfig when None.

A history that cannot be read is logged as a warning and left out. Raises
OverflowError, TypeError or ValueError for a stored row that does not convert.)");

PyDoc_STRVAR(kRecordCallDoc,
             R"(record_call($self, tool_name, action, outcome, *, alias_hit, duration_ms)
--

Count a call under its tool, action, outcome and use of a synonym.

Arguments:
    tool_name: the tool's name, str.
    action: the action that ran, str, or None for a tool without actions.
    outcome: how the call ended, str.
    alias_hit: whether the call named a parameter or an action by a synonym.
    duration_ms: how long the handler ran, in milliseconds, or None when it
        did not run or did not answer.

Raises TypeError for a missing or wrong argument and then counts nothing.)");

PyDoc_STRVAR(kRecordSuccessDoc, R"(record_success($self, tool_name)
--

Record a successful call: ends the tool's run of errors and enables it.)");

PyDoc_STRVAR(kRecordErrorDoc, R"(record_error($self, tool_name, error)
--

Record a failed call. The first 500 characters of the text `error` are kept
(None counts as empty). The error that completes a run of
limits.disable_after_errors disables the tool, and so does each one after it:
the cooldown counts from the latest.)");

PyDoc_STRVAR(kIsDisabledDoc, R"(is_disabled($self, tool_name)
--

Whether the tool is disabled, as a pair: (False, None), or (True, last error).

A disabled tool whose cooldown has passed is enabled by this call. A tool never
seen is not disabled.)");

PyDoc_STRVAR(kFlushDoc, R"(flush($self)
--

Write what changed to the database and return the number of rows written: the
changed tools', and, if any count changed, every row of the usage document.

Blocks on the database. A write that fails raises the database's error; what it
was to write goes out with the next flush.)");

PyDoc_STRVAR(kSummaryDoc, R"(get_health_summary($self)
--

Every tool with its health and usage, as a new list of dicts: most errors
first, then most calls.

Each has tool_name, call_count, error_count, last_error, disabled, disabled_at
and updated_at (UTC, "YYYY-MM-DD HH:MM:SS") and usage: a list of dicts with
action, outcome, alias_hit, calls, avg_ms (milliseconds, two decimals; None
when no call reported a time) and slow, most calls first.

Whatever is_slow_call raises is passed on.)");

std::array methods{
    method<record_call>("record_call", kRecordCallDoc),
    method<record_success>("record_success", kRecordSuccessDoc),
    method<record_error>("record_error", kRecordErrorDoc),
    method<is_disabled>("is_disabled", kIsDisabledDoc),
    method<without_arguments<flush, kFlush>>("flush", kFlushDoc),
    method<without_arguments<get_health_summary, kSummary>>("get_health_summary", kSummaryDoc),
    method<without_arguments<load_health, kLoad>>(
        "_load", "_load($self)\n--\n\nRead the tool_health table."),
    method<without_arguments<load_usage, kLoadUsage>>(
        "_load_usage", "_load_usage($self)\n--\n\nRead the usage document."),
    method<without_arguments<flush_health, kFlushHealth>>(
        "_flush_health",
        "_flush_health($self)\n--\n\n"
        "Write the changed rows of tool_health; return how many."),
    method<without_arguments<flush_usage, kFlushUsage>>(
        "_flush_usage",
        "_flush_usage($self)\n--\n\n"
        "Write the usage document if a count changed; return its "
        "number of rows."),
    PyMethodDef{},
};

std::array properties{
    property<settings>("limits", "The settings, as given to the constructor."),
    property<cooldown_s>("cooldown_s", "How many seconds a disabled tool stays disabled."),
    property<has_unsaved_changes>("has_unsaved_changes", "Whether flush() has anything to write."),
    property<repository>("_repo", "The repository, as given to the constructor."),
    property<settings>("_limits", "The settings."),
    property<state_view>("_state", "A copy of the tools' states: a dict of _ToolState by name."),
    property<dirty_view>("_dirty", "A copy of the set of tools to be written."),
    property<usage_view>("_usage",
                         "A copy of the counts: a dict of _Usage by (tool, action, "
                         "outcome, alias_hit)."),
    property<usage_dirty>("_usage_dirty", "Whether the usage document is to be written."),
    PyGetSetDef{"__dict__", PyObject_GenericGetDict, PyObject_GenericSetDict, nullptr, nullptr},
    PyGetSetDef{},
};

std::array members{
    PyMemberDef{"__dictoffset__", T_PYSSIZET, offsetof(TrackerHead, attributes), READONLY, nullptr},
    PyMemberDef{"__weaklistoffset__", T_PYSSIZET, offsetof(TrackerHead, weak_references), READONLY,
                nullptr},
    PyMemberDef{},
};

template <class Function>
void* slot(Function* function) {
    return reinterpret_cast<void*>(function);
}

std::array slots{
    PyType_Slot{Py_tp_doc, const_cast<char*>(kClassDoc)},
    PyType_Slot{Py_tp_new, slot(tracker_new)},
    PyType_Slot{Py_tp_init, slot(tracker_init)},
    PyType_Slot{Py_tp_dealloc, slot(tracker_dealloc)},
    PyType_Slot{Py_tp_traverse, slot(tracker_traverse)},
    PyType_Slot{Py_tp_clear, slot(tracker_clear)},
    PyType_Slot{Py_tp_methods, methods.data()},
    PyType_Slot{Py_tp_getset, properties.data()},
    PyType_Slot{Py_tp_members, members.data()},
    PyType_Slot{},
};

PyType_Spec spec{
    "health.ToolHealthTracker",
    sizeof(TrackerObject),
    0,
    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_HAVE_GC,
    slots.data(),
};

const Ref& member(const Ref& value, const char* name) {
    if (!value) {
        PyErr_Format(PyExc_AttributeError, "'ToolHealthTracker' object has no attribute '%s'",
                     name);
        throw PythonError();
    }
    return value;
}

}  // namespace

const Ref& repository(const Tracker& tracker) { return member(tracker.repository, "_repo"); }

const Ref& settings(const Tracker& tracker) { return member(tracker.limits, "_limits"); }

Ref database(const Tracker& tracker) {
    return owned(repository(tracker).getattr(tracker.module.names[Name::db]));
}

Ref make_tracker_type(PyObject* module, PyObject* module_name) {
    auto type = owned(PyType_FromModuleAndSpec(module, &spec, nullptr));
    checked(PyObject_SetAttrString(type.get(), "__module__", module_name));
    return type;
}

}  // namespace health
