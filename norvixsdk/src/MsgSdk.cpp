// The low-level message service on the simulated bus, and the wall clock that gettimeofday
// answers in this process.
//
// A handle owns a CMsgClientManage named kMsgHandleClient, so it queues and delivers exactly
// as the business clients do: on the thread that waits, at once when the control says so.
// Its registrations live as long as the handle, because the client keeps their addresses and
// may be about to call one on the waiting thread while another thread unregisters it.
// Handles are reached through a table of shared pointers: a stale or foreign handle is
// refused, and an Uninitialize on one thread never frees a handle another thread is waiting
// on.
//
// Locks: the table's mutex is held only to look a handle up, never with another; a handle's
// mutex, then (inside the client) the client's own. No lock of this file is held while a
// callback runs.
#include "JQ_SDK_MSG.h"

#include <stdint.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>

#include "Device.h"
#include "MsgClientManage.h"

namespace nvx {
namespace {

// The registrations of a handle all use one source id: the client keeps one per event.
constexpr int kRegistrationSource = 1;
// The hub beats every 16 s; a handle is reported once two beats in a row are missing.
constexpr uint64_t kHeartbeatSilenceMs = 40000;

struct MsgHandle;

struct Registration {
    MsgHandle* owner;
    int event;
    JQ_SDK_MSG_Callback callback = nullptr;  // null while unregistered; guarded by owner->mutex
    void* user = nullptr;

    void OnEvent(const char* data, int length);
};

struct MsgHandle {
    explicit MsgHandle(unsigned int depth) : client(kMsgHandleClient, depth, nullptr) {}
    ~MsgHandle() { detail::ForgetWatchdog(this); }
    MsgHandle(const MsgHandle&) = delete;
    MsgHandle& operator=(const MsgHandle&) = delete;

    std::mutex mutex;
    std::map<int, std::unique_ptr<Registration>> registrations;
    // Declared last, so destroyed first: off the bus before the registrations it points at go.
    CMsgClientManage client;
};

void Registration::OnEvent(const char* data, int length) {
    JQ_SDK_MSG_Callback call = nullptr;
    void* value = nullptr;
    {
        std::lock_guard<std::mutex> lock(owner->mutex);
        call = callback;
        value = user;
    }
    if (call != nullptr) {
        call(data, length, value);
    }
}

struct HandleTable {
    std::mutex mutex;
    std::map<const void*, std::shared_ptr<MsgHandle>> live;
};

HandleTable& Handles() {
    static HandleTable* table = new HandleTable;  // never destroyed, see Device.cpp
    return *table;
}

std::atomic<bool> g_msgInitFails{false};

std::shared_ptr<MsgHandle> FindHandle(JQ_MSG_HANDLE handle) {
    HandleTable& table = Handles();
    std::lock_guard<std::mutex> lock(table.mutex);
    auto it = table.live.find(handle);
    return it == table.live.end() ? nullptr : it->second;
}

int Post(const char* operation, JQ_MSG_HANDLE handle, int session, int event, int flag, bool response,
         const char* data, int length, int source) {
    detail::CountCall(operation);
    if (length < 0 || (data == nullptr && length > 0) || !FindHandle(handle)) {
        return -1;
    }
    BusMessage message;
    message.tMs = detail::ElapsedMs();
    message.client = kMsgHandleClient;
    message.source = static_cast<uint32_t>(source);
    message.event = event;
    message.payload.assign(reinterpret_cast<const uint8_t*>(data),
                           reinterpret_cast<const uint8_t*>(data) + length);
    message.session = session;
    message.flag = flag;
    message.response = response;
    detail::PostBusMessage(message);
    return 0;
}

// ---- the wall clock ----
//
// The plug-in's timestamp clock samples gettimeofday, as it does on the device. This library
// defines gettimeofday, and the dynamic linker binds the process's calls to the first
// definition in load order: the executable's dependencies come before libc, so the plug-in
// (and the sanitizer runtimes, whose own gettimeofday forwards to the next definition) reach
// this one. It answers the device clock, so that SetWallClock moves what the plug-in reads,
// or a held value for the tests that need exact steps. The real clock is read with
// clock_gettime, never through gettimeofday, so nothing here calls itself. On the device the
// vendor's SDK defines no such symbol and the plug-in reads the real clock unchanged.

std::atomic<bool> g_wallHeld{false};
std::atomic<int64_t> g_heldMicros{0};

int64_t DeviceMicros() {
    if (g_wallHeld.load()) {
        return g_heldMicros.load();
    }
    return detail::DeviceMicros();
}

}  // namespace

void SetMsgInitFails(bool fails) {
    g_msgInitFails.store(fails);
}

void HoldWallClockMicros(int64_t micros) {
    g_heldMicros.store(micros);
    g_wallHeld.store(true);
}

void ReleaseWallClock() {
    g_wallHeld.store(false);
}

namespace detail {
void ResetMsgSdk() {
    g_msgInitFails.store(false);
    g_wallHeld.store(false);
}
}  // namespace detail

}  // namespace nvx

