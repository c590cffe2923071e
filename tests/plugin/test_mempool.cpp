// The block pool: where a request is served, how freed space comes back, the large-record
// list, the chunk cache, refusals of bad input, and several threads at once.
#include <malloc.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <memory>
#include <random>
#include <regex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "RefusedMalloc.h"
#include "cbb_mempool.h"

namespace {

// Runs `action` and checks that the pool printed exactly one line,
// "[truck_TruckCBB/CM/src/cbb_mempool::<func>::<line>]<text>".
template <class Action>
void ExpectPrinted(const std::string& func, const std::string& text, Action action) {
    testing::internal::CaptureStderr();
    action();
    const std::string out = testing::internal::GetCapturedStderr();
    const std::string head = "[truck_TruckCBB/CM/src/cbb_mempool::" + func + "::";
    const size_t close = out.find(']');
    ASSERT_EQ(out.compare(0, head.size(), head), 0) << out;
    ASSERT_NE(close, std::string::npos) << out;
    const std::string line = out.substr(head.size(), close - head.size());
    EXPECT_TRUE(!line.empty() && line.find_first_not_of("0123456789") == std::string::npos) << out;
    EXPECT_EQ(out.substr(close + 1), text);
}

std::string NotFound(const void* p) {
    char text[48];
    snprintf(text, sizeof(text), "addr %p not found\n", p);
    return text;
}

long long HeapInUse() {
    const struct mallinfo2 info = mallinfo2();
    return static_cast<long long>(info.uordblks + info.hblkhd);
}

}  // namespace

TEST(MempoolPlacement, SmallRequestsComeFromBlocksAndLargeOnesFromTheHeapUpToOneFullHdFrame) {
    JQ_CBB_Mempool pool(4096);
    EXPECT_EQ(pool.GetLargeThreshold(), 4096u - 24u);  // six 32-bit words of header on every width
    EXPECT_NE(pool.JQ_CBB_Alloc(4071, false), nullptr);
    void* large = pool.JQ_CBB_Alloc(4072, false);
    EXPECT_EQ(pool.GetLargeRecordCount(), 1u);
    EXPECT_EQ(pool.GetBlockCount(), 2u);  // the first block was full: the record started another
    void* frame = pool.JQ_CBB_Alloc(3110400, false);
    ASSERT_NE(frame, nullptr);
    memset(frame, 0x33, 3110400);
    ExpectPrinted("alloc_large", "size[3110401] too large!\n",
                  [&] { EXPECT_EQ(pool.JQ_CBB_Alloc(3110401, true), nullptr); });
    pool.JQ_CBB_Free(large);
    pool.JQ_CBB_Free(frame);
    // What is still out when the pool goes is given back, and said so.
    auto leaky = std::make_unique<JQ_CBB_Mempool>(4096);
    void* kept = leaky->JQ_CBB_Alloc(5000, false);
    char text[48];
    snprintf(text, sizeof(text), "JQ_CBB_Free ADDR %p\n", kept);
    ExpectPrinted("~JQ_CBB_Mempool", text, [&] { leaky.reset(); });

    EXPECT_EQ(JQ_CBB_Mempool(8192).GetLargeThreshold(), 4096u) << "capped";

    // A pool that goes gives the heap back what it took, its map of addresses included.
    const long long heapBefore = HeapInUse();
    {
        JQ_CBB_Mempool many(4096);
        for (int i = 0; i < 20000; ++i) {
            many.JQ_CBB_Alloc(24, false);
        }
    }
    EXPECT_LT(HeapInUse() - heapBefore, 16 * 1024);
}

