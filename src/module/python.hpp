// References to Python objects, and errors: what every file of the module needs of the C API.
#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>
#include <cxxabi.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <exception>
#include <new>
#include <stdexcept>
#include <utility>

#if PY_VERSION_HEX < 0x030D0000  // from 3.13 on they have these names
inline int Py_IsFinalizing() { return _Py_IsFinalizing(); }
inline PyThreadState* PyThreadState_GetUnchecked() { return _PyThreadState_UncheckedGet(); }
#endif

namespace health {

// Thrown where the interpreter's error indicator is set.
struct PythonError : std::exception {};

// Whether this thread may touch references. While the interpreter shuts down it ends every other
// thread that comes back to it, by unwinding it; such a thread runs destructors, but without the
// interpreter lock.
inline bool may_touch_references() {
    if (Py_IsFinalizing() == 0) {
        return true;
    }
    const auto* running = PyThreadState_GetUnchecked();
    return running != nullptr && running->thread_id == PyThread_get_thread_ident();
}

// Lets go of an object's last reference, which may run any code, and there, too, the interpreter
// may end the thread. A destructor cannot be unwound, so the thread waits here for the process to
// be gone.
[[gnu::noinline]] inline void let_go(PyObject* object) noexcept {
    try {
        Py_DECREF(object);
    } catch (const abi::__forced_unwind&) {
        while (true) {
            pause();
        }
    }
}

// The outcome of a C API call that returns a negative number for an error.
template <class Result>
Result checked(Result result) {
    if (result < 0) {
        throw PythonError();
    }
    return result;
}

class Ref;

// A new reference that a C API call returned, or its error.
Ref owned(PyObject* result);

// An owned reference, or null. Its operations return what they found, or throw. Left alone by a
// thread that is being ended: the process is too.
class Ref {
public:
    Ref() = default;
    explicit Ref(PyObject* owned) noexcept : object_(owned) {}
    Ref(const Ref& other) noexcept : object_(Py_XNewRef(other.object_)) {}
    Ref(Ref&& other) noexcept : object_(other.release()) {}
    // What was held goes with the argument, outside of what may not throw.
    Ref& operator=(Ref other) noexcept {
        std::swap(object_, other.object_);
        return *this;
    }
    ~Ref() {
        if (object_ == nullptr || !may_touch_references()) {
            return;
        }
        if (Py_REFCNT(object_) > 1) {
            Py_DECREF(object_);
        } else {
            let_go(object_);
        }
    }

    operator PyObject*() const noexcept { return object_; }
    PyObject* get() const noexcept { return object_; }
    PyObject* release() noexcept { return std::exchange(object_, nullptr); }
    bool is_none() const noexcept { return object_ == Py_None; }

    Ref attribute(PyObject* name) const { return owned(PyObject_GetAttr(object_, name)); }
    Ref item(PyObject* key) const { return owned(PyObject_GetItem(object_, key)); }
    void set_item(PyObject* key, const Ref& value) const {  // of a dict
        checked(PyDict_SetItem(object_, key, value));
    }
    Ref at(Py_ssize_t position) const { return owned(PySequence_GetItem(object_, position)); }

    // Calls the object.
    template <class... Arguments>
    Ref operator()(const Arguments&... arguments) const {
        // The place before the arguments is the callee's to use.
        std::array<PyObject*, sizeof...(Arguments) + 1> all{nullptr, arguments...};
        return owned(PyObject_Vectorcall(object_, all.data() + 1,
                                         sizeof...(Arguments) | PY_VECTORCALL_ARGUMENTS_OFFSET,
                                         nullptr));
    }

    // Calls its method of that name.
    template <class... Arguments>
    Ref method(PyObject* name, const Arguments&... arguments) const {
        const std::array<PyObject*, sizeof...(Arguments) + 1> all{object_, arguments...};
        return owned(PyObject_VectorcallMethod(name, all.data(), all.size(), nullptr));
    }

    // Hands each item that iterating over the object gives to `visit`.
    template <class Visit>
    void for_each(Visit&& visit) const {
        const auto items = owned(PyObject_GetIter(object_));
        while (const Ref item{PyIter_Next(items)}) {
            visit(item);
        }
        if (PyErr_Occurred() != nullptr) {
            throw PythonError();
        }
    }

private:
    PyObject* object_ = nullptr;
};

inline Ref owned(PyObject* result) {
    if (result == nullptr) {
        throw PythonError();
    }
    return Ref(result);
}

inline Ref shared(PyObject* object) { return Ref(Py_NewRef(object)); }

inline Ref none() { return shared(Py_None); }

inline bool truth(PyObject* object) { return checked(PyObject_IsTrue(object)) != 0; }

inline Ref import_module(const char* name) { return owned(PyImport_ImportModule(name)); }

// Errors

template <class... Values>
[[noreturn]] void raise(PyObject* type, const char* format, Values... values) {
    PyErr_Format(type, format, values...);
    throw PythonError();
}

// The error being raised, taken over with its traceback in place.
inline Ref take_error() {
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
    return Ref(value);
}

// It goes out as it came in: setting it anew would replace its context by an error being handled.
[[noreturn]] inline void raise_again(const Ref& error) {
    PyErr_Restore(Py_NewRef(reinterpret_cast<PyObject*>(Py_TYPE(error.get()))), Py_NewRef(error),
                  PyException_GetTraceback(error));
    throw PythonError();
}

inline void raise_if(const Ref& error) {
    if (error != nullptr) {
        raise_again(error);
    }
}

template <class... Values>
[[noreturn]] void raise_from(const Ref& cause, PyObject* type, const char* format,
                             Values... values) {
    PyErr_Format(type, format, values...);
    const auto error = take_error();
    PyException_SetCause(error, Py_NewRef(cause));
    PyException_SetContext(error, Py_NewRef(cause));
    raise_again(error);
}

// Runs work and returns whether it succeeded; if not, the interpreter's error is set. Nothing but
// std::exception is caught: a thread that the interpreter ends while it shuts down is unwound by
// something else, which has to pass.
template <class Work>
bool succeeds(Work&& work) {
    try {
        work();
        return true;
    } catch (const PythonError&) {
        // It is set already.
    } catch (const std::domain_error& error) {
        PyErr_SetString(PyExc_ValueError, error.what());
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
    } catch (const std::exception& error) {
        PyErr_SetString(PyExc_RuntimeError, error.what());
    }
    return false;
}

// Runs work. The error that ended it, taken over; null when it succeeded.
template <class Work>
Ref error_of(Work&& work) {
    return succeeds(work) ? Ref() : take_error();
}

// The same for an Exception; any other error, such as an interrupt, is passed on.
template <class Work>
Ref exception_of(Work&& work) {
    auto error = error_of(work);
    if (error != nullptr && PyErr_GivenExceptionMatches(error, PyExc_Exception) == 0) {
        raise_again(error);
    }
    return error;
}

// Runs a body that returns a Ref where the interpreter expects a new reference or an error.
template <class Body>
PyObject* c_result(Body&& body) {
    PyObject* result = nullptr;
    succeeds([&] { result = body().release(); });
    return result;
}

}  // namespace health
