// The pool's footprint for the soaks: once a workload has reached its steady state, none of
// blocks, large records and address-map slots may grow any more.
#ifndef TRUCK_TESTS_POOLFOOTPRINT_H
#define TRUCK_TESTS_POOLFOOTPRINT_H

#include <gtest/gtest.h>

#include "cbb_mempool.h"

struct PoolFootprint {
    unsigned int blocks = 0;
    unsigned int largeRecords = 0;
    unsigned int mapCapacity = 0;
    bool measured = false;
};

inline PoolFootprint MeasurePool() {
    const JQ_CBB_Mempool* pool = JQ_CBB_Mempool::GetInstance(4096);
    return {pool->GetBlockCount(), pool->GetLargeRecordCount(), pool->GetAddressMapCapacity(), true};
}

inline void ExpectNoLarger(const PoolFootprint& end, const PoolFootprint& early) {
    ASSERT_TRUE(early.measured) << "the warm-up was never measured";
    EXPECT_LE(end.blocks, early.blocks);
    EXPECT_LE(end.largeRecords, early.largeRecords);
    EXPECT_LE(end.mapCapacity, early.mapCapacity);
}

#endif
