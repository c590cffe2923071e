// The in-process message bus: named clients, per-client event queues delivered on the
// waiting thread, a record of everything sent, and the watchdog that clients feed. The
// low-level message calls (MsgSdk.cpp) put their handles on this bus as clients too.
//
// Locks: the bus mutex guards the client set, the record of sent messages, the observer
// and the watchdog table; each client's mutex guards its queue and handlers. Order: bus
// before client. Handlers run with no lock held.
#include <string.h>
#include <sys/prctl.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "Device.h"
#include "JQ_LOG.h"
#include "MsgClientManage.h"
#include "SimClock.h"

struct CMsgClientManage::Impl {
    std::string name;
    size_t depth = 0;
    unsigned int depthAsked = 0;  // as the client was constructed, before the floor below
    std::mutex mutex;
    std::condition_variable arrived;
    struct Event {
        int event;
        std::vector<char> payload;
    };
    std::deque<Event> queue;
    std::map<int, std::map<int, EventHandler>> handlers;  // event -> source id -> handler
    uint64_t dropped = 0;

    bool Wants(int event) {
        auto it = handlers.find(event);
        return it != handlers.end() && !it->second.empty();
    }
    // Called with the bus mutex held. True when the client wants the event.
    bool Enqueue(int event, const char* data, size_t length) {
        std::lock_guard<std::mutex> lock(mutex);
        if (!Wants(event)) {
            return false;
        }
        if (queue.size() >= depth) {
            queue.pop_front();
            ++dropped;
        }
        queue.push_back(Event{event, std::vector<char>(data, data + length)});
        nvx::detail::NotifyOne(arrived);
        return true;
    }
};

namespace nvx {
namespace {

// A client that has never fed is not watched; one that has is reported once per silence.
struct WatchdogEntry {
    std::string name;
    uint64_t lastFeedMs = 0;
    bool warned = false;
    uint64_t silenceMs = 0;  // 0: the bus's time-out
};

// Keeps a long host run from growing the record without bound.
constexpr size_t kMaxSent = 100000;

struct Bus {
    std::mutex mutex;
    std::condition_variable sentChanged;
    std::set<CMsgClientManage::Impl*> clients;
    std::deque<BusMessage> sent;
    uint64_t sentTotal = 0;  // messages ever recorded; sent.front() is number sentTotal - sent.size()
    size_t sentKept = kMaxSent;
    std::function<void(const BusMessage&)> observer;
    std::map<const void*, WatchdogEntry> watchdog;      // by client
    std::map<std::string, uint64_t> feedCounts;         // by client name, kept after the client is gone
    std::map<std::string, uint64_t> feedTicks;          // the tick a client's last feed gave
    std::map<std::string, std::set<int>> waitTimeouts;  // MSGWaitForEvent's time-outs, by client name
    std::condition_variable fed;
    uint64_t watchdogTimeoutMs = 10000;