extern "C" int gettimeofday(struct timeval* __restrict tv, void* __restrict tz) noexcept {
    const int64_t micros = nvx::DeviceMicros();
    // libc declares tv non-null, so the compiler would drop a plain test of it; the kernel
    // takes a null tv all the same, and so does this.
    struct timeval* out = tv;
    __asm__("" : "+r"(out));
    if (out != nullptr) {
        int64_t seconds = micros / 1000000;
        int64_t rest = micros % 1000000;
        if (rest < 0) {
            rest += 1000000;
            --seconds;
        }
        out->tv_sec = static_cast<time_t>(seconds);
        out->tv_usec = static_cast<suseconds_t>(rest);
    }
    if (tz != nullptr) {
        // No zone: the device keeps local time on a zone-free scale.
        memset(tz, 0, sizeof(struct timezone));
    }
    return 0;
}

JQ_MSG_HANDLE JQ_SDK_MSG_Initialize(unsigned int depth, int mode) {
    nvx::detail::CountCall("JQ_SDK_MSG_Initialize");
    if (nvx::g_msgInitFails.load() || mode != 1) {
        return nullptr;
    }
    auto handle = std::make_shared<nvx::MsgHandle>(depth);
    nvx::HandleTable& table = nvx::Handles();
    std::lock_guard<std::mutex> lock(table.mutex);
    table.live[handle.get()] = handle;
    return handle.get();
}

int JQ_SDK_MSG_Uninitialize(JQ_MSG_HANDLE handle) {
    nvx::detail::CountCall("JQ_SDK_MSG_Uninitialize");
    std::shared_ptr<nvx::MsgHandle> last;
    {
        nvx::HandleTable& table = nvx::Handles();
        std::lock_guard<std::mutex> lock(table.mutex);
        auto it = table.live.find(handle);
        if (it == table.live.end()) {
            return -1;
        }
        last = std::move(it->second);
        table.live.erase(it);
    }
    // Destroyed here unless a call on another thread still holds it; then when that returns.
    last.reset();
    return 0;
}

int JQ_SDK_MSG_Register(JQ_MSG_HANDLE handle, int event, JQ_SDK_MSG_Callback callback, void* user) {
    nvx::detail::CountCall("JQ_SDK_MSG_Register");
    std::shared_ptr<nvx::MsgHandle> h = nvx::FindHandle(handle);
    if (!h || callback == nullptr) {
        return -1;
    }
    std::lock_guard<std::mutex> lock(h->mutex);
    std::unique_ptr<nvx::Registration>& slot = h->registrations[event];
    if (!slot) {
        slot.reset(new nvx::Registration{h.get(), event});
    }
    slot->callback = callback;
    slot->user = user;
    return h->client.MSGEventRegister(nvx::kRegistrationSource, event, slot.get(),
                                      &nvx::Registration::OnEvent);
}

int JQ_SDK_MSG_Unregister(JQ_MSG_HANDLE handle, int event) {
    nvx::detail::CountCall("JQ_SDK_MSG_Unregister");
    std::shared_ptr<nvx::MsgHandle> h = nvx::FindHandle(handle);
    if (!h) {
        return -1;
    }
    std::lock_guard<std::mutex> lock(h->mutex);
    auto it = h->registrations.find(event);
    if (it == h->registrations.end() || it->second->callback == nullptr) {
        return -1;
    }
    it->second->callback = nullptr;
    it->second->user = nullptr;
    return h->client.MSGEventUnRegister(nvx::kRegistrationSource, event);
}

int JQ_SDK_MSG_Send(JQ_MSG_HANDLE handle, int session, int event, int response, const char* data, int length,
                    int source) {
    return nvx::Post("JQ_SDK_MSG_Send", handle, session, event, response, false, data, length, source);
}

int JQ_SDK_MSG_Response(JQ_MSG_HANDLE handle, int session, int event, const char* data, int length,
                        int source) {
    return nvx::Post("JQ_SDK_MSG_Response", handle, session, event, 0, true, data, length, source);
}

int JQ_SDK_MSG_WaitForEvent(JQ_MSG_HANDLE handle, int timeoutMs) {
    nvx::detail::CountCall("JQ_SDK_MSG_WaitForEvent");
    std::shared_ptr<nvx::MsgHandle> h = nvx::FindHandle(handle);
    if (!h) {
        return -1;
    }
    return h->client.MSGWaitForEvent(timeoutMs);
}

int JQ_SDK_MSG_SendHeartbeat(JQ_MSG_HANDLE handle) {
    nvx::detail::CountCall("JQ_SDK_MSG_SendHeartbeat");
    std::shared_ptr<nvx::MsgHandle> h = nvx::FindHandle(handle);
    if (!h) {
        return -1;
    }
    nvx::detail::FeedWatchdog(h.get(), nvx::kMsgHandleClient, nvx::kHeartbeatSilenceMs);
    return 0;
}
