#include "frame/alloc.hpp"

#include <atomic>

namespace ol {
namespace {
std::atomic<long> gFailAt{0};
std::atomic<long> gCount{0};

bool shouldFail() noexcept {
    const long n = gCount.fetch_add(1, std::memory_order_relaxed) + 1;
    const long target = gFailAt.load(std::memory_order_relaxed);
    return target > 0 && n == target;
}
}  // namespace

void* allocate(std::size_t bytes) noexcept {
    if (shouldFail()) return nullptr;
    return std::malloc(bytes == 0 ? 1 : bytes);
}

void* allocateZeroed(std::size_t count, std::size_t size) noexcept {
    if (shouldFail()) return nullptr;
    if (count == 0 || size == 0) return std::calloc(1, 1);
    return std::calloc(count, size);
}

namespace testing {
void failAllocationAt(long n) noexcept {
    gCount.store(0, std::memory_order_relaxed);
    gFailAt.store(n, std::memory_order_relaxed);
}
long allocationCount() noexcept { return gCount.load(std::memory_order_relaxed); }
}  // namespace testing

}  // namespace ol
