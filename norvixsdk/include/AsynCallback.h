// Asynchronous callback queue: any thread adds calls, the owner's thread runs them.
#ifndef NORVIX_ASYNCALLBACK_H
#define NORVIX_ASYNCALLBACK_H

#include <functional>
#include <vector>

// One argument of a queued call. On the way in it names the caller's bytes; the queue copies
// them, and the call receives nodes that point at the copies (followed by one zero byte that
// is not counted in iLen). The copies live until the call returns.
typedef struct AsynCallbackParaNode_t {
    const char* pData;
    int iLen;
    int iReserved;
} AsynCallbackParaNode_t;

class CAsynCallback {
public:
    typedef std::function<void(std::vector<AsynCallbackParaNode_t>&)> Call;

    // `maxEntries` bounds the number of calls waiting (0: the platform default of 1024);
    // `reserved` is given as 0.
    CAsynCallback(unsigned int id, unsigned short maxEntries, unsigned short reserved);
    ~CAsynCallback();
    CAsynCallback(const CAsynCallback&) = delete;
    CAsynCallback& operator=(const CAsynCallback&) = delete;

    // Queues `(object->*method)(nodes)` with copies of the first `count` nodes. 0, or -1 when
    // the queue is full or an argument is unusable.
    template <class T, class... Nodes>
    int AsynCallbackAdd(int count, T* object, void (T::*method)(std::vector<AsynCallbackParaNode_t>&),
                        Nodes... nodes) {
        if (object == nullptr || method == nullptr) {
            return -1;
        }
        const AsynCallbackParaNode_t given[sizeof...(Nodes) + 1] = {nodes..., {nullptr, 0, 0}};
        int used = count < 0 ? 0 : count;
        if (used > static_cast<int>(sizeof...(Nodes))) {
            used = static_cast<int>(sizeof...(Nodes));
        }
        return AddCall(
            [object, method](std::vector<AsynCallbackParaNode_t>& args) { (object->*method)(args); }, given,
            used);
    }

    // Runs, on the calling thread, the calls queued before this call began. Returns how many.
    int AsynCallbackExecute();

private:
    int AddCall(Call call, const AsynCallbackParaNode_t* nodes, int count);

    struct Impl;
    Impl* m_impl;
};

#endif
