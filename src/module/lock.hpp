// A tracker's memory and the lock that guards it.
//
// Every operation arrives with the interpreter lock held, and that alone is enough as long as
// nobody works on the memory without it. Whoever does, or will, announces it: a count is raised
// while the interpreter lock is still held and lowered once the work has ended. So a call that
// holds the interpreter lock and finds the count at zero is alone: work that has ended was made
// visible by the lowering, and none can begin before the call lets go of the interpreter lock,
// which it does not while it works. All others take the mutex, which nobody ever waits for while
// holding the interpreter lock: whoever has it may be waiting for that one.
#pragma once

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

#include "core/health.hpp"
#include "module/python.hpp"

namespace health {

class SharedHealth {
public:
    // Runs work on the memory that calls no Python. Throws what a signal's handler raises while
    // it has to wait.
    template <class Work>
    auto run(Work&& work) {
        if (announced_.load(std::memory_order_acquire) == 0) {
            return work(health_);
        }
        return run_aside(work);
    }

    // The same for longer work: without the interpreter lock in any case.
    template <class Work>
    [[gnu::noinline]] auto run_aside(Work&& work) {
        refuse_holder();
        Announcement announcement(announced_);
        auto& gil = announcement.release_gil();
        const auto lock = wait(gil);
        return work(health_);
    }

    // Runs work that calls Python. A call from there into this memory gets a RuntimeError, as
    // waiting would be for ever.
    template <class Work>
    auto run_over_python(Work&& work) {
        refuse_holder();
        const Announcement announcement(announced_);
        std::unique_lock lock(mutex_, std::try_to_lock);
        if (!lock) {
            GilRelease gil;
            lock = wait(gil);
        }
        const Holding holding(holder_);
        return work(health_);
    }

private:
    using Mutex = std::timed_mutex;

    // Tells for a scope that the memory is worked on with more than the interpreter lock, which it
    // may let go of meanwhile: that is taken back after the count is lowered.
    class Announcement {
    public:
        explicit Announcement(std::atomic<int>& announced) : announced_(announced) {
            announced_.fetch_add(1, std::memory_order_relaxed);
        }
        ~Announcement() noexcept(false) { announced_.fetch_sub(1, std::memory_order_release); }
        Announcement(const Announcement&) = delete;
        Announcement& operator=(const Announcement&) = delete;

        GilRelease& release_gil() {
            gil_.release();
            return gil_;
        }

    private:
        std::atomic<int>& announced_;
        GilRelease gil_{nullptr};
    };

    // Names this thread as the holder for a scope.
    class Holding {
    public:
        explicit Holding(std::atomic<std::thread::id>& holder) : holder_(holder) {
            holder_ = std::this_thread::get_id();
        }
        ~Holding() { holder_ = std::thread::id(); }
        Holding(const Holding&) = delete;
        Holding& operator=(const Holding&) = delete;

    private:
        std::atomic<std::thread::id>& holder_;
    };

    // Waits as for a lock of Python's: signals are served meanwhile. By the system's clock, as the
    // thread sanitizer does not see waits by the steady one; that it may be set does no harm here.
    std::unique_lock<Mutex> wait(GilRelease& gil) {
        using std::chrono::system_clock;
        std::unique_lock lock(mutex_, std::defer_lock);
        while (!lock.try_lock_until(system_clock::now() + std::chrono::milliseconds(100))) {
            gil.serve_signals();
        }
        return lock;
    }

    void refuse_holder() const {
        if (holder_.load(std::memory_order_relaxed) == std::this_thread::get_id()) {
            raise(PyExc_RuntimeError,
                  "the tracker was called from within its own get_health_summary(): this thread "
                  "holds its lock already");
        }
    }

    Health health_;
    std::atomic<int> announced_ = 0;
    Mutex mutex_;
    std::atomic<std::thread::id> holder_{};
};

}  // namespace health
