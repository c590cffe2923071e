// The timer wheel. Its invariants and its lock are described at the top of HCTimeWheel.h.
#include "HCTimeWheel.h"

#include <iterator>

#include "JQ_LOG.h"

namespace {

const uint32_t kSlotCount = 16;
const unsigned int kPoolBlockSize = 4096;

// Marks a walk as under way for as long as it lasts. However the walk ends, no shift asked
// for during it is left over for the next TimerShift to do on top of its own.
class ShiftingScope {
public:
    ShiftingScope(bool& shifting, uint32_t& deferred) : m_bShifting(shifting), m_uiDeferred(deferred) {
        m_bShifting = true;
    }
    ~ShiftingScope() {
        m_bShifting = false;
        m_uiDeferred = 0;
    }
    ShiftingScope(const ShiftingScope&) = delete;
    ShiftingScope& operator=(const ShiftingScope&) = delete;

private:
    bool& m_bShifting;
    uint32_t& m_uiDeferred;
};

}  // namespace

thread_local int CHubDeliveryScope::s_iDepth = 0;

bool TimeWheel::Refused(const char* function) {
    if (!CHubDeliveryScope::Inside()) {
        return false;
    }
    JQ_LOG_Output("TRUCK", 0, TRUCK_LOG_SOURCE, function, __LINE__, "%s refused inside a hub delivery\n",
                  function);
    return true;
}

TimeWheel* TimeWheel::GetInstance() {
    static TimeWheel s_wheel;
    return &s_wheel;
}

// The pool is fetched here, before the wheel is complete, so that at process exit the pool
// (finished first) is destroyed after the wheel, which still gives its nodes back to it.
TimeWheel::TimeWheel()
    : m_slots(kSlotCount),
      m_uiCurrent(0),
      m_uiSlotCount(kSlotCount),
      m_uiMask(kSlotCount - 1),
      m_pPool(JQ_CBB_Mempool::GetInstance(kPoolBlockSize)),
      m_bShifting(false),
      m_uiDeferredShifts(0) {}

TimeWheel::~TimeWheel() {
    std::lock_guard<TruckRecursiveMutex> lock(m_mutex);
    for (Slot& slot : m_slots) {
        for (CTimerNode* node : slot) {
            Retire(node);
        }
        slot.clear();
    }
}

uint32_t TimeWheel::Place(CTimerNode* node) const {
    TRUCK_CHECK(m_mutex.HeldByThisThread());
    uint32_t ticks = static_cast<uint32_t>(node->m_iInterval);
    node->m_iRounds += static_cast<int32_t>(ticks / m_uiSlotCount);
    ticks %= m_uiSlotCount;
    return (ticks + m_uiCurrent) & m_uiMask;
}

bool TimeWheel::FileNew(CTimerNode* node) {
    try {
        m_slots[Place(node)].push_back(node);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void TimeWheel::Retire(CTimerNode* node) {
    TRUCK_CHECK(m_mutex.HeldByThisThread());
    node->~CTimerNode();
    m_pPool->JQ_CBB_Free(node);
}

void TimeWheel::TimerShift() {
    if (Refused("TimerShift")) {
        return;
    }
    std::lock_guard<TruckRecursiveMutex> lock(m_mutex);
    if (m_bShifting) {
        ++m_uiDeferredShifts;
        return;
    }
    ShiftingScope scope(m_bShifting, m_uiDeferredShifts);
    std::exception_ptr first;
    for (;;) {
        const uint32_t slot = m_uiCurrent & m_uiMask;
        ++m_uiCurrent;  // before the walk: a node re-filed now counts from the next shift
        WalkSlot(slot, first);
        if (m_uiDeferredShifts == 0) {
            break;
        }
        --m_uiDeferredShifts;
    }
    // One timer's failure is its caller's to see, but never costs the other timers their run.
    if (first) {
        std::rethrow_exception(first);
    }
}

void TimeWheel::WalkSlot(uint32_t slot, std::exception_ptr& first) {
    TRUCK_CHECK(m_mutex.HeldByThisThread());
    Slot& list = m_slots[slot];
    if (list.empty()) {
        return;
    }
    // What joins this slot during the walk (a periodic timer whose interval leaves 15 mod 16,
    // or a timer a call adds with such an interval) is due a lap later, not again now: the
    // walk ends with the entry that was last when it began. Entries are only ever appended
    // while a walk runs, so that entry stays ahead of them.
    const Slot::iterator last = std::prev(list.end());
    Slot::iterator it = list.begin();
    for (bool more = true; more;) {
        more = it != last;
        CTimerNode* node = *it;
        if (node->m_iRounds > 0) {
            --node->m_iRounds;
            ++it;
            continue;
        }
        const Slot::iterator next = std::next(it);
        try {
            if (!node->m_func) {
                throw std::bad_function_call();
            }
            (*node->m_func)();
        } catch (...) {
            // The node stays where it is, due again a lap later; later failures of the same
            // shift are dropped in favour of the first.
            if (!first) {
                first = std::current_exception();
            }
            it = next;
            continue;
        }
        if (node->m_iTimes > 1) {
            --node->m_iTimes;
            Slot& target = m_slots[Place(node)];
            target.splice(target.end(), list, it);  // moves the cell: no heap call
        } else {
            list.erase(it);
            Retire(node);
        }
        it = next;
    }
}

uint32_t TimeWheel::GetCurrent() const {
    if (Refused("GetCurrent")) {
        return 0;
    }
    std::lock_guard<TruckRecursiveMutex> lock(m_mutex);
    return m_uiCurrent;
}

size_t TimeWheel::GetPendingCount() const {
    if (Refused("GetPendingCount")) {
        return 0;
    }
    std::lock_guard<TruckRecursiveMutex> lock(m_mutex);
    size_t count = 0;
    for (const Slot& slot : m_slots) {
        count += slot.size();
    }
    return count;
}

size_t TimeWheel::GetSlotPendingCount(uint32_t slot) const {
    if (Refused("GetSlotPendingCount")) {
        return 0;
    }
    std::lock_guard<TruckRecursiveMutex> lock(m_mutex);
    return m_slots[slot & m_uiMask].size();
}
