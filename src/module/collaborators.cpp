#include "module/collaborators.hpp"

#include <string>

#include "module/values.hpp"

namespace health {
namespace {

// The error being raised, taken over with its traceback in place.
Ref take_error() {
    PyObject* type = nullptr;
    PyObject* value = nullptr;
    PyObject* traceback = nullptr;
    PyErr_Fetch(&type, &value, &traceback);
    PyErr_NormalizeException(&type, &value, &traceback);
    if (traceback != nullptr) {
        PyException_SetTraceback(value, traceback);
    }
    Py_XDECREF(type);
    Py_XDECREF(traceback);
    return {value};
}

void restore_error(const Ref& error) {
    PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(error.get())), error.get());
}

// Whether the error being raised says that `home`, or a package on the way to it, does not exist;
// not some other module that it needs.
bool is_missing(const std::string& home) {
    if (!PyErr_ExceptionMatches(PyExc_ModuleNotFoundError)) {
        return false;
    }
    const auto error = take_error();
    const auto missing = owned(error.getattr("name"));
    restore_error(error);
    return missing.is_str() &&
           (home + '.').starts_with(std::string(Text(missing.get()).text) + '.');
}

// Raises the ImportError of a name that `home` does not have, caused by the present error.
[[noreturn]] void raise_not_found(const std::string& home, const char* name) {
    Ref cause = take_error();
    const auto message =
        owned(PyUnicode_FromFormat("cannot import name '%s' from '%s'", name, home.c_str()));
    const auto home_name = owned(PyUnicode_FromString(home.c_str()));
    PyErr_SetImportError(message.get(), home_name.get(), nullptr);
    const auto error = take_error();
    PyException_SetCause(error.get(), cause.release());
    restore_error(error);
    throw PythonError();
}

}  // namespace

Ref collaborator(const ModuleState& module, const char* home, const char* name) {
    if (PyObject* own = PyDict_GetItemString(PyModule_GetDict(module.module), name)) {
        return shared(own);
    }
    const auto full_home = module.package + home;
    const Ref daemon_module(PyImport_ImportModule(full_home.c_str()));
    if (!daemon_module && !is_missing(full_home)) {
        throw PythonError();
    }
    Ref found(daemon_module ? daemon_module.getattr(name) : nullptr);
    if (!found && daemon_module && !PyErr_ExceptionMatches(PyExc_AttributeError)) {
        throw PythonError();
    }
    if (!found) {
        raise_not_found(full_home, name);
    }
    return found;
}

bool registry_knows(const Names& names, PyObject* tools, PyObject* tool, PyObject* action) {
    const auto spec = owned(PyObject_CallMethodOneArg(tools, names[Name::get], tool));
    if (spec.is_none() || action == Py_None) {
        return !spec.is_none();
    }
    return !owned(PyObject_CallMethodOneArg(spec.get(), names[Name::action], action)).is_none();
}

void log_history_error(const ModuleState& module, const char* message) {
    if (!PyErr_ExceptionMatches(PyExc_Exception)) {
        throw PythonError();
    }
    const auto error = take_error();
    const auto logger = owned(PyObject_GetAttr(module.module, module.names[Name::logger]));
    const auto format = owned(PyUnicode_FromString(message));
    owned(PyObject_CallMethodObjArgs(logger.get(), module.names[Name::warning], format.get(),
                                     error.get(), nullptr));
}

}  // namespace health
