// The timer wheel of the common building blocks: 16 slots, no clock of its own. Each call of
// TimerShift is one tick; the OSD business and the hub's scheduler drive it.
//
// Lock order: wheel, then hub, then pool. A timer's call runs under the wheel's lock and may
// publish to the hub; so the wheel refuses a thread that is inside a hub delivery (whose
// subscribers run under the hub's lock), and a subscriber cannot add a timer directly.
//
// What always holds, under m_mutex (recursive: a timer's call runs with it held and may add
// timers; the wheel takes the pool's lock inside its own, never the other way round):
// - Every node in a slot list was made by AddTimer in pool memory and is owned by the wheel;
//   it is in exactly one list. m_uiCurrent AND m_uiMask is the slot the next shift walks.
// - A node in slot s with m_iRounds r runs on the shift that walks s after r more laps.
// - A node leaves the wheel only by being retired: its call released, its memory back in the
//   pool. Nothing of a node is ever given to the general heap's delete.
#ifndef TRUCK_HCTIMEWHEEL_H
#define TRUCK_HCTIMEWHEEL_H

#include <stdint.h>

#include <exception>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

#include "TruckLockCheck.h"
#include "cbb_mempool.h"

// A bound call with an interval in ticks and a number of runs. The wheel reads and writes the
// fields under its lock; a caller that keeps the pointer AddTimer returned may look at them
// only under that lock too (from inside a timer's call), and only while the timer is pending.
class CTimerNode {
public:
    template <class F, class... Args>
    CTimerNode(int interval, int times, F&& memberFunction, Args&&... object)
        : m_iTimes(times),
          m_iInterval(interval),
          m_iRounds(0),
          // One heap allocation holds both the call and its reference count.
          m_func(std::make_shared<std::function<void()>>(
              std::bind(std::forward<F>(memberFunction), std::forward<Args>(object)...))) {}

    int32_t m_iTimes;     // runs still to come
    int32_t m_iInterval;  // ticks between runs
    int32_t m_iRounds;    // whole laps still to wait before the node is due
    std::shared_ptr<std::function<void()>> m_func;
};
static_assert(alignof(CTimerNode) <= JQ_CBB_Mempool::mAlignment, "pool memory suits a timer node");

// Marks the calling thread as inside a hub delivery for as long as it lives; the wheel
// refuses every call that would take its lock on such a thread, so the hub's lock is never
// held while waiting for the wheel's.
class CHubDeliveryScope {
public:
    CHubDeliveryScope() { ++s_iDepth; }
    ~CHubDeliveryScope() { --s_iDepth; }
    CHubDeliveryScope(const CHubDeliveryScope&) = delete;
    CHubDeliveryScope& operator=(const CHubDeliveryScope&) = delete;

    static bool Inside() { return s_iDepth > 0; }

private:
    static thread_local int s_iDepth;
};

class TimeWheel {
public:
    static TimeWheel* GetInstance();

    // The system uses the singleton; a wheel of its own suits a test or a benchmark.
    TimeWheel();
    virtual ~TimeWheel();  // retires the timers still waiting, without running them
    TimeWheel(const TimeWheel&) = delete;
    TimeWheel& operator=(const TimeWheel&) = delete;

    // One tick: runs, on the calling thread, every timer of the slot that falls due. A shift
    // asked for from inside a timer's call is done once the current walk has ended, so a walk
    // never meets a list that a nested walk has changed under it. A timer that throws stays
    // where it is and the walk goes on; the first exception leaves after every due shift.
    // Refused inside a hub delivery.
    void TimerShift();

    // Files a timer that runs `times` times (once when times < 1), first on the
    // (interval + 1)-th shift from now and then every interval + 1 shifts; the interval is
    // taken as unsigned. `memberFunction` and `object` are bound as by std::bind: a member
    // function with its object, or any callable with its arguments. Returns the node, or null
    // when memory for it could not be had or when called inside a hub delivery; the wheel
    // owns the node.
    template <class F, class... Args>
    CTimerNode* AddTimer(int interval, int times, F&& memberFunction, Args&&... object) {
        if (Refused("AddTimer")) {
            return nullptr;
        }
        std::lock_guard<TruckRecursiveMutex> lock(m_mutex);
        void* memory = m_pPool->JQ_CBB_Alloc(sizeof(CTimerNode), false);
        if (memory == nullptr) {
            return nullptr;
        }
        CTimerNode* node = nullptr;
        try {
            node = new (memory)
                CTimerNode(interval, times, std::forward<F>(memberFunction), std::forward<Args>(object)...);
        } catch (const std::bad_alloc&) {
            m_pPool->JQ_CBB_Free(memory);
            return nullptr;
        } catch (...) {
            m_pPool->JQ_CBB_Free(memory);  // a bound argument's copy threw: the caller's to see
            throw;
        }
        if (!FileNew(node)) {
            Retire(node);
            return nullptr;
        }
        return node;
    }

    // For tests and footprint checks; 0 inside a hub delivery.
    uint32_t GetCurrent() const;
    size_t GetPendingCount() const;
    size_t GetSlotPendingCount(uint32_t slot) const;

private:
    typedef std::list<CTimerNode*> Slot;

    static bool Refused(const char* function);  // logs the refusal inside a hub delivery
    uint32_t Place(CTimerNode* node) const;     // counts the laps, gives the slot
    bool FileNew(CTimerNode* node);
    void WalkSlot(uint32_t slot, std::exception_ptr& first);
    void Retire(CTimerNode* node);

    std::vector<Slot> m_slots;
    uint32_t m_uiCurrent;
    mutable TruckRecursiveMutex m_mutex;
    uint32_t m_uiSlotCount;
    uint32_t m_uiMask;
    JQ_CBB_Mempool* m_pPool;
    bool m_bShifting;             // a walk is under way on the thread holding m_mutex
    uint32_t m_uiDeferredShifts;  // shifts asked for from inside a timer's call
};

#endif
