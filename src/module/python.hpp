// What every file of the module needs of the interpreter's C API.
#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <cppy/cppy.h>
#include <exception>

namespace health {

// Thrown where the interpreter's error indicator is set.
struct PythonError : std::exception {};

// A new reference that a C API call returned, or its error.
inline cppy::ptr owned(PyObject* result) {
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

inline cppy::ptr shared(PyObject* object) { return {object, true}; }

inline cppy::ptr none() { return shared(Py_None); }

// Sets the interpreter's error from the C++ exception being handled.
void set_error_from_exception();

// Runs a body that returns a cppy::ptr where the interpreter expects a new reference or an error.
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
    // A daemon thread may be ended here by the interpreter's shutdown, which unwinds it.
    ~GilRelease() noexcept(false) { PyEval_RestoreThread(thread_); }
    GilRelease(const GilRelease&) = delete;
    GilRelease& operator=(const GilRelease&) = delete;

private:
    PyThreadState* thread_;
};

// Lets the other threads in, now and then, during a long loop over Python objects.
class Pacer {
public:
    void step() {
        if (++steps_ % 64 == 0) {
            const GilRelease others;
        }
    }

private:
    unsigned steps_ = 0;
};

}  // namespace health
