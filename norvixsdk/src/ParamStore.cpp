// The device's global parameter store: one JSON document of groups,
// {"PARAMETER": {"MDVR": {group: value, ...}}}, loaded when the global SDK is initialised and
// saved back to the device path whenever a write changes it. Replies to requests and change
// notifications leave on a parameter thread of the store's own, one at a time, in the order
// they were queued.
//
// What always holds, under ParamStore::mutex:
//   - document.PARAMETER.MDVR is an object;
//   - pending holds the deliveries not yet started; `delivering` is true exactly while the
//     parameter thread runs a callback, which it does with no lock held;
//   - a delivery dropped from pending (deinitialise, reset) never runs, and once the drop
//     has returned no callback is running either (unless the drop came from a callback).
// fileMutex keeps saves in order; it is taken before mutex, never while holding it.
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <condition_variable>
#include <deque>
#include <exception>
#include <fstream>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include <json/json.h>

#include "Device.h"
#include "JQ_SDK_Global.h"
#include "SimClock.h"

namespace nvx {
namespace {

const char kDefaultStoreDevicePath[] = "/mnt/tmpfs/global.bsn";
// A store file holds a few kilobytes; a file far larger is not one and is not read whole.
const size_t kMaxStoreFileBytes = 4 * 1024 * 1024;
// Keeps a long host run from growing the record of requests without bound.
const size_t kMaxRecorded = 10000;

const int kBadArgument = -1;
const int kBadDocument = -2;
const int kNoParamThread = -3;
const int kNotServing = -4;

Json::Value EmptyDocument() {
    Json::Value document;
    document["PARAMETER"]["MDVR"] = Json::Value(Json::objectValue);
    return document;
}

struct Delivery {
    JQ_SDK_ParamCallback callback;
    void* user;
    void* context;
    std::string text;
};

struct Listener {
    JQ_SDK_ParamCallback callback;
    void* user;
    void* context;
    std::set<std::string> groups;
};

struct ParamStore {
    std::mutex mutex;
    std::condition_variable work;  // pending gained an entry
    std::condition_variable idle;  // a delivery ended, or pending was emptied
    Json::Value document = EmptyDocument();
    std::string source;    // the control's file to load from; empty: the device path
    std::string savePath;  // resolved at initialisation; empty: nothing is saved
    std::deque<std::string> getRequests;
    std::deque<std::string> listenRequests;
    std::vector<Listener> listeners;
    std::deque<Delivery> pending;
    bool delivering = false;
    // Between initialise and deinitialise. Outside it requests are refused, so that a service
    // thread that overran its stop cannot arm a delivery into an object about to be freed.
    bool serving = false;
    bool workerStarted = false;
    std::thread::id worker;
    std::function<void(const std::string&)> observer;

