// The interpreter lock: work that goes without it, and loops that let others have it.
#pragma once

#include <chrono>
#include <exception>
#include <thread>
#include <type_traits>
#include <utility>

#include "module/python.hpp"

namespace health {

// Releases it for a scope. Take it back before an exception leaves the scope: taking it back is
// where the interpreter may end this thread, which must not happen while another exception is in
// flight.
class GilRelease {
public:
    // A thread's first throw allocates what C++ keeps for the thread, and the process is aborted
    // where memory has run out by then. So it is asked for here, before any work that takes much.
    GilRelease() { [[maybe_unused]] const volatile int count = std::uncaught_exceptions(); }
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

// Runs work without it; work that may have to wait is given the release.
template <class Work>
auto without_gil(Work&& work) {
    GilRelease gil;
    try {
        if constexpr (std::is_invocable_v<Work, GilRelease&>) {
            return work(gil);
        } else {
            return work();
        }
    } catch (const std::exception&) {
        gil.take_back();
        throw;
    }
}

// Frees plain memory, which may be much, while others may run.
template <class Plain>
void free_without_gil(Plain& memory) {
    without_gil([&] { Plain().swap(memory); });
}

// Lets the other threads in, now and then, during a long loop over Python objects. A thread that
// waits for the interpreter lock takes a moment to wake, so releasing it alone would not do.
class Pacer {
public:
    void step() {
        if (++steps_ % 1024 == 0) {
            without_gil([] { std::this_thread::sleep_for(std::chrono::microseconds(1)); });
        }
    }

private:
    unsigned steps_ = 0;
};

}  // namespace health
