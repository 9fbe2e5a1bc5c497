// What every file of the module needs of the interpreter's C API.
#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <exception>
#include <new>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

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

// References that went while a C++ exception was in flight. What an object runs as it goes may be
// where the interpreter ends the thread, and unwinding it anew would then end the process.
inline thread_local std::vector<PyObject*> parked;

// Lets go of an object's last reference, or parks it until its thread's exception is caught.
[[gnu::noinline]] inline void let_go(PyObject* object) {
    if (std::uncaught_exceptions() == 0) {
        Py_DECREF(object);
        return;
    }
    try {
        parked.push_back(object);
    } catch (const std::bad_alloc&) {
        // It stays for ever.
    }
}

// Where nothing is in flight.
inline void let_go_of_parked() {
    while (!parked.empty()) {
        PyObject* object = parked.back();
        parked.pop_back();
        Py_DECREF(object);
    }
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
    // What the object runs as it goes may be where the interpreter ends this thread.
    ~Ref() noexcept(false) {
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

// The outcome of a C API call that returns a negative number for an error.
template <class Result>
Result checked(Result result) {
    if (result < 0) {
        throw PythonError();
    }
    return result;
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

// Sets the interpreter's error from the C++ exception being handled.
inline void set_error_from_exception() {
    try {
        throw;
    } catch (const PythonError&) {
        // It is set already.
    } catch (const std::domain_error& error) {
        PyErr_SetString(PyExc_ValueError, error.what());
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
    } catch (const std::exception& error) {
        PyErr_SetString(PyExc_RuntimeError, error.what());
    }
}

// Runs work. The error that ended it, taken over; null when it succeeded.
template <class Work>
Ref error_of(Work&& work) {
    try {
        work();
        return {};
    } catch (const std::exception&) {
        set_error_from_exception();
    }
    auto error = take_error();
    let_go_of_parked();
    return error;
}

// Runs a body that returns a Ref where the interpreter expects a new reference or an error.
// Nothing but std::exception is caught: a thread that the interpreter ends while it shuts down is
// unwound by something else, which has to pass.
template <class Body>
PyObject* guarded(Body&& body) {
    try {
        return body().release();
    } catch (const std::exception&) {
        set_error_from_exception();
    }
    let_go_of_parked();
    return nullptr;
}

// The interpreter lock

// Releases it for a scope that no exception leaves before it is taken back.
class GilRelease {
public:
    GilRelease() = default;
    ~GilRelease() noexcept(false) { take_back(); }
    GilRelease(const GilRelease&) = delete;
    GilRelease& operator=(const GilRelease&) = delete;

    // The interpreter may end this thread here, by unwinding it.
    void take_back() {
        if (auto* thread = std::exchange(thread_, nullptr)) {
            PyEval_RestoreThread(thread);
        }
    }

    // Runs the handlers of the signals that have arrived, and throws what one of them raises.
    void serve_signals() {
        take_back();
        checked(PyErr_CheckSignals());
        thread_ = PyEval_SaveThread();
    }

private:
    PyThreadState* thread_ = PyEval_SaveThread();
};

// Runs work without it. The lock is back before an exception goes on: see let_go.
template <class Work>
auto without_gil(Work&& work) {
    GilRelease gil;
    try {
        return work(gil);
    } catch (const std::exception&) {
        gil.take_back();
        throw;
    }
}

// Runs work that needs nothing of Python while others may run.
template <class Work>
auto aside(Work&& work) {
    return without_gil([&](GilRelease& /*gil*/) { return work(); });
}

// Frees plain memory, which may be much, while others may run.
template <class Plain>
void free_aside(Plain& memory) {
    aside([&] { Plain().swap(memory); });
}

// Lets the other threads in, now and then, during a long loop over Python objects. A thread that
// waits for the interpreter lock takes a moment to wake, so releasing it alone would not do.
class Pacer {
public:
    void step() {
        if (++steps_ % 1024 == 0) {
            aside([] { std::this_thread::sleep_for(std::chrono::microseconds(1)); });
        }
    }

private:
    unsigned steps_ = 0;
};

}  // namespace health
