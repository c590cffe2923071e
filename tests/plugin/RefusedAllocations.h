// Replaces the non-throwing allocations of the suite that includes it (one source file a suite),
// so that a test can make the plug-in meet a device out of memory. The memory comes from the
// throwing forms, so that a sanitizer pairs it with its delete.
#ifndef TRUCK_TESTS_REFUSEDALLOCATIONS_H
#define TRUCK_TESTS_REFUSEDALLOCATIONS_H

#include <atomic>
#include <new>

// Non-throwing allocations still to refuse, single objects and arrays alike.
inline std::atomic<int> g_refusedAllocations{0};

namespace refused {
inline bool TakeOne() {
    for (int left = g_refusedAllocations.load(); left > 0;) {
        if (g_refusedAllocations.compare_exchange_weak(left, left - 1)) {
            return true;
        }
    }
    return false;
}
}  // namespace refused

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return refused::TakeOne() ? nullptr : ::operator new(size);
    } catch (...) {
        return nullptr;
    }
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return refused::TakeOne() ? nullptr : ::operator new[](size);
    } catch (...) {
        return nullptr;
    }
}

#endif
