// What every file of the module needs of the interpreter's C API.
#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <cppy/cppy.h>
#include <chrono>
#include <exception>
#include <thread>
#include <utility>

namespace health {

// Thrown where the interpreter's error indicator is set.
struct PythonError : std::exception {};

// Whether this thread may touch references. While the interpreter shuts down it ends every other
// thread that comes back to it, by unwinding it; such a thread runs destructors, but without the
// interpreter lock.
inline bool may_touch_references() {
    if (_Py_IsFinalizing() == 0) {
        return true;
    }
    const auto* running = _PyThreadState_UncheckedGet();
    return running != nullptr && running->thread_id == PyThread_get_thread_ident();
}

// An owned reference, or null. Left alone by a thread that is being ended: the process is too.
class Ref : public cppy::ptr {
public:
    Ref() = default;
    Ref(PyObject* object, bool incref = false) : ptr(object, incref) {}
    Ref(const Ref&) = default;
    Ref(Ref&& other) noexcept : ptr(other.release()) {}
    // What was held goes with the argument, outside of what may not throw.
    Ref& operator=(Ref other) noexcept {
        std::swap(m_ob, other.m_ob);
        return *this;
    }
    // What the object runs as it goes may be where the interpreter ends this thread.
    ~Ref() noexcept(false) {
        PyObject* object = release();
        if (object != nullptr && may_touch_references()) {
            Py_DECREF(object);
        }
    }
};

// A new reference that a C API call returned, or its error.
inline Ref owned(PyObject* result) {
    if (result == nullptr) {
        throw PythonError();
    }
    return {result};
}

// The outcome of a C API call that returns a negative number for an error.
template <class Result>
Result checked(Result result) {
    if (result < 0) {
        throw PythonError();
    }
    return result;
}

inline Ref shared(PyObject* object) { return {object, true}; }

inline Ref none() { return shared(Py_None); }

// Sets the interpreter's error from the C++ exception being handled.
void set_error_from_exception();

// Runs a body that returns a Ref where the interpreter expects a new reference or an error.
// Nothing but std::exception is caught: a thread that the interpreter ends while it shuts down is
// unwound by something else, which has to pass.
template <class Body>
PyObject* guarded(Body&& body) {
    try {
        return body().release();
    } catch (const std::exception&) {
        set_error_from_exception();
        return nullptr;
    }
}

// Releases the interpreter lock for a scope.
class GilRelease {
public:
    GilRelease() : thread_(PyEval_SaveThread()) {}
    // The interpreter may end this thread here, by unwinding it.
    ~GilRelease() noexcept(false) { PyEval_RestoreThread(thread_); }
    GilRelease(const GilRelease&) = delete;
    GilRelease& operator=(const GilRelease&) = delete;

private:
    PyThreadState* thread_;
};

// Lets the other threads in, now and then, during a long loop over Python objects. A thread that
// waits for the interpreter lock takes a moment to wake, so releasing it alone would not do.
class Pacer {
public:
    void step() {
        if (++steps_ % 1024 == 0) {
            const GilRelease others;
            std::this_thread::sleep_for(std::chrono::microseconds(1));
        }
    }

private:
    unsigned steps_ = 0;
};

}  // namespace health
