// A tracker's memory and the lock that guards it.
//
// Every operation starts with the interpreter lock held. Short work needs no other lock, as long as
// no thread works on the memory without the interpreter lock. A thread that will do so announces
// itself: it raises `announced_` while it still holds the interpreter lock, takes the mutex, and
// lowers `announced_` when it is done. So short work that finds `announced_` at zero is alone:
// earlier work is visible, because lowering releases it, and none can start, because announcing
// takes the interpreter lock. Whoever finds it above zero takes the mutex like the others.
//
// Nobody waits for the mutex while holding the interpreter lock: its owner may need that to go on.
#pragma once

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

#include "core/tool_states.hpp"
#include "core/usage.hpp"
#include "module/gil.hpp"

namespace health {

// What a tracker keeps in memory.
struct Health {
    ToolStates states;
    UsageCounts usage;

    bool has_changes() const { return states.has_changes() || usage.has_changes(); }
};

// Does something at the end of a scope.
template <class End>
struct AtExit {
    ~AtExit() { end(); }

    End end;
};
template <class End>
AtExit(End) -> AtExit<End>;

class SharedHealth {
public:
    // Runs work on the memory that calls no Python. Throws what a signal's handler raises while
    // it has to wait.
    template <class Work>
    auto run(Work&& work) {
        return announced_.load(std::memory_order_acquire) == 0 ? work(health_)
                                                               : run_without_gil(work);
    }

    // The same for longer work: without the interpreter lock in any case.
    template <class Work>
    [[gnu::noinline]] auto run_without_gil(Work&& work) {
        announce();
        return without_gil([&](GilRelease& gil) {
            const AtExit lower{[&] { announced_.fetch_sub(1, std::memory_order_release); }};
            const auto lock = wait(gil);
            return work(health_);
        });
    }

    // Runs work that calls Python. A call from there into this memory gets a RuntimeError, as
    // waiting would be for ever.
    template <class Work>
    auto run_calling_python(Work&& work) {
        announce();
        const AtExit lower{[&] { announced_.fetch_sub(1, std::memory_order_release); }};
        const auto lock = without_gil([&](GilRelease& gil) { return wait(gil); });
        holder_ = std::this_thread::get_id();
        const AtExit let_go{[&] { holder_ = std::thread::id(); }};
        return work(health_);
    }

    // Runs work that must happen, whatever the handlers of signals would raise: they have to wait.
    template <class Work>
    void run_surely(Work&& work) {
        announce();
        const AtExit lower{[&] { announced_.fetch_sub(1, std::memory_order_release); }};
        without_gil([&] {
            const std::lock_guard lock(mutex_);
            work(health_);
        });
    }

private:
    using Mutex = std::timed_mutex;
#ifdef __SANITIZE_THREAD__  // which does not see waits by the steady clock
    using Clock = std::chrono::system_clock;
#else
    using Clock = std::chrono::steady_clock;
#endif

    // Before the interpreter lock is let go of.
    void announce() {
        if (holder_.load(std::memory_order_relaxed) == std::this_thread::get_id()) {
            raise(PyExc_RuntimeError,
                  "the tracker was called from within its own get_health_summary(): this thread "
                  "holds its lock already");
        }
        announced_.fetch_add(1, std::memory_order_relaxed);
    }

    // Waits as for a lock of Python's: signals are served meanwhile.
    std::unique_lock<Mutex> wait(GilRelease& gil) {
        std::unique_lock lock(mutex_, std::defer_lock);
        while (!lock.try_lock_until(Clock::now() + std::chrono::milliseconds(100))) {
            gil.serve_signals();
        }
        return lock;
    }

    Health health_;
    std::atomic<int> announced_ = 0;
    Mutex mutex_;
    std::atomic<std::thread::id> holder_{};
};

}  // namespace health
