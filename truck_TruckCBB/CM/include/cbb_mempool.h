// The block pool of the common building blocks: timer nodes, the hub's event records and its
// copies of published data come from here, so that the device's long runs do not churn the
// general heap with small records.
//
// What always holds, under m_mutex (one recursive mutex guards every field and the contents
// of every block). Under it the pool calls only the C library: malloc, calloc, realloc and
// free when a block, the block table, the address map or a large allocation comes or goes,
// and one line to standard error when it refuses a call. None of these takes a lock of ours
// or calls back into one, so the pool's lock is always the last one taken (wheel before pool,
// hub before pool) and no cycle of locks can form through it:
// - Every block is m_uiBlockSize bytes from malloc: a block_t header, then its data area.
//   The chain runs from m_uiFirstBlock along next to m_uiLastBlock; a block joins it once, at
//   the end, and leaves it only in the destructor. Small allocation searches from
//   m_uiCurrentBlock on; a block passed over more than five times while new blocks were added
//   stops being the start of the search.
// - A block's liveCount is the number of its allocations not yet freed. When it falls to 0
//   the block's free position is rewound and the block becomes the current one, so the space
//   of freed small allocations is used again and the pool's size follows the peak of what is
//   live, not the total ever handed out.
// - m_addressMap holds exactly the live small allocations (a freed address leaves it), each
//   with its block; an address missing from it is refused by JQ_CBB_Free, so a double free or
//   a stray pointer prints "not found" instead of corrupting a count.
// - Every LargeRecord at position 6 or more of m_pLargeList holds a live large allocation:
//   reuse looks at the first six only, and a record beyond them whose allocation is freed is
//   unlinked before its memory goes back, since rewinding its block would otherwise reuse
//   memory that the list still points into.
// - A chunk handed out by JQ_CBB_GetChunk is in m_chunkClasses with the class it came from,
//   and goes back to that class whatever size the caller passes.
//
// block_t is six 32-bit words on every target. A 64-bit host cannot keep pointers in it, so
// the links are indices into m_ppBlockTable and the positions are byte offsets from the
// block's start; a block is at most 4 GiB, so an offset always fits.
#ifndef TRUCK_CBB_MEMPOOL_H
#define TRUCK_CBB_MEMPOOL_H

#include <stddef.h>
#include <stdint.h>

#include <pthread.h>
#include <time.h>

#include <atomic>

// The pool's recursive lock. Most holds are a few dozen instructions; the rare long one is a
// hold across malloc or free of a whole block (a page fault, an mmap, the allocator's own
// lock) or a refusal's line on standard error. So a waiter spins a little and then sleeps in
// short steps rather than parking on a futex: the common release is then a plain store, and a
// call of the pool costs one atomic exchange instead of the two of a futex mutex, which were
// most of its time, while a waiter behind a long hold sleeps instead of burning the processor.
// Sleeping, not yielding, lets a holder of lower priority run, so a real-time waiter cannot
// starve it.
class PoolMutex {
public:
    void lock() {
        const pthread_t self = pthread_self();
        // Only this thread ever stores its own id, and it clears it before releasing: reading
        // its own id back means it holds the lock.
        if (pthread_equal(m_owner.load(std::memory_order_relaxed), self)) {
            ++m_depth;
            return;
        }
        for (unsigned int tries = 0;; ++tries) {
            if (!m_held.load(std::memory_order_relaxed) &&
                !m_held.exchange(true, std::memory_order_acquire)) {
                break;
            }
            if (tries >= kSpins) {
                const struct timespec pause = {0, 20000};
                nanosleep(&pause, nullptr);
            }
        }
        m_owner.store(self, std::memory_order_relaxed);
        m_depth = 1;
    }
    // Whether the calling thread holds the lock, for the checks of debug builds.
    bool HeldByThisThread() const {
        return pthread_equal(m_owner.load(std::memory_order_relaxed), pthread_self());
    }
    void unlock() {
        if (--m_depth == 0) {
            m_owner.store(pthread_t(), std::memory_order_relaxed);
            m_held.store(false, std::memory_order_release);
        }
    }

private:
    static constexpr unsigned int kSpins = 100;
    std::atomic<bool> m_held{false};
    std::atomic<pthread_t> m_owner{pthread_t()};  // no thread's id while free
    unsigned int m_depth = 0;                     // the holder's alone
};

typedef struct block_t {
    uint32_t prev;      // chain index of the previous block, 0xFFFFFFFF for the head
    uint32_t next;      // chain index of the next block, 0xFFFFFFFF for the last
    uint32_t freePos;   // offset of the first free byte of the data area
    uint32_t end;       // offset one past the last byte: the block size
    int32_t passCount;  // how often adding a block passed over this one
    int32_t liveCount;  // small allocations of this block not yet freed
} block_t;
static_assert(sizeof(block_t) == 24, "block header is six 32-bit words");
static_assert(offsetof(block_t, prev) == 0, "prev at 0");
static_assert(offsetof(block_t, next) == 4, "next at 4");
static_assert(offsetof(block_t, freePos) == 8, "freePos at 8");
static_assert(offsetof(block_t, end) == 12, "end at 12");
static_assert(offsetof(block_t, passCount) == 16, "passCount at 16");
static_assert(offsetof(block_t, liveCount) == 20, "liveCount at 20");

