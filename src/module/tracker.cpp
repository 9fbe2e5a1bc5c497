// The class ToolHealthTracker: the life of its objects, and its tables of methods and properties.
#include "module/tracker.hpp"

#include <array>
#include <cstddef>
#include <memory>
#include <utility>

#include "module/collaborators.hpp"
#include "module/operation.hpp"
#include "module/values.hpp"

// Needs Python.h before it.
#include <structmember.h>

namespace health {
namespace {

struct TrackerObject {
    PyObject_HEAD PyObject* attributes;  // the instance's __dict__, as for a class of Python's own
    PyObject* weak_references;
    Tracker* tracker;
};

TrackerObject* as_object(PyObject* self) { return reinterpret_cast<TrackerObject*>(self); }

// Life

PyObject* tracker_new(PyTypeObject* type, PyObject* /*args*/, PyObject* /*kwargs*/) {
    return c_result([&] {
        const auto& module = state_of_class(type);
        auto tracker = std::make_unique<Tracker>(module);
        auto self = owned(type->tp_alloc(type, 0));
        tracker->self = self;
        as_object(self)->tracker = tracker.release();
        return self;
    });
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
IndexError, OverflowError, TypeError or ValueError for a stored row that does
not convert.)");

constexpr Signature<2> kInitSignature{"ToolHealthTracker", {Name::repository, Name::limits}, 2, 1};

int tracker_init(PyObject* self, PyObject* args, PyObject* kwargs) {
    const bool done = succeeds([&] {
        const auto [repository, limits] = parse(kInitSignature, args, kwargs);
        auto& tracker = tracker_of(self);
        auto settings = limits != nullptr && limits != Py_None
                            ? shared(limits)
                            : find_collaborator(tracker.module, kToolsConfig)();
        if (tracker.limits != nullptr) {
            raise(PyExc_RuntimeError, "a tracker is initialized once");
        }
        tracker.limits = std::move(settings);
        tracker.repository = shared(repository);
        shared(self).method(tracker.names[Name::_load]);
        shared(self).method(tracker.names[Name::_load_usage]);
    });
    return done ? 0 : -1;
}

int tracker_traverse(PyObject* self, visitproc visit, void* arg) {
    const auto& tracker = tracker_of(self);
    for (PyObject* owned :
         {reinterpret_cast<PyObject*>(Py_TYPE(self)), as_object(self)->attributes,
          tracker.module_owner.get(), tracker.repository.get(), tracker.limits.get()}) {
        Py_VISIT(owned);
    }
    return 0;
}

int tracker_clear(PyObject* self) {
    Py_CLEAR(as_object(self)->attributes);
    tracker_of(self).repository = tracker_of(self).limits = Ref();
    return 0;
}

void tracker_dealloc(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    PyObject_GC_UnTrack(self);
    Py_TRASHCAN_BEGIN(self, tracker_dealloc);  // a long chain of them does not end the stack
    PyObject_ClearWeakRefs(self);
    tracker_clear(self);
    delete as_object(self)->tracker;
    type->tp_free(self);
    Py_DECREF(type);
    Py_TRASHCAN_END
}

// Operations that are not in a file of their own

PyDoc_STRVAR(kFlushDoc, R"(flush($self)
--

Write what changed to the database and return the number of rows written: the
changed tools', and, if any count changed, every row of the usage document.

Blocks on the database. A write that fails raises the database's error; what it
was to write goes out with the next flush.)");

Ref flush(Tracker& tracker) {
    const auto self = shared(tracker.self);
    const auto health = self.method(tracker.names[Name::_flush_health]);
    const auto usage = self.method(tracker.names[Name::_flush_usage]);
    return owned(PyNumber_Add(health, usage));
}

Ref cooldown_s(Tracker& tracker) {
    return settings(tracker).attribute(tracker.names[Name::disable_cooldown_s]);
}

Ref has_unsaved_changes(Tracker& tracker) {
    return to_python(tracker.health.run([](const Health& health) { return health.has_changes(); }));
}

const Ref& member(const Ref& value, const char* name) {
    if (value == nullptr) {
        raise(PyExc_AttributeError, "'ToolHealthTracker' object has no attribute '%s'", name);
    }
    return value;
}

Ref repository(Tracker& tracker) { return member(tracker.repository, "_repo"); }

Ref limits(Tracker& tracker) { return settings(tracker); }

// The tables of the class. The interpreter keeps them.

template <class Function>
void* slot(Function* function) {
    return reinterpret_cast<void*>(function);
}

PyType_Spec& type_spec() {
    static auto methods = table<Methods>({
        {method<flush>("flush", kFlushDoc)},
        call_methods(),
        summary_methods(),
        health_mirror_methods(),
        usage_mirror_methods(),
    });
    static auto properties = table<Properties>({
        {
            property<limits>("limits", "The settings, as given to the constructor."),
            property<cooldown_s>("cooldown_s", "How many seconds a disabled tool stays disabled."),
            property<has_unsaved_changes>("has_unsaved_changes",
                                          "Whether flush() has anything to write."),
            property<repository>("_repo", "The repository, as given to the constructor."),
            property<limits>("_limits", "The settings."),
            {"__dict__", PyObject_GenericGetDict, PyObject_GenericSetDict, nullptr, nullptr},
        },
        view_properties(),
    });
    static std::array members{
        PyMemberDef{"__dictoffset__", T_PYSSIZET, offsetof(TrackerObject, attributes), READONLY,
                    nullptr},
        PyMemberDef{"__weaklistoffset__", T_PYSSIZET, offsetof(TrackerObject, weak_references),
                    READONLY, nullptr},
        PyMemberDef{},
    };
    static std::array slots{
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
    static PyType_Spec spec{
        "health.ToolHealthTracker",
        sizeof(TrackerObject),
        0,
        Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_HAVE_GC,
        slots.data(),
    };
    return spec;
}

}  // namespace

Tracker& tracker_of(PyObject* self) { return *as_object(self)->tracker; }

const Ref& settings(const Tracker& tracker) { return member(tracker.limits, "_limits"); }

Ref database(const Tracker& tracker) {
    return member(tracker.repository, "_repo").attribute(tracker.names[Name::db]);
}

Ref make_tracker_type(PyObject* module, PyObject* module_name) {
    auto type = owned(PyType_FromModuleAndSpec(module, &type_spec(), nullptr));
    checked(PyObject_SetAttrString(type, "__module__", module_name));
    return type;
}

}  // namespace health