    std::mutex monitorMutex;  // guards the monitor thread's start and stop only
    std::thread monitor;
    bool monitorStop = false;   // guarded by mutex
    bool monitorEnded = false;  // guarded by mutex
    std::condition_variable monitorWake;
};

Bus& TheBus() {
    static Bus* bus = new Bus;  // never destroyed, see Device.cpp
    return *bus;
}

std::atomic<bool> g_instantWaits{false};

constexpr size_t kDefaultDepth = 1024;

int QueueForClients(Bus& bus, int event, const char* data, size_t length) {
    int queued = 0;
    for (CMsgClientManage::Impl* client : bus.clients) {
        queued += client->Enqueue(event, data, length) ? 1 : 0;
    }
    return queued;
}

void MonitorLoop() {
    prctl(PR_SET_NAME, "nvx-watchdog", 0, 0, 0);
    Bus& bus = TheBus();
    std::unique_lock<std::mutex> lock(bus.mutex);
    while (!bus.monitorStop) {
        detail::WaitMs(
            bus.monitorWake, lock, 200, [&bus] { return bus.monitorStop; }, "watchdog monitor");
        const uint64_t now = detail::ElapsedMs();
        std::vector<std::pair<std::string, uint64_t>> starving;
        for (auto& item : bus.watchdog) {
            WatchdogEntry& entry = item.second;
            const uint64_t silenceMs = entry.silenceMs != 0 ? entry.silenceMs : bus.watchdogTimeoutMs;
            // A feed from before the clock changed hands may lie ahead of it.
            if (!entry.warned && now >= entry.lastFeedMs && now - entry.lastFeedMs > silenceMs) {
                entry.warned = true;
                starving.emplace_back(entry.name, now - entry.lastFeedMs);
            }
        }
        // Log without the bus lock: a log observer may look at the bus.
        lock.unlock();
        for (const auto& item : starving) {
            NVX_LOG(1, "watchdog: client %s has not fed for %llu ms\n", item.first.c_str(),
                    static_cast<unsigned long long>(item.second));
        }
        lock.lock();
    }
    bus.monitorEnded = true;
    detail::NotifyAll(bus.monitorWake);
}

}  // namespace

int InjectBusEvent(int event, const void* data, size_t length) {
    Bus& bus = TheBus();
    std::lock_guard<std::mutex> lock(bus.mutex);
    return QueueForClients(bus, event, static_cast<const char*>(data), data == nullptr ? 0 : length);
}

std::vector<BusMessage> SentMessages() {
    Bus& bus = TheBus();
    std::lock_guard<std::mutex> lock(bus.mutex);
    return std::vector<BusMessage>(bus.sent.begin(), bus.sent.end());
}

void KeepSentMessages(size_t messages) {
    Bus& bus = TheBus();
    std::lock_guard<std::mutex> lock(bus.mutex);
    bus.sentKept = messages;
    while (bus.sent.size() > messages) {
        bus.sent.pop_front();
    }
}

void ClearSentMessages() {
    Bus& bus = TheBus();
    std::lock_guard<std::mutex> lock(bus.mutex);
    bus.sent.clear();
}

bool WaitForSent(const std::function<bool(const BusMessage&)>& match, int timeoutMs) {
    Bus& bus = TheBus();
    std::unique_lock<std::mutex> lock(bus.mutex);
    uint64_t next = bus.sentTotal - bus.sent.size();
    auto found = [&] {
        const uint64_t first = bus.sentTotal - bus.sent.size();
        if (next < first) {
            next = first;
        }
        for (; next < bus.sentTotal; ++next) {
            if (match(bus.sent[next - first])) {
                return true;
            }
        }
        return false;
    };
    return detail::WaitMs(bus.sentChanged, lock, timeoutMs, found, "WaitForSent");
}

void SetSendObserver(std::function<void(const BusMessage&)> observer) {
    Bus& bus = TheBus();
    std::lock_guard<std::mutex> lock(bus.mutex);
    bus.observer = std::move(observer);
}

uint32_t SourceIdOf(const std::string& name) {
    // FNV-1a, kept positive and non-zero so that it fits the int the bus calls take.
    uint32_t hash = 2166136261u;
    for (unsigned char c : name) {
        hash = (hash ^ c) * 16777619u;
    }
    hash &= 0x7fffffffu;
    return hash == 0 ? 1 : hash;
}

int LiveClientCount() {
    Bus& bus = TheBus();
    std::lock_guard<std::mutex> lock(bus.mutex);
    return static_cast<int>(bus.clients.size());
}

bool HasClient(const std::string& name) {
    Bus& bus = TheBus();
    std::lock_guard<std::mutex> lock(bus.mutex);
    for (const CMsgClientManage::Impl* client : bus.clients) {
        if (client->name == name) {
            return true;
        }
    }
    return false;
}

std::set<int> BusWaitTimeouts(const std::string& client) {
    Bus& bus = TheBus();
    std::lock_guard<std::mutex> lock(bus.mutex);
    auto it = bus.waitTimeouts.find(client);
    return it == bus.waitTimeouts.end() ? std::set<int>() : it->second;
}

unsigned int ClientDepthAsked(const std::string& name) {
    Bus& bus = TheBus();
    std::lock_guard<std::mutex> lock(bus.mutex);
    for (const CMsgClientManage::Impl* client : bus.clients) {
        if (client->name == name) {
            return client->depthAsked;
        }
    }
    return 0;
}

void SetBusWaitsInstant(bool instant) {
    g_instantWaits.store(instant);
}

uint64_t WatchdogFeedCount(const std::string& client) {
    Bus& bus = TheBus();
    std::lock_guard<std::mutex> lock(bus.mutex);
    auto it = bus.feedCounts.find(client);
    return it == bus.feedCounts.end() ? 0 : it->second;
}

uint64_t LastWatchdogFeedTick(const std::string& client) {
    Bus& bus = TheBus();
    std::lock_guard<std::mutex> lock(bus.mutex);
    auto it = bus.feedTicks.find(client);
    return it == bus.feedTicks.end() ? 0 : it->second;
}

std::map<std::string, uint64_t> WatchdogFeeds() {
    Bus& bus = TheBus();
    std::lock_guard<std::mutex> lock(bus.mutex);
    return std::map<std::string, uint64_t>(bus.feedCounts.begin(), bus.feedCounts.end());
}

bool WaitForWatchdogFeeds(const std::string& client, uint64_t count, int timeoutMs) {
    Bus& bus = TheBus();
    std::unique_lock<std::mutex> lock(bus.mutex);
    return detail::WaitMs(
        bus.fed, lock, timeoutMs,
        [&] {
            auto it = bus.feedCounts.find(client);
            return it != bus.feedCounts.end() && it->second >= count;
        },
        "WaitForWatchdogFeeds");
}

void SetWatchdogTimeoutMs(uint64_t ms) {
    Bus& bus = TheBus();
    std::lock_guard<std::mutex> lock(bus.mutex);
    bus.watchdogTimeoutMs = ms;
}

namespace detail {

void ResetBus() {
    {
        Bus& bus = TheBus();
        std::lock_guard<std::mutex> lock(bus.mutex);
        bus.sent.clear();
        bus.sentKept = kMaxSent;
        bus.feedCounts.clear();
        bus.feedTicks.clear();
        bus.waitTimeouts.clear();
        bus.watchdogTimeoutMs = 10000;
        g_instantWaits.store(false);
    }
    ResetMsgSdk();
}

void PostBusMessage(const BusMessage& message) {
    Bus& bus = TheBus();
    std::function<void(const BusMessage&)> observer;
    {
        std::lock_guard<std::mutex> lock(bus.mutex);
        if (bus.sentKept > 0) {
            if (bus.sent.size() >= bus.sentKept) {
                bus.sent.pop_front();
            }
            bus.sent.push_back(message);
        }
        ++bus.sentTotal;
        observer = bus.observer;
        QueueForClients(bus, message.event, reinterpret_cast<const char*>(message.payload.data()),
                        message.payload.size());
    }
    NotifyAll(bus.sentChanged);
    if (observer) {
        observer(message);
    }
}

void FeedWatchdog(const void* client, const std::string& name, uint64_t silenceMs) {
    Bus& bus = TheBus();
    {
        std::lock_guard<std::mutex> lock(bus.mutex);
        WatchdogEntry& entry = bus.watchdog[client];
        entry.name = name;
        entry.lastFeedMs = ElapsedMs();
        entry.warned = false;
        entry.silenceMs = silenceMs;
        ++bus.feedCounts[name];
    }
    NotifyAll(bus.fed);
}

void ForgetWatchdog(const void* client) {
    Bus& bus = TheBus();
    std::lock_guard<std::mutex> lock(bus.mutex);
    bus.watchdog.erase(client);
}

void StartWatchdogMonitor() {
    Bus& bus = TheBus();
    std::lock_guard<std::mutex> guard(bus.monitorMutex);
    if (bus.monitor.joinable()) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(bus.mutex);
        bus.monitorStop = false;
        bus.monitorEnded = false;
    }
    bus.monitor = StartThread("watchdog monitor", MonitorLoop);
}

void StopWatchdogMonitor() {
    Bus& bus = TheBus();
    std::lock_guard<std::mutex> guard(bus.monitorMutex);
    if (!bus.monitor.joinable()) {
        return;
    }
    {
        std::unique_lock<std::mutex> lock(bus.mutex);
        bus.monitorStop = true;
        NotifyAll(bus.monitorWake);
        // On the simulated clock the monitor needs a turn to see the stop, and a join would
        // keep this runner's turn; its end is waited for on the clock, the join then is brief.
        if (SimOn()) {
            WaitMs(
                bus.monitorWake, lock, kWaitEndless, [&bus] { return bus.monitorEnded; },
                "StopWatchdogMonitor");
        }
    }
    bus.monitor.join();
}

}  // namespace detail
}  // namespace nvx

