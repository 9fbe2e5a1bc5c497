// Preloaded, it lets one chosen allocation of C++ fail: `fail_new(n)` the n-th from now on.
#include <cstdlib>
#include <new>

namespace {
thread_local long left = 0;  // this thread's alone: 0 when none is to fail

void* allocate(std::size_t size) {
    if (left > 0 && --left == 0) {
        throw std::bad_alloc();
    }
    if (void* memory = std::malloc(size)) {
        return memory;
    }
    throw std::bad_alloc();
}
}  // namespace

// Arms the failure, or disarms it with 0; whether the one armed before has not come about.
extern "C" bool fail_new(long n) {
    const bool was_left = left > 0;
    left = n;
    return was_left;
}

void* operator new(std::size_t size) { return allocate(size); }
void* operator new(std::size_t size, std::align_val_t) { return allocate(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, std::align_val_t) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept { std::free(memory); }