    std::mutex fileMutex;
};

ParamStore& Store() {
    // Never destroyed, and its thread never ends: a late notification may still be handed
    // out while the process exits.
    static ParamStore* store = new ParamStore;
    return *store;
}

// ---- documents ----

bool ParseJson(const char* text, size_t length, Json::Value& root) {
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    builder["failIfExtra"] = true;
    // Parameter documents nest a few levels; the reader recurses once per level on the
    // caller's thread, which may be a business thread with a small stack.
    builder["stackLimit"] = 100;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    try {
        return reader->parse(text, text + length, &root, &errors);
    } catch (const std::exception&) {
        return false;  // nesting deeper than the reader's stack limit
    }
}

std::string CompactText(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    return Json::writeString(builder, value);
}

std::string FileText(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    builder["emitUTF8"] = true;
    return Json::writeString(builder, value) + "\n";
}

const Json::Value* Member(const Json::Value& value, const std::string& key) {
    if (!value.isObject()) {
        return nullptr;
    }
    return value.find(key.data(), key.data() + key.size());
}

// The group map of a document {"PARAMETER": {"MDVR": {...}}}, null for any other shape.
const Json::Value* GroupsOf(const Json::Value& document) {
    const Json::Value* parameter = Member(document, "PARAMETER");
    const Json::Value* groups = parameter != nullptr ? Member(*parameter, "MDVR") : nullptr;
    return groups != nullptr && groups->isObject() ? groups : nullptr;
}

// A write replaces leaves; objects take the written members and arrays the written
// elements, so a layout that names a few members of a group leaves the others in place.
void MergeInto(Json::Value& stored, const Json::Value& written) {
    if (written.isObject() && stored.isObject()) {
        for (const std::string& name : written.getMemberNames()) {
            MergeInto(stored[name], written[name]);
        }
        return;
    }
    if (written.isArray() && stored.isArray()) {
        for (Json::ArrayIndex i = 0; i < written.size(); ++i) {
            MergeInto(stored[i], written[i]);
        }
        return;
    }
    stored = written;
}

// ---- the parameter thread ----

void DeliveryLoop() {
    prctl(PR_SET_NAME, "nvx-param", 0, 0, 0);
    ParamStore& s = Store();
    std::unique_lock<std::mutex> lock(s.mutex);
    for (;;) {
        detail::WaitMs(
            s.work, lock, detail::kWaitEndless, [&s] { return !s.pending.empty(); }, "parameter thread");
        Delivery delivery = std::move(s.pending.front());
        s.pending.pop_front();
        s.delivering = true;
        lock.unlock();
        bool threw = false;
        try {
            delivery.callback(delivery.text.c_str(), static_cast<int>(delivery.text.size()), delivery.user,
                              delivery.context);
        } catch (...) {
            threw = true;  // a platform thread outlives whatever a caller's callback does
        }
        if (threw) {
            NVX_LOG(0, "parameter callback threw\n");
        }
        lock.lock();
        s.delivering = false;
        detail::NotifyAll(s.idle);
    }
}

// Called with the mutex held.
bool Enqueue(ParamStore& s, Delivery delivery) {
    if (!s.workerStarted) {
        try {
            std::thread worker = detail::StartThread("parameter thread", DeliveryLoop);
            s.worker = worker.get_id();
            worker.detach();
            s.workerStarted = true;
        } catch (const std::exception&) {
            return false;
        }
    }
    s.pending.push_back(std::move(delivery));
    detail::NotifyOne(s.work);
    return true;
}

// Drops listeners and undelivered texts and waits out a running callback. Called with the
// lock held through `lock`.
void DropDeliveries(ParamStore& s, std::unique_lock<std::mutex>& lock) {
    s.listeners.clear();
    s.pending.clear();
    detail::NotifyAll(s.idle);
    // A callback that tears the SDK down must not wait for itself.
    if (s.workerStarted && std::this_thread::get_id() == s.worker) {
        return;
    }
    detail::WaitMs(
        s.idle, lock, detail::kWaitEndless, [&s] { return !s.delivering; }, "parameter store stop");
}

// ---- the store file ----

// Reads a whole store document; on failure says why in `problem`.
bool ReadStoreFile(const std::string& path, Json::Value& document, const char*& problem) {
    std::ifstream in(path, std::ios::binary);
    if (!in.is_open()) {
        problem = "cannot be opened";
        return false;
    }
    std::string text;
    char chunk[4096];
    while (text.size() <= kMaxStoreFileBytes && in.read(chunk, sizeof(chunk)).gcount() > 0) {
        text.append(chunk, static_cast<size_t>(in.gcount()));
    }
    if (text.size() > kMaxStoreFileBytes) {
        problem = "is too large";
        return false;
    }
    Json::Value parsed;
    if (!ParseJson(text.data(), text.size(), parsed)) {
        problem = "is not JSON";
        return false;
    }
    if (GroupsOf(parsed) == nullptr) {
        problem = "has no PARAMETER.MDVR object";
        return false;
    }
    document.swap(parsed);
    return true;
}

bool WriteAll(int fd, const std::string& text) {
    errno = 0;
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

// A reader of the store file sees either the old or the new file, never a part of one: the
// text goes to a temporary file in the same folder, which then takes the name. 0 or errno.
int WriteFileAtomically(const std::string& path, const std::string& text) {
    const size_t slash = path.rfind('/');
    if (slash != std::string::npos && slash > 0 && !MakeFolders(path.substr(0, slash), 0755)) {
        return errno;
    }
    std::string name = path + ".XXXXXX";
    const int fd = mkostemp(&name[0], O_CLOEXEC);
    if (fd < 0) {
        return errno;
    }
    fchmod(fd, 0644);
    int error = 0;
    if (!WriteAll(fd, text) || fsync(fd) != 0) {
        error = errno != 0 ? errno : EIO;  // a write that stops short sets no errno
    }
    if (close(fd) != 0 && error == 0) {
        error = errno;
    }
    if (error == 0 && rename(name.c_str(), path.c_str()) != 0) {
        error = errno;
    }
    if (error != 0) {
        unlink(name.c_str());
    }
    return error;
}

void SaveStore() {
    ParamStore& s = Store();
    std::string path;
    int error = 0;
    {
        std::lock_guard<std::mutex> fileLock(s.fileMutex);
        std::string text;
        {
            std::lock_guard<std::mutex> lock(s.mutex);
            path = s.savePath;
            text = FileText(s.document);
        }
        if (path.empty()) {
            return;  // not initialised since the last reset: no device path to save to
        }
        error = WriteFileAtomically(path, text);
    }
    if (error != 0) {
        NVX_LOG(0, "parameter store %s cannot be saved: %s\n", path.c_str(), strerror(error));
    }
}

// ---- requests ----

int QueueReply(const char* text, int length, JQ_SDK_ParamCallback callback, void* user, void* context) {
    Json::Value reply;
    if (!ParseJson(text, static_cast<size_t>(length), reply) || GroupsOf(reply) == nullptr) {
        return kBadDocument;
    }
    ParamStore& s = Store();
    std::lock_guard<std::mutex> lock(s.mutex);
    Json::Value& wanted = reply["PARAMETER"]["MDVR"];
    const Json::Value& stored = s.document["PARAMETER"]["MDVR"];
    for (const std::string& name : wanted.getMemberNames()) {
        const Json::Value* value = Member(stored, name);
        if (value != nullptr && wanted[name].isString() && wanted[name].asString() == "?") {
            wanted[name] = *value;
        }
    }
    // Filled and queued under one lock, so that no later change is delivered before it.
    if (!Enqueue(s, Delivery{callback, user, context, CompactText(reply)})) {
        return kNoParamThread;
    }
    return 0;
}

int AddListener(const char* text, int length, JQ_SDK_ParamCallback callback, void* user, void* context) {
    Json::Value map;
    if (!ParseJson(text, static_cast<size_t>(length), map) || !map.isObject() || map.empty()) {
        return kBadDocument;
    }
    const std::vector<std::string> names = map.getMemberNames();
    ParamStore& s = Store();
    std::lock_guard<std::mutex> lock(s.mutex);
    // A second watch by the same caller widens its first, rather than doubling each report.
    for (Listener& listener : s.listeners) {
        if (listener.callback == callback && listener.user == user && listener.context == context) {
            listener.groups.insert(names.begin(), names.end());
            return 0;
        }
    }
    s.listeners.push_back(
        Listener{callback, user, context, std::set<std::string>(names.begin(), names.end())});
    return 0;
}

// Minutes east of UTC in "TIMEP"."TIMEZ" of the store's groups, read as the device reads it
// (leading decimal digits, 0 for none); `present` false when there is no such text. Bounded
// to a day each way, so that a wild text cannot throw the clock years off.
int ZoneMinutes(const Json::Value& groups, bool& present) {
    const Json::Value* timep = Member(groups, "TIMEP");
    const Json::Value* zone = timep != nullptr ? Member(*timep, "TIMEZ") : nullptr;
    present = zone != nullptr && zone->isString();
    if (!present) {
        return 0;
    }
    const long minutes = strtol(zone->asCString(), nullptr, 10);
    return static_cast<int>(minutes < -1440 ? -1440 : minutes > 1440 ? 1440 : minutes);
}

// Merges a written document into the store and queues the notifications; true when a group
// changed. `lost` counts notifications that found no parameter thread. Called with the mutex
// held.
bool MergeAndNotify(ParamStore& s, const Json::Value& written, int& lost) {
    Json::Value& stored = s.document["PARAMETER"]["MDVR"];
    bool zoneBefore = false;
    const int minutesBefore = ZoneMinutes(stored, zoneBefore);
    std::set<std::string> changed;
    for (const std::string& name : written.getMemberNames()) {
        const Json::Value* old = Member(stored, name);
        const Json::Value before = old != nullptr ? *old : Json::Value();
        MergeInto(stored[name], written[name]);
        if (stored[name] != before) {
            changed.insert(name);
        }
    }
    bool zoneAfter = false;
    const int minutesAfter = ZoneMinutes(stored, zoneAfter);
    // The clock moves before anyone is told of the new zone, as on the device, where the
    // date-time service has applied it by the time the notification arrives.
    if (zoneBefore && zoneAfter && minutesAfter != minutesBefore && detail::LocalTimeFollowsZone()) {
        detail::ShiftWallClock(static_cast<int64_t>(minutesAfter - minutesBefore) * 60);
    }
    for (const Listener& listener : s.listeners) {
        Json::Value note;
        for (const std::string& name : changed) {
            if (listener.groups.count(name) != 0) {
                note["PARAMETER"]["MDVR"][name] = stored[name];
            }
        }
        if (!note.isNull() &&
            !Enqueue(s, Delivery{listener.callback, listener.user, listener.context, CompactText(note)})) {
            ++lost;
        }
    }
    return !changed.empty();
}

int ApplyDocument(const char* text, int length) {
    Json::Value document;
    if (!ParseJson(text, static_cast<size_t>(length), document)) {
        return kBadDocument;
    }
    const Json::Value* written = GroupsOf(document);
    if (written == nullptr) {
        return kBadDocument;
    }
    ParamStore& s = Store();
    std::function<void(const std::string&)> observer;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        observer = s.observer;
    }
    // The write is observed before anything it causes, so that a record of the device's
    // traffic shows the cause first.
    if (observer) {
        observer(std::string(text, static_cast<size_t>(length)));
    }
    bool changed = false;
    int lost = 0;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        changed = MergeAndNotify(s, *written, lost);
    }
    if (lost != 0) {
        NVX_LOG(0, "%d parameter notification(s) lost: no parameter thread\n", lost);
    }
    if (changed) {
        SaveStore();
    }
    return 0;
}

bool Serving() {
    ParamStore& s = Store();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.serving;
}

void Record(std::deque<std::string> ParamStore::*requests, const char* text, int length) {
    ParamStore& s = Store();
    std::lock_guard<std::mutex> lock(s.mutex);
    std::deque<std::string>& record = s.*requests;
    if (record.size() >= kMaxRecorded) {
        record.pop_front();
    }
    record.emplace_back(text, static_cast<size_t>(length));
}

}  // namespace

