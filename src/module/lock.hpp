// The tracker's lock. Nobody ever blocks on it while holding the interpreter lock: whoever holds
// it may be waiting for that one.
#pragma once

#include <atomic>
#include <mutex>
#include <thread>

#include "module/python.hpp"

namespace health {

class TrackerLock {
public:
    // Runs work that calls no Python, under the lock. The caller holds the interpreter lock; it is
    // released while another thread has this one, and then during the work too.
    template <class Work>
    auto run(Work&& work) {
        refuse_holder();
        if (const std::unique_lock lock(mutex_, std::try_to_lock); lock) {
            return work();
        }
        return wait_and_run(work);
    }

    // The same for longer work: without the interpreter lock in any case.
    template <class Work>
    auto run_aside(Work&& work) {
        refuse_holder();
        return wait_and_run(work);
    }

    // Holds the lock for a scope that calls Python. A call from there into anything that takes the
    // lock gets a RuntimeError, as waiting would be for ever.
    class HoldOverPython {
    public:
        explicit HoldOverPython(TrackerLock& lock)
            : lock_(lock), held_(lock.mutex_, std::defer_lock) {
            lock_.refuse_holder();
            if (!held_.try_lock()) {
                const GilRelease others;
                held_.lock();
            }
            lock_.holder_ = std::this_thread::get_id();
        }
        ~HoldOverPython() { lock_.holder_ = std::thread::id(); }
        HoldOverPython(const HoldOverPython&) = delete;
        HoldOverPython& operator=(const HoldOverPython&) = delete;

    private:
        TrackerLock& lock_;
        std::unique_lock<std::mutex> held_;
    };

private:
    template <class Work>
    auto wait_and_run(Work&& work) {
        const GilRelease others;
        const std::scoped_lock lock(mutex_);
        return work();
    }

    void refuse_holder() const {
        const auto holder = holder_.load(std::memory_order_relaxed);
        if (holder != std::thread::id() && holder == std::this_thread::get_id()) {
            PyErr_SetString(PyExc_RuntimeError,
                            "the tracker was called from within its own get_health_summary(): "
                            "this thread holds its lock already");
            throw PythonError();
        }
    }

    std::mutex mutex_;
    std::atomic<std::thread::id> holder_{};  // set only by HoldOverPython
};

}  // namespace health