CMsgClientManage::CMsgClientManage(const char* name, unsigned int depth, MsgClientCallback /*callback*/)
    : m_impl(new Impl) {
    nvx::detail::CountCall("CMsgClientManage");
    m_impl->name = name != nullptr ? name : "";
    // The system gives every client 30; the stand-in keeps a generous floor so that a burst
    // of injected test events is never lost to a small queue.
    m_impl->depthAsked = depth;
    m_impl->depth = depth > nvx::kDefaultDepth ? depth : nvx::kDefaultDepth;
    nvx::Bus& bus = nvx::TheBus();
    std::lock_guard<std::mutex> lock(bus.mutex);
    bus.clients.insert(m_impl);
}

CMsgClientManage::~CMsgClientManage() {
    nvx::Bus& bus = nvx::TheBus();
    {
        std::lock_guard<std::mutex> lock(bus.mutex);
        bus.clients.erase(m_impl);
        bus.watchdog.erase(m_impl);
    }
    delete m_impl;
}

unsigned int CMsgClientManage::MSGGenerateSourceId(std::string name) {
    return nvx::SourceIdOf(name);
}

int CMsgClientManage::MSGWaitForEvent(int timeoutMs) {
    {
        nvx::Bus& bus = nvx::TheBus();
        std::lock_guard<std::mutex> lock(bus.mutex);
        bus.waitTimeouts[m_impl->name].insert(timeoutMs);
    }
    std::deque<Impl::Event> ready;
    {
        std::unique_lock<std::mutex> lock(m_impl->mutex);
        if (timeoutMs > 0 && !nvx::g_instantWaits.load()) {
            nvx::detail::WaitMs(
                m_impl->arrived, lock, timeoutMs, [this] { return !m_impl->queue.empty(); },
                "MSGWaitForEvent");
        }
        ready.swap(m_impl->queue);
    }
    int delivered = 0;
    for (const Impl::Event& event : ready) {
        std::vector<EventHandler> handlers;
        {
            std::lock_guard<std::mutex> lock(m_impl->mutex);
            auto it = m_impl->handlers.find(event.event);
            if (it == m_impl->handlers.end()) {
                continue;
            }
            for (const auto& entry : it->second) {
                handlers.push_back(entry.second);
            }
        }
        // An empty payload still gets a valid pointer; a non-empty one is exactly its length,
        // so a handler that reads past it is caught by the sanitizers.
        const char* data = event.payload.empty() ? "" : event.payload.data();
        for (const EventHandler& handler : handlers) {
            handler(data, static_cast<int>(event.payload.size()));
        }
        ++delivered;
    }
    return delivered;
}