TEST(MempoolPlacement, OnlyAddingABlockPassesOneAndTheSixthPassMovesTheSearchOn) {
    JQ_CBB_Mempool pool(4096);
    auto* a = static_cast<unsigned char*>(pool.JQ_CBB_Alloc(3000, false));
    std::vector<unsigned char*> halves;  // two fill a block to its last 8 bytes
    const auto addHalves = [&](int count) {
        for (int i = 0; i < count; ++i) {
            halves.push_back(static_cast<unsigned char*>(pool.JQ_CBB_Alloc(2032, false)));
        }
    };
    addHalves(6);  // block 0 walked past six times, passed by adding a block twice
    EXPECT_EQ(pool.JQ_CBB_Alloc(500, false), a + 3000);
    addHalves(6);
    EXPECT_EQ(pool.JQ_CBB_Alloc(500, false), a + 3504) << "passed five times";
    addHalves(1);
    // Block 0 still has 64 bytes free, but is no longer searched.
    EXPECT_EQ(pool.JQ_CBB_Alloc(40, false), halves.back() + 2032) << "passed six times";
    EXPECT_EQ(pool.GetBlockCount(), 8u);

    // Emptied after the search has moved past it, a block is searched first again, and its
    // passes count from nothing: one more pass leaves the search on it.
    JQ_CBB_Mempool again(4096);
    auto* x = static_cast<unsigned char*>(again.JQ_CBB_Alloc(3000, false));
    void* after = again.JQ_CBB_Alloc(4064, false);  // 4064 bytes fill a block to its last 8
    for (int i = 0; i < 6; ++i) {
        again.JQ_CBB_Alloc(4064, false);  // x's block passed six times
    }
    again.JQ_CBB_Free(after);  // the block after it, passed five times, starts again too
    again.JQ_CBB_Free(x);
    EXPECT_EQ(again.JQ_CBB_Alloc(3000, false), x);
    again.JQ_CBB_Alloc(4064, false);  // into the block after it
    again.JQ_CBB_Alloc(4064, false);  // adds a block: one pass
    EXPECT_EQ(again.JQ_CBB_Alloc(500, false), x + 3000);

    // The map of live addresses stays under half full, where its probe runs are short.
    JQ_CBB_Mempool counted(4096);
    for (unsigned int live = 1; live <= 32; ++live) {
        counted.JQ_CBB_Alloc(24, false);
        EXPECT_EQ(counted.GetAddressMapCapacity(), live < 32 ? 64u : 128u) << live;
    }
}

TEST(MempoolReuse, ABlockWhoseAllocationsAreAllFreedIsFilledAgainFirst) {
    JQ_CBB_Mempool pool(4096);
    void* a = pool.JQ_CBB_Alloc(3000, false);  // block 0, where the search starts
    auto* c = static_cast<unsigned char*>(pool.JQ_CBB_Alloc(2000, false));  // no room: block 1
    void* d = pool.JQ_CBB_Alloc(2000, false);                               // block 1 again
    ASSERT_EQ(pool.GetBlockCount(), 2u);
    EXPECT_EQ(d, c + 2000);

    // A new block's first allocation counts as live: freeing only the second keeps block 1
    // where it is, and block 0 still serves first.
    pool.JQ_CBB_Free(d);
    void* e = pool.JQ_CBB_Alloc(100, false);
    EXPECT_EQ(e, static_cast<unsigned char*>(a) + 3000);
    pool.JQ_CBB_Free(e);

    // Emptied, block 1 becomes the current block and is handed out again from its start,
    // before block 0's remaining room; the current block empties in place the same way.
    pool.JQ_CBB_Free(c);
    EXPECT_EQ(pool.JQ_CBB_Alloc(100, false), c);
    EXPECT_EQ(pool.JQ_CBB_Alloc(3900, false), c + 104);
    pool.JQ_CBB_Free(c + 104);
    pool.JQ_CBB_Free(c);
    EXPECT_EQ(pool.JQ_CBB_Alloc(4000, false), c);
    EXPECT_EQ(pool.JQ_CBB_Alloc(900, false), static_cast<unsigned char*>(a) + 3104)
        << "the chain goes on after it";
    EXPECT_EQ(pool.GetBlockCount(), 2u);

    // A reallocation frees before it allocates: alone in its block, the memory comes back.
    JQ_CBB_Mempool single(4096);
    void* p = single.JQ_CBB_Alloc(40, false);
    EXPECT_EQ(single.JQ_CBB_Realloc(p, 400, false), p);
    EXPECT_EQ(single.GetAddressMapSize(), 1u);
}

