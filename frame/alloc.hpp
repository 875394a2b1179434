// Allocation for working memory.
//
// Every allocation whose failure the library reports (-4 and friends) goes
// through these functions, so that tests can make the Nth one fail and check
// that the failure code comes back and nothing leaks. Memory is plain
// malloc/calloc memory, released with release() (or free()).
#pragma once

#include <cstddef>
#include <cstdlib>
#include <memory>

namespace ol {

// malloc / calloc that honour the test hook. Return nullptr on failure.
void* allocate(std::size_t bytes) noexcept;
void* allocateZeroed(std::size_t count, std::size_t size) noexcept;
inline void release(void* p) noexcept { std::free(p); }

template <class T>
T* allocateArray(std::size_t count) noexcept {
    if (count > SIZE_MAX / sizeof(T)) return nullptr;
    return static_cast<T*>(allocate(count * sizeof(T)));
}
template <class T>
T* allocateZeroedArray(std::size_t count) noexcept {
    return static_cast<T*>(allocateZeroed(count, sizeof(T)));
}

struct Releaser {
    void operator()(void* p) const noexcept { release(p); }
};
// Owning pointer for working memory taken with allocate*().
template <class T>
using Owned = std::unique_ptr<T[], Releaser>;

template <class T>
Owned<T> makeOwned(std::size_t count) noexcept {
    return Owned<T>(allocateArray<T>(count));
}
template <class T>
Owned<T> makeOwnedZeroed(std::size_t count) noexcept {
    return Owned<T>(allocateZeroedArray<T>(count));
}

namespace testing {
// Makes the nth allocation from now on fail (1 = the next one); 0 turns the
// hook off. Not exported from the shared library: tests link the static one.
void failAllocationAt(long n) noexcept;
// Allocations made since the last failAllocationAt() call.
long allocationCount() noexcept;
}  // namespace testing

}  // namespace ol
