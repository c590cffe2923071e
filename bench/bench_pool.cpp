// The block pool against the general heap, for the sizes the building blocks ask for: a
// timer node or an event record (24), a typical payload copy (256) and a large one (2048).
// "Single" frees each allocation at once; "Fifo32" keeps 32 alive and frees the oldest, as
// the hub's queue does with its records.
#include <stdlib.h>

#include <benchmark/benchmark.h>

#include "cbb_mempool.h"

namespace {

const int kFifoDepth = 32;

void BM_PoolAllocFree_Single(benchmark::State& state) {
    JQ_CBB_Mempool pool(4096);
    const unsigned int size = static_cast<unsigned int>(state.range(0));
    for (auto _ : state) {
        void* p = pool.JQ_CBB_Alloc(size, false);
        benchmark::DoNotOptimize(p);
        pool.JQ_CBB_Free(p);
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_MallocFree_Single(benchmark::State& state) {
    const size_t size = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        void* p = malloc(size);
        benchmark::DoNotOptimize(p);
        free(p);
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_PoolAllocFree_Fifo32(benchmark::State& state) {
    JQ_CBB_Mempool pool(4096);
    const unsigned int size = static_cast<unsigned int>(state.range(0));
    void* ring[kFifoDepth] = {};
    unsigned int at = 0;
    for (auto _ : state) {
        pool.JQ_CBB_Free(ring[at]);
        ring[at] = pool.JQ_CBB_Alloc(size, false);
        benchmark::DoNotOptimize(ring[at]);
        at = (at + 1) % kFifoDepth;
    }
    for (void* p : ring) {
        pool.JQ_CBB_Free(p);
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_MallocFree_Fifo32(benchmark::State& state) {
    const size_t size = static_cast<size_t>(state.range(0));
    void* ring[kFifoDepth] = {};
    unsigned int at = 0;
    for (auto _ : state) {
        free(ring[at]);
        ring[at] = malloc(size);
        benchmark::DoNotOptimize(ring[at]);
        at = (at + 1) % kFifoDepth;
    }
    for (void* p : ring) {
        free(p);
    }
    state.SetItemsProcessed(state.iterations());
}

}  // namespace

BENCHMARK(BM_PoolAllocFree_Single)->Arg(24)->Arg(256)->Arg(2048);
BENCHMARK(BM_MallocFree_Single)->Arg(24)->Arg(256)->Arg(2048);
BENCHMARK(BM_PoolAllocFree_Fifo32)->Arg(24)->Arg(256)->Arg(2048);
BENCHMARK(BM_MallocFree_Fifo32)->Arg(24)->Arg(256)->Arg(2048);
