// Replaces malloc for the suite that includes it (one source file a suite), so that a test can
// make the pool meet a heap without memory: while a size is armed, every request of exactly
// that size is refused. A sanitizer keeps its own allocator and nothing is refused there; the
// tests ask RefusingMalloc() first.
#ifndef TRUCK_TESTS_REFUSEDMALLOC_H
#define TRUCK_TESTS_REFUSEDMALLOC_H

#include <stddef.h>

#include <atomic>

#include "cbb_mempool.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TRUCK_REFUSED_MALLOC 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define TRUCK_REFUSED_MALLOC 0
#endif
#endif
#ifndef TRUCK_REFUSED_MALLOC
#define TRUCK_REFUSED_MALLOC 1
#endif

// The size refused while it is not 0.
inline std::atomic<size_t> g_refusedMallocSize{0};

constexpr bool RefusingMalloc() {
    return TRUCK_REFUSED_MALLOC != 0;
}

#if TRUCK_REFUSED_MALLOC
extern "C" void* __libc_malloc(size_t size) noexcept;
extern "C" void* malloc(size_t size) noexcept {
    const size_t refused = g_refusedMallocSize.load(std::memory_order_relaxed);
    return refused != 0 && size == refused ? nullptr : __libc_malloc(size);
}
#endif

// Takes small allocations from `pool` until it has to add a block, which it cannot get: then
// no block from the current one on has room for anything. The allocations are chained through
// their first word (a vector growing here could meet the refused size); the head is returned
// for FreeFillers. Leaves blocks refused; the pool prints that it has no memory.
inline void* FillPool(JQ_CBB_Mempool& pool) {
    g_refusedMallocSize = 4096;
    void* head = nullptr;
    for (void* p; (p = pool.JQ_CBB_Alloc(sizeof(void*), false)) != nullptr; head = p) {
        *static_cast<void**>(p) = head;
    }
    return head;
}

inline void FreeFillers(JQ_CBB_Mempool& pool, void* head) {
    g_refusedMallocSize = 0;
    while (head != nullptr) {
        void* next = *static_cast<void**>(head);
        pool.JQ_CBB_Free(head);
        head = next;
    }
}

#endif