int CMsgClientManage::MSGFeedWatchDog(unsigned long long nowMs) {
    {
        nvx::Bus& bus = nvx::TheBus();
        std::lock_guard<std::mutex> lock(bus.mutex);
        bus.feedTicks[m_impl->name] = nowMs;
    }
    nvx::detail::FeedWatchdog(m_impl, m_impl->name, 0);
    return 0;
}

int CMsgClientManage::MSGSendMessage(int destination, int eventId, int flag, const char* data, int length,
                                     int sourceId) {
    nvx::detail::CountCall("MSGSendMessage");
    if (length < 0 || (data == nullptr && length > 0)) {
        return -1;
    }
    nvx::BusMessage message;
    message.tMs = nvx::detail::ElapsedMs();
    message.client = m_impl->name;
    message.source = static_cast<uint32_t>(sourceId);
    message.event = eventId;
    message.payload.assign(reinterpret_cast<const uint8_t*>(data),
                           reinterpret_cast<const uint8_t*>(data) + length);
    message.flag = flag;
    message.destination = destination;
    nvx::detail::PostBusMessage(message);
    return 0;
}

int CMsgClientManage::RegisterHandler(int sourceId, int event, EventHandler handler) {
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->handlers[event][sourceId] = std::move(handler);
    return 0;
}

int CMsgClientManage::MSGEventUnRegister(int sourceId, int event) {
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    auto it = m_impl->handlers.find(event);
    if (it == m_impl->handlers.end() || it->second.erase(sourceId) == 0) {
        return -1;
    }
    if (it->second.empty()) {
        m_impl->handlers.erase(it);
    }
    return 0;
}
