// Low-level message service. A handle is one client of the platform message bus: it sends
// and answers messages, registers callbacks for events, and beats the service's heartbeat.
// Callbacks run on the thread that calls JQ_SDK_MSG_WaitForEvent.
#ifndef NORVIX_JQ_SDK_MSG_H
#define NORVIX_JQ_SDK_MSG_H

#ifdef __cplusplus
extern "C" {
#endif

typedef void* JQ_MSG_HANDLE;

// Called with each message of a registered event: its bytes (valid during the call only),
// their count and the user value given at registration.
typedef void (*JQ_SDK_MSG_Callback)(const char* data, int length, void* user);

// `depth` bounds the handle's queue of undelivered messages (the oldest is dropped when it is
// full). `mode` 1: callbacks run on the thread that waits; no other mode exists. Null on
// failure or for another mode.
JQ_MSG_HANDLE JQ_SDK_MSG_Initialize(unsigned int depth, int mode);
// Releases the handle; a call still running on it on another thread finishes first. 0, or -1
// for a handle that is not live.
int JQ_SDK_MSG_Uninitialize(JQ_MSG_HANDLE handle);

// One callback per event and handle; a second registration replaces the first. 0, or -1 for a
// dead handle or a null callback.
int JQ_SDK_MSG_Register(JQ_MSG_HANDLE handle, int event, JQ_SDK_MSG_Callback callback, void* user);
// Deliveries that begin afterwards no longer call the callback; one already running on
// another thread may still finish. 0, or -1 when the event was not registered.
int JQ_SDK_MSG_Unregister(JQ_MSG_HANDLE handle, int event);

// The bus copies `length` bytes of `data`. `response` 1 asks the receiver for an answer.
// 0, or -1 for a dead handle, a negative length or null data with a positive length.
int JQ_SDK_MSG_Send(JQ_MSG_HANDLE handle, int session, int event, int response, const char* data, int length,
                    int source);
// Answers the message of `session`; arguments as for JQ_SDK_MSG_Send.
int JQ_SDK_MSG_Response(JQ_MSG_HANDLE handle, int session, int event, const char* data, int length,
                        int source);

// Waits up to `timeoutMs` for messages and runs their callbacks on this thread. The number of
// messages delivered, or -1 for a dead handle.
int JQ_SDK_MSG_WaitForEvent(JQ_MSG_HANDLE handle, int timeoutMs);

// Tells the platform the handle's owner is alive. 0, or -1 for a dead handle.
int JQ_SDK_MSG_SendHeartbeat(JQ_MSG_HANDLE handle);

#ifdef __cplusplus
}
#endif

#endif
