// Message-bus client. Each client has a name, a queue of the bus events it registered for,
// and delivers them to their handlers on the thread that calls MSGWaitForEvent.
#ifndef NORVIX_MSGCLIENTMANAGE_H
#define NORVIX_MSGCLIENTMANAGE_H

#include <functional>
#include <string>

typedef void (*MsgClientCallback)(unsigned int, unsigned int, unsigned int, unsigned int, std::string);

class CMsgClientManage {
public:
    typedef std::function<void(const char* data, int length)> EventHandler;

    // `depth` bounds the client's queue of undelivered events (the oldest is dropped when
    // full); the stand-in never goes below 1024, so that a test's burst of injected events is
    // not lost. `callback` is reserved and may be null.
    CMsgClientManage(const char* name, unsigned int depth, MsgClientCallback callback);
    virtual ~CMsgClientManage();
    CMsgClientManage(const CMsgClientManage&) = delete;
    CMsgClientManage& operator=(const CMsgClientManage&) = delete;

    // The same name gives the same id, in every process.
    unsigned int MSGGenerateSourceId(std::string name);

    // Waits up to `timeoutMs` for queued events and runs their handlers on this thread.
    // Returns the number of events delivered; returns at the time-out at the latest (plus
    // the handlers' own time).
    int MSGWaitForEvent(int timeoutMs);

    int MSGFeedWatchDog(unsigned long long nowMs);

    // The bus copies `length` bytes of `data`; the caller may free them at once. 0, or -1
    // for a negative length or a null payload with a positive length.
    int MSGSendMessage(int destination, int eventId, int flag, const char* data, int length, int sourceId);

    // Calls `(object->*handler)(data, length)` for each event `event` delivered to this
    // client, until unregistered. One registration per (sourceId, event); a second replaces it.
    template <class T>
    int MSGEventRegister(int sourceId, int event, T* object, void (T::*handler)(const char*, int)) {
        if (object == nullptr || handler == nullptr) {
            return -1;
        }
        return RegisterHandler(sourceId, event, [object, handler](const char* data, int length) {
            (object->*handler)(data, length);
        });
    }
    int MSGEventUnRegister(int sourceId, int event);

    struct Impl;  // the platform's own state, opaque to clients

private:
    int RegisterHandler(int sourceId, int event, EventHandler handler);

    Impl* m_impl;
};

#endif