void SetParamStoreSource(const std::string& file) {
    ParamStore& s = Store();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.source = file;
}

std::string ParamStoreText() {
    ParamStore& s = Store();
    std::lock_guard<std::mutex> lock(s.mutex);
    return CompactText(s.document);
}

std::vector<std::string> ParamGetRequests() {
    ParamStore& s = Store();
    std::lock_guard<std::mutex> lock(s.mutex);
    return std::vector<std::string>(s.getRequests.begin(), s.getRequests.end());
}

std::vector<std::string> ParamListenRequests() {
    ParamStore& s = Store();
    std::lock_guard<std::mutex> lock(s.mutex);
    return std::vector<std::string>(s.listenRequests.begin(), s.listenRequests.end());
}

void SetParamWriteObserver(std::function<void(const std::string& text)> observer) {
    ParamStore& s = Store();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.observer.swap(observer);
}

int SetParameterDocument(const std::string& text) {
    try {
        return ApplyDocument(text.data(), static_cast<int>(text.size())) == 0 ? 0 : -1;
    } catch (const std::exception&) {
        return -1;
    }
}

bool WaitForParamIdle(int timeoutMs) {
    ParamStore& s = Store();
    std::unique_lock<std::mutex> lock(s.mutex);
    return detail::WaitMs(
        s.idle, lock, timeoutMs, [&s] { return s.pending.empty() && !s.delivering; }, "WaitForParamIdle");
}

