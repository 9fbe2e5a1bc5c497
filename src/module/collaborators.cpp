#include "module/collaborators.hpp"

#include "module/operation.hpp"

namespace health {
namespace {

// Passes on the interpreter's present error; one of the kind `expected` says what to set instead.
[[noreturn]] void raise_missing(const ModuleState& module, const Collaborator& collaborator,
                                PyObject* expected) {
    const auto error = take_error();
    if (PyErr_GivenExceptionMatches(error, expected) == 0) {
        raise_again(error);
    }
    raise_from(error, PyExc_ImportError, "set %U.%s; importing it failed: %S", module.name.get(),
               text(collaborator.name), error.get());
}

// The daemon's own object, as `from home import name` finds it.
Ref import_from_home(const ModuleState& module, const Collaborator& collaborator) {
    const Ref home(PyImport_ImportModule((module.package + collaborator.home).c_str()));
    if (home == nullptr) {
        raise_missing(module, collaborator, PyExc_ImportError);
    }
    Ref found(PyObject_GetAttr(home, module.names[collaborator.name]));
    if (found == nullptr) {
        raise_missing(module, collaborator, PyExc_AttributeError);
    }
    return found;
}

// The module's __getattr__, which shows the daemon's objects as attributes of the module.

constexpr Signature<1> kAttributeSignature{"__getattr__", {Name::name}};

constexpr const char* kNoAttribute = "module '%U' has no attribute '%S'";

// What is not found is an AttributeError, as one who asks for an attribute expects.
Ref module_attribute(const ModuleState& module, PyObject* name) {
    for (const auto& collaborator :
         {kToolsConfig, kTools, kIsSlowCall, kGetTimingCollector, kThreadCensus}) {
        if (checked(PyObject_RichCompareBool(name, module.names[collaborator.name], Py_EQ)) == 0) {
            continue;
        }
        Ref found;
        const auto error = error_of([&] { found = import_from_home(module, collaborator); });
        if (error == nullptr) {
            return found;
        }
        if (PyErr_GivenExceptionMatches(error, PyExc_ImportError) == 0) {
            raise_again(error);
        }
        raise_from(error, PyExc_AttributeError, kNoAttribute, module.name.get(), name);
    }
    raise(PyExc_AttributeError, kNoAttribute, module.name.get(), name);
}

}  // namespace

Ref find_collaborator(const ModuleState& module, const Collaborator& collaborator) {
    PyObject* own =
        PyDict_GetItemWithError(PyModule_GetDict(module.module), module.names[collaborator.name]);
    if (own != nullptr) {
        return shared(own);
    }
    if (PyErr_Occurred() != nullptr) {  // of a key that cannot be compared
        throw PythonError();
    }
    return import_from_home(module, collaborator);
}

Methods collaborator_functions() {
    return {method<module_attribute, kAttributeSignature>(nullptr)};
}

}  // namespace health
