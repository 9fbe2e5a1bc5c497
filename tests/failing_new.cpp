// Preloaded, it lets one chosen allocation of C++ fail: `fail_new(n)` the n-th from now on.
#include <cstdlib>
#include <new>
#include <utility>

namespace {
thread_local long left = 0;  // this thread's alone: 0 when none is to fail

void* allocate(std::size_t size) {
    void* const memory = left > 0 && --left == 0 ? nullptr : std::malloc(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}
}  // namespace

// Arms the failure, or disarms it with 0; whether the one armed before has not come about.
extern "C" bool fail_new(long n) { return std::exchange(left, n) > 0; }

void* operator new(std::size_t size) { return allocate(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
