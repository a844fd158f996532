#include "tests/Support/MallocCount.hpp"

#include <atomic>
#include <cerrno>

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define HALVO_SANITIZED_ALLOCATOR
#endif
#elif defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define HALVO_SANITIZED_ALLOCATOR
#endif

namespace {

std::atomic<std::size_t> allocations{0};
std::atomic<std::size_t> failing{0};

// Counts an allocation. Whether it is to fail.
[[maybe_unused]] bool isFailing() {
    const bool fails = ++allocations == failing;
    errno = fails ? ENOMEM : errno;
    return fails;
}

}  // namespace

#ifdef HALVO_SANITIZED_ALLOCATOR

#include <sanitizer/allocator_interface.h>

namespace {

// The sanitizers replace the allocator, and call hooks.
[[maybe_unused]] const int installed = __sanitizer_install_malloc_and_free_hooks(
    [](const volatile void*, std::size_t) { ++allocations; }, [](const volatile void*) {});

}  // namespace

#else

#include <malloc.h>

// Symbols of the executable take precedence, also in shared libraries: ld.so(8).
extern "C" {

void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);

void* malloc(std::size_t size) noexcept { return isFailing() ? nullptr : __libc_malloc(size); }

void* calloc(std::size_t count, std::size_t size) noexcept {
    return isFailing() ? nullptr : __libc_calloc(count, size);
}

void* realloc(void* memory, std::size_t size) noexcept {
    return isFailing() ? nullptr : __libc_realloc(memory, size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
    return isFailing() ? nullptr : __libc_memalign(alignment, size);
}
}

#endif

namespace halvo::testing {

std::size_t mallocsMade() { return allocations; }

void failMalloc(std::size_t number) { failing = allocations + number; }

std::size_t bytesAllocated() {
#ifdef HALVO_SANITIZED_ALLOCATOR
    return __sanitizer_get_current_allocated_bytes();
#else
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
#endif
}

}  // namespace halvo::testing
