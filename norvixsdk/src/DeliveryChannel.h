// A platform thread that delivers queued records to their users' callbacks, one at a time,
// as the device's services do (storage reports, device signals, CAN records).
//
// What always holds: `mutex` guards the queue, the delivery state and whatever the owning
// service keeps beside them (its monitors). A record runs with no lock held, so its callback
// may call any operation of its service. Once Drop has returned, no record of that user is
// queued or running, unless Drop was called on the channel's own thread (by a callback): then
// there is nothing to wait for but the caller itself. Channels are never destroyed: the
// thread starts with the first record and idles on a condition variable for the rest of the
// process, so nothing has to join it.
//
// `Delivery` has a member `void* user` and a member `void Run()` that makes the call. The
// thread carries the channel's name, so that it is never taken for the thread of whoever
// queued its first record.
#ifndef NORVIX_SRC_DELIVERYCHANNEL_H
#define NORVIX_SRC_DELIVERYCHANNEL_H

#include <sys/prctl.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>

#include "SimClock.h"

namespace nvx {
namespace detail {

template <class Delivery>
class DeliveryChannel {
public:
    // `name`: at most 15 characters, as the kernel keeps them.
    explicit DeliveryChannel(const char* name) : m_name(name) {}

    std::mutex mutex;

    // With the mutex held.
    void Enqueue(Delivery delivery) {
        if (!m_started) {
            std::thread worker = StartThread(m_name, [this] { Loop(); });
            m_threadId = worker.get_id();
            worker.detach();
            m_started = true;
        }
        m_queue.push_back(std::move(delivery));
        NotifyOne(m_work);
    }

    // With the mutex held: the records still queued, for a service that re-addresses them.
    std::deque<Delivery>& Queue() { return m_queue; }

    // With the mutex held in `lock`: drops the user's queued records and waits until none of
    // its records runs.
    void Drop(void* user, std::unique_lock<std::mutex>& lock) {
        for (auto it = m_queue.begin(); it != m_queue.end();) {
            it = it->user == user ? m_queue.erase(it) : it + 1;
        }
        WaitUntilNotDelivering(lock, [&] { return m_deliveringUser != user; });
    }

    // The same for every user.
    void DropAll(std::unique_lock<std::mutex>& lock) {
        m_queue.clear();
        WaitUntilNotDelivering(lock, [] { return false; });
    }

    // Until everything queued has been delivered; false at the deadline. On the channel's own
    // thread only the queue can be looked at.
    bool WaitIdle(std::chrono::steady_clock::time_point deadline) {
        std::unique_lock<std::mutex> lock(mutex);
        if (OnChannelThread()) {
            return m_queue.empty();
        }
        return WaitUntil(
            m_done, lock, deadline, [this] { return m_queue.empty() && !m_delivering; }, m_name);
    }

private:
    bool OnChannelThread() const { return m_started && std::this_thread::get_id() == m_threadId; }

    template <class Other>
    void WaitUntilNotDelivering(std::unique_lock<std::mutex>& lock, Other deliveringOther) {
        if (OnChannelThread()) {
            return;
        }
        WaitMs(
            m_done, lock, kWaitEndless, [&] { return !m_delivering || deliveringOther(); }, m_name);
    }

    void Loop() {
        prctl(PR_SET_NAME, m_name, 0, 0, 0);
        std::unique_lock<std::mutex> lock(mutex);
        for (;;) {
            WaitMs(
                m_work, lock, kWaitEndless, [this] { return !m_queue.empty(); }, m_name);
            Delivery delivery = std::move(m_queue.front());
            m_queue.pop_front();
            m_delivering = true;
            m_deliveringUser = delivery.user;
            lock.unlock();

            delivery.Run();
            delivery = Delivery();  // the record's copy goes before the next wait

            lock.lock();
            m_delivering = false;
            m_deliveringUser = nullptr;
            NotifyAll(m_done);
        }
    }

    const char* const m_name;
    std::condition_variable m_work;  // the queue gained a record
    std::condition_variable m_done;  // a delivery ended
    std::deque<Delivery> m_queue;
    bool m_delivering = false;
    void* m_deliveringUser = nullptr;  // meaningful while delivering
    bool m_started = false;
    std::thread::id m_threadId;
};

}  // namespace detail
}  // namespace nvx

#endif
