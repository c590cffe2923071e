// Asynchronous callback queue. Entries own copies of their arguments; a call sees nodes
// that point at those copies, which die when the call returns.
#include "AsynCallback.h"

#include <deque>
#include <memory>
#include <mutex>
#include <string>

#include "Device.h"
#include "JQ_LOG.h"

namespace {
constexpr size_t kDefaultMaxEntries = 1024;
}

struct CAsynCallback::Impl {
    struct Entry {
        Call call;
        std::vector<std::string> copies;  // std::string keeps a zero byte after the data
    };
    unsigned int id = 0;
    size_t maxEntries = kDefaultMaxEntries;
    std::mutex mutex;
    std::deque<Entry> queue;
};

CAsynCallback::CAsynCallback(unsigned int id, unsigned short maxEntries, unsigned short /*reserved*/)
    : m_impl(nullptr) {
    nvx::detail::CountCall("CAsynCallback");
    m_impl = new Impl;
    m_impl->id = id;
    if (maxEntries != 0) {
        m_impl->maxEntries = maxEntries;
    }
}

CAsynCallback::~CAsynCallback() {
    // Counted so that tests can tell every queue made was also destroyed.
    nvx::detail::CountCall("~CAsynCallback");
    delete m_impl;
}

int CAsynCallback::AddCall(Call call, const AsynCallbackParaNode_t* nodes, int count) {
    Impl::Entry entry;
    entry.call = std::move(call);
    for (int i = 0; i < count; ++i) {
        const AsynCallbackParaNode_t& node = nodes[i];
        if (node.iLen < 0 || (node.pData == nullptr && node.iLen > 0)) {
            return -1;
        }
        entry.copies.emplace_back(node.iLen > 0 ? std::string(node.pData, static_cast<size_t>(node.iLen))
                                                : std::string());
    }
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    if (m_impl->queue.size() >= m_impl->maxEntries) {
        NVX_LOG(1, "asyn callback queue %u full, call dropped\n", m_impl->id);
        return -1;
    }
    m_impl->queue.push_back(std::move(entry));
    return 0;
}

int CAsynCallback::AsynCallbackExecute() {
    std::deque<Impl::Entry> ready;
    {
        std::lock_guard<std::mutex> lock(m_impl->mutex);
        ready.swap(m_impl->queue);
    }
    for (Impl::Entry& entry : ready) {
        std::vector<AsynCallbackParaNode_t> args;
        args.reserve(entry.copies.size());
        for (const std::string& copy : entry.copies) {
            args.push_back(AsynCallbackParaNode_t{copy.c_str(), static_cast<int>(copy.size()), 0});
        }
        entry.call(args);
    }
    return static_cast<int>(ready.size());
}