// Large records beyond the first six are unlinked when their allocation is freed. Here they
// sit alone in a block that then empties and is written over: a record still linked would
// send the next walk of the list into that data.
TEST(MempoolLargeRecords, RecordsOfFreedAllocationsNeverOutliveTheirBlock) {
    JQ_CBB_Mempool pool(4096);
    std::vector<void*> older, newer;
    for (int i = 0; i < 4; ++i) {
        older.push_back(pool.JQ_CBB_Alloc(5000, false));  // records in block 0
    }
    void* filler = pool.JQ_CBB_Alloc(pool.GetLargeThreshold() - 4 * sizeof(LargeRecord) - 1, false);
    for (int i = 0; i < 6; ++i) {
        newer.push_back(pool.JQ_CBB_Alloc(5000, false));  // records in block 1
    }
    ASSERT_EQ(pool.GetBlockCount(), 2u);
    for (void* p : older) {
        pool.JQ_CBB_Free(p);  // positions 6 to 9
    }
    EXPECT_EQ(pool.GetLargeRecordCount(), 6u);
    pool.JQ_CBB_Free(filler);
    for (int i = 0; i < 8; ++i) {
        memset(pool.JQ_CBB_Alloc(500, false), 0xAB, 500);  // over block 0, rewound
    }
    EXPECT_EQ(pool.GetBlockCount(), 2u);

    // Six idle records are reused, not added to.
    for (void*& p : newer) {
        pool.JQ_CBB_Free(p);
        p = pool.JQ_CBB_Alloc(6000, false);
    }
    EXPECT_EQ(pool.GetLargeRecordCount(), 6u);
    int unknown = 0;  // walks the whole list, as the destructor does
    ExpectPrinted("JQ_CBB_Free", NotFound(&unknown), [&] { pool.JQ_CBB_Free(&unknown); });
    for (void* p : newer) {
        pool.JQ_CBB_Free(p);
    }
    EXPECT_EQ(pool.GetLargeRecordCount(), 6u) << "the first six stay for reuse";
}

TEST(MempoolReset, ReleasesEverythingAtOnceAndForgetsTheAddressesItHandedOut) {
    JQ_CBB_Mempool pool(4096);
    void* first = pool.JQ_CBB_Alloc(64, true);
    for (int i = 0; i < 300; ++i) {  // enough blocks to move the search off the first
        pool.JQ_CBB_Alloc(100, false);
    }
    const long long heapBefore = HeapInUse();
    pool.JQ_CBB_Alloc(100000, false);
    const long long heapWithLarge = HeapInUse();  // a sanitizer's heap is not seen here
    const unsigned int blocks = pool.GetBlockCount();

    pool.JQ_CBB_Reset();
    EXPECT_TRUE(heapWithLarge - heapBefore < 100000 || heapWithLarge - HeapInUse() >= 100000)
        << "the large allocation goes back to the heap";
    EXPECT_EQ(pool.GetLargeRecordCount(), 0u);
    EXPECT_EQ(pool.GetAddressMapSize(), 0u);
    EXPECT_EQ(pool.GetBlockCount(), blocks);
    // A late free of an address from before is refused rather than taken from a count.
    ExpectPrinted("JQ_CBB_Free", NotFound(first), [&] { pool.JQ_CBB_Free(first); });
    EXPECT_EQ(pool.JQ_CBB_Alloc(64, true), first);
    pool.JQ_CBB_Free(first);  // the block's count starts again from 0, so it empties
    EXPECT_EQ(pool.JQ_CBB_Alloc(64, true), first);
    // So do its passes: filling every block and adding five passes the first block five times,
    // and the search still starts there.
    for (unsigned int i = 0; i < blocks + 5; ++i) {
        pool.JQ_CBB_Alloc(4000, false);
    }
    EXPECT_EQ(pool.JQ_CBB_Alloc(8, false), static_cast<unsigned char*>(first) + 64 + 4000);
}

