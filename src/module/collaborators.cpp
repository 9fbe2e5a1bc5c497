#include "module/collaborators.hpp"

#include <string>

#include "module/arguments.hpp"
#include "module/operations.hpp"
#include "module/values.hpp"

namespace health {
namespace {

// Whether the error being raised says that `home`, or a package on the way to it, does not exist;
// not some other module that it needs.
bool is_missing(const Names& names, const std::string& home) {
    if (!PyErr_ExceptionMatches(PyExc_ModuleNotFoundError)) {
        return false;
    }
    const auto error = take_error();
    const auto missing = error.attribute(names[Name::name]);
    restore_error(error);
    return PyUnicode_Check(missing.get()) &&
           (home + '.').starts_with(std::string(Text(missing).text) + '.');
}

// The daemon's own object.
Ref import_from_home(const ModuleState& module, const Collaborator& collaborator) {
    const auto home_name = module.package + collaborator.home;
    const Ref home(PyImport_ImportModule(home_name.c_str()));
    if (home == nullptr && !is_missing(module.names, home_name)) {
        throw PythonError();
    }
    Ref found(home == nullptr ? nullptr : PyObject_GetAttr(home, module.names[collaborator.name]));
    if (found == nullptr && home != nullptr && !PyErr_ExceptionMatches(PyExc_AttributeError)) {
        throw PythonError();
    }
    if (found == nullptr) {
        _PyErr_FormatFromCause(PyExc_ImportError, "cannot import name '%s' from '%s'",
                               text(collaborator.name), home_name.c_str());
        throw PythonError();
    }
    return found;
}

// The module's __getattr__, which shows the daemon's objects as attributes of the module.

constexpr Signature<1> kAttributeSignature{"__getattr__", {Name::name}};

// What is not found is an AttributeError, as one who asks for an attribute expects.
Ref module_attribute(const ModuleState& module, PyObject* name) {
    for (const auto& collaborator :
         {kToolsConfig, kTools, kIsSlowCall, kGetTimingCollector, kThreadCensus}) {
        // Names made at run time are not interned.
        if (!PyUnicode_Check(name) ||
            PyUnicode_Compare(name, module.names[collaborator.name]) != 0) {
            continue;
        }
        try {
            return import_from_home(module, collaborator);
        } catch (const PythonError&) {
            if (PyErr_ExceptionMatches(PyExc_ImportError)) {
                _PyErr_FormatFromCause(PyExc_AttributeError, "module '%s' has no attribute '%U'",
                                       PyModule_GetName(module.module), name);
            }
            throw;
        }
    }
    raise(PyExc_AttributeError, "module '%s' has no attribute '%S'",
          PyModule_GetName(module.module), name);
}

}  // namespace

Ref find(const ModuleState& module, const Collaborator& collaborator) {
    PyObject* own =
        PyDict_GetItemWithError(PyModule_GetDict(module.module), module.names[collaborator.name]);
    if (own != nullptr) {
        return shared(own);
    }
    if (PyErr_Occurred() != nullptr) {
        throw PythonError();
    }
    return import_from_home(module, collaborator);
}

const PyMethodDef kModuleAttribute = method<module_attribute, kAttributeSignature>(nullptr);

bool registry_knows(const Names& names, const Ref& tools, PyObject* tool, PyObject* action) {
    const auto spec = tools.method(names[Name::get], tool);
    if (spec.is_none() || action == Py_None) {
        return !spec.is_none();
    }
    return !spec.method(names[Name::action], action).is_none();
}

void log_history_error(const ModuleState& module, const char* message) {
    if (!PyErr_ExceptionMatches(PyExc_Exception)) {
        throw PythonError();
    }
    const auto error = take_error();
    const auto logger = shared(module.module).attribute(module.names[Name::logger]);
    logger.method(module.names[Name::warning], to_python(std::string_view(message)), error);
}

}  // namespace health
