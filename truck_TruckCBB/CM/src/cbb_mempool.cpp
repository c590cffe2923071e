// The block pool. Its invariants and its lock are described at the top of cbb_mempool.h.
#include "cbb_mempool.h"

#include "TruckLockCheck.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <mutex>
#include <new>
#include <stdexcept>

namespace {

const char kPoolSource[] = "truck_TruckCBB/CM/src/cbb_mempool";

// The pool reports to standard error, not to the platform log: it must work before, and
// without, the platform's log service.
#define POOL_PRINT(format, ...) \
    fprintf(stderr, "[%s::%s::%d]" format, kPoolSource, __func__, __LINE__, ##__VA_ARGS__)

typedef std::lock_guard<PoolMutex> PoolLock;

const uint32_t kNoBlock = 0xFFFFFFFFu;
// Marks a small allocation that the pool made for itself (a LargeRecord): a caller that hands
// such an address to JQ_CBB_Free (a double free after its memory was reused) is refused.
const uint32_t kPoolRecord = 0x80000000u;
const uint32_t kCallerAllocation = 0;

const unsigned int kHeaderSize = sizeof(block_t);
const unsigned int kMaxLargeThreshold = 4096;
const unsigned int kMaxLargeSize = 3110400;  // one 1920x1080 YUV 4:2:0 frame
const int kLargeReuseScan = 6;
const int kPassLimit = 5;
const int kChunkClasses = 20;
// A block must hold its header and some data, or offsets below the header would wrap.
const unsigned int kMinBlockSize = kHeaderSize + 64;
const unsigned int kFirstMapCapacity = 64;

// The map's two hot operations and the small-allocation path are inlined into the pool's entry
// points: a call's prologue and epilogue cost as much as the lookup itself.
#define POOL_HOT inline __attribute__((always_inline))

static_assert(kHeaderSize % JQ_CBB_Mempool::mAlignment == 0, "data areas start aligned");
static_assert(alignof(max_align_t) >= JQ_CBB_Mempool::mAlignment, "malloc'd blocks start aligned");

}  // namespace

const int JQ_CBB_Mempool::mTable[20] = {
    256,    512,    1024,    2048,    4096,    8192,    16384,    32768,    65536,    131072,
    262144, 524288, 1048576, 2097152, 4194304, 8388608, 16777216, 33554432, 67108864, 134217728,
};

// ---------------------------------------------------------------------------------------
// Address map

JQ_CBB_Mempool::AddressMap::~AddressMap() {
    free(m_pSlots);
}

POOL_HOT unsigned int JQ_CBB_Mempool::AddressMap::Home(uintptr_t key) const {
    // Keys are aligned addresses: drop the zero bits, then spread with a Fibonacci multiply.
    const uint64_t spread = static_cast<uint64_t>(key >> 3) * 0x9E3779B97F4A7C15ull;
    return static_cast<unsigned int>(spread >> 32) & (m_uiCapacity - 1);
}

bool JQ_CBB_Mempool::AddressMap::Grow() {
    const unsigned int oldCapacity = m_uiCapacity;
    Slot* oldSlots = m_pSlots;
    const unsigned int newCapacity = oldCapacity == 0 ? kFirstMapCapacity : oldCapacity * 2;
    if (newCapacity < oldCapacity) {
        return false;
    }
    Slot* newSlots = static_cast<Slot*>(calloc(newCapacity, sizeof(Slot)));
    if (newSlots == nullptr) {
        return false;
    }
    m_pSlots = newSlots;
    m_uiCapacity = newCapacity;
    for (unsigned int i = 0; i < oldCapacity; ++i) {
        if (oldSlots[i].key == 0) {
            continue;
        }
        unsigned int at = Home(oldSlots[i].key);
        while (m_pSlots[at].key != 0) {
            at = (at + 1) & (m_uiCapacity - 1);
        }
        m_pSlots[at] = oldSlots[i];
    }
    free(oldSlots);
    return true;
}

POOL_HOT bool JQ_CBB_Mempool::AddressMap::Insert(const void* key, uint32_t value) {
    // Under half full, so probe runs stay short: the hub's usual 32 live records get 128 slots.
    if ((m_uiSize + 1) * 2 >= m_uiCapacity && !Grow()) {
        return false;
    }
    const uintptr_t k = reinterpret_cast<uintptr_t>(key);
    unsigned int at = Home(k);
    while (m_pSlots[at].key != 0 && m_pSlots[at].key != k) {
        at = (at + 1) & (m_uiCapacity - 1);
    }
    if (m_pSlots[at].key == 0) {
        ++m_uiSize;
    }
    m_pSlots[at].key = k;
    m_pSlots[at].value = value;
    return true;
}

POOL_HOT bool JQ_CBB_Mempool::AddressMap::Take(const void* key, uint32_t& value) {
    const uintptr_t k = reinterpret_cast<uintptr_t>(key);
    if (m_uiCapacity == 0 || k == 0) {
        return false;
    }
    const unsigned int mask = m_uiCapacity - 1;
    unsigned int hole = Home(k);
    while (m_pSlots[hole].key != k) {
        if (m_pSlots[hole].key == 0) {
            return false;
        }
        hole = (hole + 1) & mask;
    }
    value = m_pSlots[hole].value;
    // Backward-shift deletion: no tombstones, so a map that churns never fills up with them.
    for (unsigned int at = (hole + 1) & mask; m_pSlots[at].key != 0; at = (at + 1) & mask) {
        // The entry may fill the hole only if the hole lies between its home and its slot.
        const unsigned int home = Home(m_pSlots[at].key);
        if (((at - home) & mask) < ((at - hole) & mask)) {
            continue;
        }
        m_pSlots[hole] = m_pSlots[at];
        hole = at;
    }
    m_pSlots[hole].key = 0;
    --m_uiSize;
    return true;
}

void JQ_CBB_Mempool::AddressMap::Clear() {
    if (m_pSlots != nullptr) {
        memset(m_pSlots, 0, m_uiCapacity * sizeof(Slot));
    }
    m_uiSize = 0;
}

// ---------------------------------------------------------------------------------------
// Pool

JQ_CBB_Mempool* JQ_CBB_Mempool::GetInstance(unsigned int blockSize) {
    static JQ_CBB_Mempool s_pool(blockSize);
    return &s_pool;
}

JQ_CBB_Mempool::JQ_CBB_Mempool(unsigned int blockSize)
    : m_pChunkLists(),
      m_uiFirstBlock(0),
      m_uiCurrentBlock(0),
      m_uiLastBlock(0),
      m_pLargeList(nullptr),
      m_uiLargeThreshold(0),
      m_uiBlockSize(std::max(blockSize, kMinBlockSize)),
      m_ppBlockTable(nullptr),
      m_uiBlockCount(0),
      m_uiBlockTableCapacity(0),
      m_uiLargeRecordCount(0) {
    m_ppBlockTable = static_cast<block_t**>(malloc(4 * sizeof(block_t*)));
    block_t* first = static_cast<block_t*>(malloc(m_uiBlockSize));
    if (m_ppBlockTable == nullptr || first == nullptr) {
        free(m_ppBlockTable);
        free(first);
        throw std::runtime_error("insufficient memory\n");
    }
    m_uiBlockTableCapacity = 4;
    first->prev = kNoBlock;
    first->next = kNoBlock;
    first->freePos = kHeaderSize;
    first->end = m_uiBlockSize;
    first->passCount = 0;
    first->liveCount = 0;
    m_ppBlockTable[0] = first;
    m_uiBlockCount = 1;
    m_uiLargeThreshold = std::min(m_uiBlockSize - kHeaderSize, kMaxLargeThreshold);
}

JQ_CBB_Mempool::~JQ_CBB_Mempool() {
    for (int i = 0; i < kChunkClasses; ++i) {
        while (m_pChunkLists[i] != nullptr) {
            char* chunk = m_pChunkLists[i];
            memcpy(&m_pChunkLists[i], chunk, sizeof(char*));
            free(chunk);
        }
    }
    for (LargeRecord* record = m_pLargeList; record != nullptr; record = record->next) {
        if (record->addr != nullptr) {
            POOL_PRINT("JQ_CBB_Free ADDR %p\n", record->addr);
            free(record->addr);
        }
    }
    for (uint32_t i = 0; i < m_uiBlockCount; ++i) {
        free(m_ppBlockTable[i]);
    }
    free(m_ppBlockTable);
}

unsigned char* JQ_CBB_Mempool::DataStart(block_t* block) const {
    return reinterpret_cast<unsigned char*>(block) + kHeaderSize;
}

void* JQ_CBB_Mempool::JQ_CBB_Alloc(unsigned int size, bool align) {
    if (size == 0) {
        POOL_PRINT("size == 0!!\n");
        return nullptr;
    }
    if (size >= m_uiLargeThreshold) {
        return alloc_large(size, align);
    }
    return alloc_block(size, align, kCallerAllocation);
}

POOL_HOT void* JQ_CBB_Mempool::alloc_block(unsigned int size, bool /*align*/, uint32_t owner) {
    PoolLock lock(m_mutex);
    for (uint32_t index = m_uiCurrentBlock; index != kNoBlock; index = Block(index)->next) {
        block_t* block = Block(index);
        // 64-bit arithmetic: rounding a free position near the end of a huge block must not wrap.
        const uint64_t at =
            (static_cast<uint64_t>(block->freePos) + mAlignment - 1) & ~uint64_t(mAlignment - 1);
        if (at > block->end || block->end - at < size) {
            continue;  // passes are counted only when a block has to be added
        }
        unsigned char* addr = reinterpret_cast<unsigned char*>(block) + at;
        if (!m_addressMap.Insert(addr, index | owner)) {
            POOL_PRINT("insufficient memory\n");
            return nullptr;
        }
        ++block->liveCount;
        block->freePos = static_cast<uint32_t>(at + size);
        return addr;
    }
    return new_block(size, owner);
}

// Called with m_mutex held, when no block from the current one on has room for `size`.
void* JQ_CBB_Mempool::new_block(unsigned int size, uint32_t owner) {
    TRUCK_CHECK(m_mutex.HeldByThisThread());
    if (size > m_uiBlockSize - kHeaderSize) {
        return nullptr;
    }
    if (m_uiBlockCount == m_uiBlockTableCapacity) {
        // Block indices share their word in the address map with the kPoolRecord bit.
        const uint32_t capacity = m_uiBlockTableCapacity * 2;
        void* grown =
            capacity <= kPoolRecord ? realloc(m_ppBlockTable, capacity * sizeof(block_t*)) : nullptr;
        if (grown == nullptr) {
            POOL_PRINT("insufficient memory\n");
            return nullptr;
        }
        m_ppBlockTable = static_cast<block_t**>(grown);
        m_uiBlockTableCapacity = capacity;
    }
    block_t* block = static_cast<block_t*>(malloc(m_uiBlockSize));
    const uint32_t index = m_uiBlockCount;
    if (block == nullptr || !m_addressMap.Insert(DataStart(block), index | owner)) {
        free(block);
        POOL_PRINT("insufficient memory\n");
        return nullptr;
    }
    block->next = kNoBlock;
    block->end = m_uiBlockSize;
    block->passCount = 0;
    block->liveCount = 1;
    block->freePos = kHeaderSize + size;
    m_ppBlockTable[index] = block;
    ++m_uiBlockCount;
    // A block passed over more than five times while blocks were added is as good as full:
    // the search starts after it from now on, so a chain of full blocks is not walked on every
    // request. Small requests that still fit it wait for it to empty.
    for (uint32_t at = m_uiCurrentBlock; Block(at)->next != kNoBlock; at = Block(at)->next) {
        if (++Block(at)->passCount > kPassLimit) {
            m_uiCurrentBlock = Block(at)->next;
        }
    }
    block->prev = m_uiLastBlock;
    Block(m_uiLastBlock)->next = index;
    m_uiLastBlock = index;
    return DataStart(block);
}

void* JQ_CBB_Mempool::alloc_large(unsigned int size, bool /*align*/) {
    if (size > kMaxLargeSize) {
        POOL_PRINT("size[%zu] too large!\n", static_cast<size_t>(size));
        return nullptr;
    }
    void* addr = malloc(size);
    if (addr == nullptr) {
        POOL_PRINT("insufficient memory\n");
        return nullptr;
    }
    PoolLock lock(m_mutex);
    LargeRecord* record = m_pLargeList;
    for (int i = 0; i < kLargeReuseScan && record != nullptr; ++i, record = record->next) {
        if (record->addr == nullptr) {
            record->addr = addr;
            return addr;
        }
    }
    void* memory = alloc_block(sizeof(LargeRecord), false, kPoolRecord);
    if (memory == nullptr) {
        POOL_PRINT("alloc_block fail!\n");
        free(addr);
        return nullptr;
    }
    m_pLargeList = new (memory) LargeRecord{m_pLargeList, addr};
    ++m_uiLargeRecordCount;
    return addr;
}

void JQ_CBB_Mempool::JQ_CBB_Free(void* addr) {
    if (addr == nullptr) {
        return;
    }
    PoolLock lock(m_mutex);
    uint32_t value{};
    const bool small = m_addressMap.Take(addr, value);
    if (small && (value & kPoolRecord) == 0) {
        ReleaseSmall(value);
        return;
    }
    if (small) {
        m_addressMap.Insert(addr, value);  // the pool's own record: back where it was
    } else if (FreeLarge(addr)) {
        return;
    }
    POOL_PRINT("addr %p not found\n", addr);
}

bool JQ_CBB_Mempool::FreeLarge(void* addr) {
    LargeRecord* before = nullptr;
    int position = 0;
    for (LargeRecord* record = m_pLargeList; record != nullptr;
         before = record, record = record->next, ++position) {
        if (record->addr != addr) {
            continue;
        }
        free(addr);
        record->addr = nullptr;
        if (position < kLargeReuseScan) {
            return true;  // kept for reuse
        }
        before->next = record->next;
        --m_uiLargeRecordCount;
        uint32_t value{};
        m_addressMap.Take(record, value);
        ReleaseSmall(value & ~kPoolRecord);
        return true;
    }
    return false;
}

POOL_HOT void JQ_CBB_Mempool::ReleaseSmall(uint32_t index) {
    block_t* block = Block(index);
    if (--block->liveCount > 0) {
        return;
    }
    block->liveCount = 0;
    block->freePos = kHeaderSize;
    block->passCount = 0;
    if (index != m_uiCurrentBlock) {
        MakeCurrent(index);
    }
}

void JQ_CBB_Mempool::Unlink(uint32_t index) {
    block_t* block = Block(index);
    if (block->prev != kNoBlock) {
        Block(block->prev)->next = block->next;
    } else {
        m_uiFirstBlock = block->next;
    }
    if (block->next != kNoBlock) {
        Block(block->next)->prev = block->prev;
    } else {
        m_uiLastBlock = block->prev;
    }
    block->prev = kNoBlock;
    block->next = kNoBlock;
}

// An emptied block goes in just before the current one and becomes current, so the next
// small allocations fill it first and the blocks after it stay searched.
void JQ_CBB_Mempool::MakeCurrent(uint32_t index) {
    Unlink(index);
    block_t* block = Block(index);
    block_t* current = Block(m_uiCurrentBlock);
    block->prev = current->prev;
    block->next = m_uiCurrentBlock;
    if (current->prev != kNoBlock) {
        Block(current->prev)->next = index;
    } else {
        m_uiFirstBlock = index;
    }
    current->prev = index;
    m_uiCurrentBlock = index;
}

void* JQ_CBB_Mempool::JQ_CBB_Realloc(void* addr, unsigned int size, bool align) {
    JQ_CBB_Free(addr);
    return JQ_CBB_Alloc(size, align);
}

void JQ_CBB_Mempool::JQ_CBB_Reset() {
    PoolLock lock(m_mutex);
    for (LargeRecord* record = m_pLargeList; record != nullptr; record = record->next) {
        free(record->addr);
    }
    m_pLargeList = nullptr;
    m_uiLargeRecordCount = 0;
    for (uint32_t i = 0; i < m_uiBlockCount; ++i) {
        block_t* block = Block(i);
        block->freePos = kHeaderSize;
        block->passCount = 0;
        block->liveCount = 0;
    }
    // Every address handed out is void now: forgetting them makes a late free of one print
    // "not found" instead of taking a count from a block that no longer holds it. The search
    // restarts at the head so that no rewound block is left behind the current one.
    m_addressMap.Clear();
    m_uiCurrentBlock = m_uiFirstBlock;
}

char* JQ_CBB_Mempool::JQ_CBB_GetChunk(int& size) {
    if (size == 0) {
        POOL_PRINT("size == 0!!\n");
        return nullptr;
    }
    const int cls = static_cast<int>(std::upper_bound(mTable, mTable + kChunkClasses, size) - mTable);
    if (cls == kChunkClasses) {
        POOL_PRINT("size[%zu] too large!\n", static_cast<size_t>(size));
        return nullptr;
    }
    PoolLock lock(m_mutex);
    char* chunk = m_pChunkLists[cls];
    if (chunk != nullptr) {
        memcpy(&m_pChunkLists[cls], chunk, sizeof(char*));
    } else {
        chunk = static_cast<char*>(malloc(mTable[cls]));
    }
    if (chunk == nullptr || !m_chunkClasses.Insert(chunk, static_cast<uint32_t>(cls))) {
        free(chunk);
        POOL_PRINT("insufficient memory\n");
        return nullptr;
    }
    size = mTable[cls];
    return chunk;
}

void JQ_CBB_Mempool::JQ_CBB_PutChunk(int size, char* data) {
    if (data == nullptr || size == 0) {
        POOL_PRINT("size == 0 || null == data !!\n");
        return;
    }
    PoolLock lock(m_mutex);
    uint32_t cls{};
    if (!m_chunkClasses.Take(data, cls)) {
        POOL_PRINT("addr %p not found\n", static_cast<void*>(data));
        return;
    }
    memcpy(data, &m_pChunkLists[cls], sizeof(char*));
    m_pChunkLists[cls] = data;
}

unsigned int JQ_CBB_Mempool::GetBlockCount() const {
    PoolLock lock(m_mutex);
    return m_uiBlockCount;
}

unsigned int JQ_CBB_Mempool::GetLargeRecordCount() const {
    PoolLock lock(m_mutex);
    return m_uiLargeRecordCount;
}

unsigned int JQ_CBB_Mempool::GetAddressMapSize() const {
    PoolLock lock(m_mutex);
    return m_addressMap.Size();
}

unsigned int JQ_CBB_Mempool::GetAddressMapCapacity() const {
    PoolLock lock(m_mutex);
    return m_addressMap.Capacity();
}