TEST(MempoolChunks, ChunksComeFromTheNextLargerClassAndGoBackToTheOneTheyCameFrom) {
    JQ_CBB_Mempool pool(4096);
    int size = 255;
    char* c256 = pool.JQ_CBB_GetChunk(size);
    EXPECT_EQ(size, 256);
    size = 256;
    char* c512 = pool.JQ_CBB_GetChunk(size);
    EXPECT_EQ(size, 512);
    memset(c512, 2, 512);
    size = -5;
    char* negative = pool.JQ_CBB_GetChunk(size);
    EXPECT_EQ(size, 256);
    pool.JQ_CBB_PutChunk(255, c256);
    size = 255;
    EXPECT_EQ(pool.JQ_CBB_GetChunk(size), c256);

    // 512, the size reported, would look up as the 1024 class: the chunk must still go back
    // to 512, and never be handed out as 1024 bytes.
    pool.JQ_CBB_PutChunk(512, c512);
    size = 600;
    char* c1024 = pool.JQ_CBB_GetChunk(size);
    EXPECT_NE(c1024, c512);
    size = 300;
    EXPECT_EQ(pool.JQ_CBB_GetChunk(size), c512);

    // A request takes the first class larger than it, so each class starts one byte past the one
    // before (the largest two are left out: they would map 128 MiB here).
    const int classes[] = {256,     512,     1024,     2048,     4096,     8192,     16384,
                           32768,   65536,   131072,   262144,   524288,   1048576,  2097152,
                           4194304, 8388608, 16777216, 33554432, 67108864, 134217728};
    for (size_t i = 0; i + 3 < sizeof(classes) / sizeof(classes[0]); ++i) {
        for (const int asked : {classes[i] - 1, classes[i]}) {
            size = asked;
            char* chunk = pool.JQ_CBB_GetChunk(size);
            EXPECT_EQ(size, asked < classes[i] ? classes[i] : classes[i + 1]) << asked;
            pool.JQ_CBB_PutChunk(size, chunk);
        }
    }
    size = 134217728;  // no class is larger
    ExpectPrinted("JQ_CBB_GetChunk", "size[134217728] too large!\n",
                  [&] { EXPECT_EQ(pool.JQ_CBB_GetChunk(size), nullptr); });
    EXPECT_EQ(size, 134217728);
    for (char* chunk : {c256, c512, c1024, negative}) {
        pool.JQ_CBB_PutChunk(256, chunk);
    }
}

