#include "tests/Support/AllocationCount.hpp"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<std::size_t> allocations{0};

}  // namespace

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define HALVO_SANITIZER_ALLOCATES
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define HALVO_SANITIZER_ALLOCATES
#endif
#endif

#ifdef HALVO_SANITIZER_ALLOCATES

// A sanitizer brings its own `operator new`, and tells whoever asks of every allocation.
#include <sanitizer/allocator_interface.h>

namespace {

[[maybe_unused]] const int installed = __sanitizer_install_malloc_and_free_hooks(
    [](const volatile void*, std::size_t) { ++allocations; }, [](const volatile void*) {});

}  // namespace

#else

// In the place of the library's own, for the whole executable and its shared libraries.
void* operator new(std::size_t size) {
    ++allocations;
    if (void* memory = std::malloc(size)) {
        return memory;
    }
    throw std::bad_alloc();
}

void operator delete(void* memory) noexcept { std::free(memory); }

void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

#endif

namespace halvo::testing {

std::size_t allocationsMade() { return allocations; }

}  // namespace halvo::testing