namespace detail {

void LoadParamStore(const char* devicePath) {
    const char* path = devicePath != nullptr ? devicePath : kDefaultStoreDevicePath;
    ParamStore& s = Store();
    std::string source;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        source = s.source;
    }
    const std::string savePath = ResolveDevicePath(path);
    const std::string file = source.empty() ? savePath : source;
    Json::Value loaded;
    const char* problem = nullptr;
    bool read = false;
    try {
        read = ReadStoreFile(file, loaded, problem);
    } catch (const std::exception&) {
        problem = "cannot be read";
    }
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        s.document = read ? loaded : EmptyDocument();
        s.savePath = savePath;
        s.serving = true;
    }
    if (!read) {
        NVX_LOG(1, "parameter store %s %s, the store starts empty\n", file.c_str(), problem);
    }
}

void StopParamStore() {
    ParamStore& s = Store();
    std::unique_lock<std::mutex> lock(s.mutex);
    s.serving = false;
    DropDeliveries(s, lock);
}

void ResetParamStore() {
    ParamStore& s = Store();
    std::function<void(const std::string&)> observer;
    std::unique_lock<std::mutex> lock(s.mutex);
    DropDeliveries(s, lock);
    s.document = EmptyDocument();
    s.serving = false;
    s.source.clear();
    s.savePath.clear();
    s.getRequests.clear();
    s.listenRequests.clear();
    observer.swap(s.observer);  // released after the lock, whatever it holds
    lock.unlock();
}

}  // namespace detail
}  // namespace nvx