TEST(MempoolRefusals, BadInputPrintsItsMessageAndChangesNothing) {
    JQ_CBB_Mempool pool(4096);
    void* kept = pool.JQ_CBB_Alloc(40, false);
    void* freed = pool.JQ_CBB_Alloc(40, false);
    pool.JQ_CBB_Free(freed);
    int onStack = 0;
    char* stray = reinterpret_cast<char*>(&onStack);
    int size = 0;

    ExpectPrinted("JQ_CBB_Alloc", "size == 0!!\n", [&] { EXPECT_EQ(pool.JQ_CBB_Alloc(0, false), nullptr); });
    ExpectPrinted("JQ_CBB_Free", NotFound(&onStack), [&] { pool.JQ_CBB_Free(&onStack); });
    // A second free must not take another count from the block, which would rewind it
    // under `kept`.
    ExpectPrinted("JQ_CBB_Free", NotFound(freed), [&] { pool.JQ_CBB_Free(freed); });
    ExpectPrinted("JQ_CBB_GetChunk", "size == 0!!\n",
                  [&] { EXPECT_EQ(pool.JQ_CBB_GetChunk(size), nullptr); });
    ExpectPrinted("JQ_CBB_PutChunk", "size == 0 || null == data !!\n",
                  [&] { pool.JQ_CBB_PutChunk(0, stray); });
    ExpectPrinted("JQ_CBB_PutChunk", "size == 0 || null == data !!\n",
                  [&] { pool.JQ_CBB_PutChunk(9, nullptr); });
    ExpectPrinted("JQ_CBB_PutChunk", NotFound(stray), [&] { pool.JQ_CBB_PutChunk(256, stray); });
    size = 256;
    char* chunk = pool.JQ_CBB_GetChunk(size);
    pool.JQ_CBB_PutChunk(size, chunk);
    ExpectPrinted("JQ_CBB_PutChunk", NotFound(chunk), [&] { pool.JQ_CBB_PutChunk(size, chunk); });
    testing::internal::CaptureStderr();
    pool.JQ_CBB_Free(nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

    EXPECT_EQ(pool.GetAddressMapSize(), 1u);
    EXPECT_EQ(pool.JQ_CBB_Alloc(40, false), static_cast<char*>(kept) + 80) << "block not rewound";
    // Nor is the pool's own record of a large allocation, made where the next small one would
    // have gone: freeing it is refused, and the record stays.
    void* large = pool.JQ_CBB_Alloc(5000, false);
    char* record = static_cast<char*>(kept) + 120;
    ExpectPrinted("JQ_CBB_Free", NotFound(record), [&] { pool.JQ_CBB_Free(record); });
    EXPECT_EQ(pool.GetAddressMapSize(), 3u);
    pool.JQ_CBB_Free(large);
}

TEST(MempoolRefusals, AHeapWithoutMemoryGivesNullWithItsMessageAndDisturbsNothing) {
    if (!RefusingMalloc()) {
        GTEST_SKIP() << "the sanitizer's allocator cannot be made to refuse";
    }
    // Every line the pool printed, without its line number.
    const auto printed = [](auto action) {
        testing::internal::CaptureStderr();
        action();
        return std::regex_replace(testing::internal::GetCapturedStderr(),
                                  std::regex("\\[truck_TruckCBB/CM/src/cbb_mempool::(\\w+)::[0-9]+\\]"),
                                  "[$1]");
    };
    g_refusedMallocSize = 4096;
    try {
        JQ_CBB_Mempool none(4096);
        ADD_FAILURE() << "made without a block";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "insufficient memory\n");
    }
    g_refusedMallocSize = 0;

    JQ_CBB_Mempool pool(4096);
    void* kept = pool.JQ_CBB_Alloc(4071, false);  // the first block, to its last byte
    g_refusedMallocSize = 4096;
    EXPECT_EQ(printed([&] { EXPECT_EQ(pool.JQ_CBB_Alloc(1, false), nullptr); }),
              "[new_block]insufficient memory\n");
    EXPECT_EQ(printed([&] { EXPECT_EQ(pool.JQ_CBB_Alloc(5000, false), nullptr); }),
              "[new_block]insufficient memory\n[alloc_large]alloc_block fail!\n")
        << "no block for its record";
    g_refusedMallocSize = 5000;
    EXPECT_EQ(printed([&] { EXPECT_EQ(pool.JQ_CBB_Alloc(5000, false), nullptr); }),
              "[alloc_large]insufficient memory\n");
    g_refusedMallocSize = 512;
    int size = 300;
    EXPECT_EQ(printed([&] { EXPECT_EQ(pool.JQ_CBB_GetChunk(size), nullptr); }),
              "[JQ_CBB_GetChunk]insufficient memory\n");
    g_refusedMallocSize = 0;
    EXPECT_EQ(pool.GetAddressMapSize(), 1u);
    EXPECT_EQ(pool.GetLargeRecordCount(), 0u);
    EXPECT_EQ(pool.GetBlockCount(), 1u);
    pool.JQ_CBB_Free(kept);
    EXPECT_EQ(pool.JQ_CBB_Alloc(8, false), kept) << "its block still serves";
}

TEST(MempoolThreads, ThreadsAllocatingAndFreeingAtOnceNeverShareMemory) {
    JQ_CBB_Mempool pool(4096);
    std::vector<std::thread> threads;
    std::vector<int> failures(4, 0);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&pool, &failures, t] {
            std::mt19937 random(100 + t);
            std::vector<std::pair<unsigned char*, size_t>> mine;
            const unsigned char mark = static_cast<unsigned char>(0x10 + t);
            for (int i = 0; i < 20000; ++i) {
                if (mine.size() < 64 && random() % 3 != 0) {
                    const size_t size = random() % 16 == 0 ? 4100 + random() % 4000 : 1 + random() % 300;
                    auto* p = static_cast<unsigned char*>(
                        pool.JQ_CBB_Alloc(static_cast<unsigned int>(size), false));
                    memset(p, mark, size);
                    mine.emplace_back(p, size);
                } else if (!mine.empty()) {
                    const size_t pick = random() % mine.size();
                    failures[t] += std::count(mine[pick].first, mine[pick].first + mine[pick].second, mark) !=
                                   static_cast<std::ptrdiff_t>(mine[pick].second);
                    pool.JQ_CBB_Free(mine[pick].first);
                    mine[pick] = mine.back();
                    mine.pop_back();
                }
            }
            for (const auto& entry : mine) {
                pool.JQ_CBB_Free(entry.first);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failures, std::vector<int>(4, 0));
    EXPECT_LE(pool.GetAddressMapSize(), 6u);
}