// One large allocation, itself a small allocation of the pool; addr is null while the record
// waits for reuse. Two pointer-sized words.
typedef struct LargeRecord {
    LargeRecord* next;
    void* addr;
} LargeRecord;
static_assert(sizeof(LargeRecord) == 2 * sizeof(void*), "large record is two words");

class JQ_CBB_Mempool {
public:
    // The 20 chunk classes, 256 << i bytes.
    static const int mTable[20];
    // Every small allocation starts at a multiple of this, whatever `align` asks: the records
    // kept here hold pointers and atomic counts (a timer node's shared pointer), which the
    // ARM target cannot access at an unaligned address.
    static const unsigned int mAlignment = 8;

    // Built by the first call with that call's block size; later arguments are ignored.
    static JQ_CBB_Mempool* GetInstance(unsigned int blockSize);

    // Throws std::runtime_error("insufficient memory\n") when the first block cannot be had.
    // A block size below the header and 64 bytes of data is raised to that.
    explicit JQ_CBB_Mempool(unsigned int blockSize);
    virtual ~JQ_CBB_Mempool();
    JQ_CBB_Mempool(const JQ_CBB_Mempool&) = delete;
    JQ_CBB_Mempool& operator=(const JQ_CBB_Mempool&) = delete;

    void* JQ_CBB_Alloc(unsigned int size, bool align);
    void JQ_CBB_Free(void* addr);
    // Frees, then allocates afresh: the contents are not carried over.
    void* JQ_CBB_Realloc(void* addr, unsigned int size, bool align);
    // Invalidates everything handed out by JQ_CBB_Alloc at once; chunks are not touched.
    void JQ_CBB_Reset();

    // size in: bytes wanted; out: the size of the chunk's class.
    char* JQ_CBB_GetChunk(int& size);
    void JQ_CBB_PutChunk(int size, char* data);

    // Footprint, for the checks that memory stays bounded.
    unsigned int GetBlockCount() const;
    unsigned int GetLargeRecordCount() const;
    unsigned int GetAddressMapSize() const;      // live small allocations
    unsigned int GetAddressMapCapacity() const;  // slots the map holds memory for
    unsigned int GetLargeThreshold() const { return m_uiLargeThreshold; }

private:
    // Open-addressing map from an address to a 32-bit value: no heap call per entry, so a
    // small allocation costs no general-heap allocation, and it only grows to the peak of
    // live entries.
    class AddressMap {
    public:
        AddressMap() = default;
        ~AddressMap();
        AddressMap(const AddressMap&) = delete;
        AddressMap& operator=(const AddressMap&) = delete;

        bool Insert(const void* key, uint32_t value);  // false when the map cannot grow
        bool Take(const void* key, uint32_t& value);   // finds and removes
        void Clear();
        unsigned int Size() const { return m_uiSize; }
        unsigned int Capacity() const { return m_uiCapacity; }

    private:
        struct Slot {
            uintptr_t key;  // 0: empty
            uint32_t value;
        };
        unsigned int Home(uintptr_t key) const;
        bool Grow();

        Slot* m_pSlots = nullptr;
        unsigned int m_uiCapacity = 0;  // 0 or a power of two
        unsigned int m_uiSize = 0;
    };

    void* new_block(unsigned int size, uint32_t owner);
    void* alloc_block(unsigned int size, bool align, uint32_t owner);
    void* alloc_large(unsigned int size, bool align);

    block_t* Block(uint32_t index) const { return m_ppBlockTable[index]; }
    unsigned char* DataStart(block_t* block) const;
    void ReleaseSmall(uint32_t index);
    void MakeCurrent(uint32_t index);
    void Unlink(uint32_t index);
    bool FreeLarge(void* addr);

    mutable PoolMutex m_mutex;
    char* m_pChunkLists[20];
    uint32_t m_uiFirstBlock;
    uint32_t m_uiCurrentBlock;
    uint32_t m_uiLastBlock;  // new blocks join the chain here
    LargeRecord* m_pLargeList;
    unsigned int m_uiLargeThreshold;
    AddressMap m_addressMap;  // small allocation -> block index (| kPoolRecord for the pool's own)

    unsigned int m_uiBlockSize;
    block_t** m_ppBlockTable;  // every block, by chain index
    uint32_t m_uiBlockCount;
    uint32_t m_uiBlockTableCapacity;
    unsigned int m_uiLargeRecordCount;
    AddressMap m_chunkClasses;  // chunk handed out -> its class
};

#endif