namespace nvx {
namespace {

// What a fetch and a watch share: the text is recorded whatever happens to it, then the
// request is taken only with a callback and while the store serves.
typedef int (*TakeRequest)(const char*, int, JQ_SDK_ParamCallback, void*, void*);
int Request(const char* operation, std::deque<std::string> ParamStore::*record, TakeRequest take,
            const char* text, int length, JQ_SDK_ParamCallback callback, void* user, void* context) {
    detail::CountCall(operation);
    if (text == nullptr || length <= 0) {
        return kBadArgument;
    }
    try {
        Record(record, text, length);
        if (callback == nullptr) {
            return kBadArgument;
        }
        if (!Serving()) {
            return kNotServing;
        }
        return take(text, length, callback, user, context);
    } catch (const std::exception&) {
        return kBadDocument;
    }
}

}  // namespace
}  // namespace nvx

int JQ_SDK_Global_GetParameter(const char* text, int length, JQ_SDK_ParamCallback callback, void* user,
                               void* context) {
    return nvx::Request("JQ_SDK_Global_GetParameter", &nvx::ParamStore::getRequests, nvx::QueueReply, text,
                        length, callback, user, context);
}

int JQ_SDK_Global_ListenParameter(const char* text, int length, JQ_SDK_ParamCallback callback, void* user,
                                  void* context) {
    return nvx::Request("JQ_SDK_Global_ListenParameter", &nvx::ParamStore::listenRequests, nvx::AddListener,
                        text, length, callback, user, context);
}

int JQ_SDK_Global_SetParameter(const char* text, int length) {
    nvx::detail::CountCall("JQ_SDK_Global_SetParameter");
    if (text == nullptr || length <= 0) {
        return nvx::kBadArgument;
    }
    try {
        return nvx::ApplyDocument(text, length);
    } catch (const std::exception&) {
        return nvx::kBadDocument;
    }
}
