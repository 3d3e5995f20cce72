/*
 * The client API: delivery of messages and status to the application thread.
 *
 * Threading rule. A connection belongs to the thread that creates it: every
 * receiver and listener callback of that connection runs on that thread, and
 * only while the thread is inside zel_pump_messages. Worker threads never
 * call application code; they post to the owning thread's queue, which keeps
 * the order in which things were posted. Each thread has one queue, made on
 * first use.
 */
#ifndef ZEL_ENGINE_H
#define ZEL_ENGINE_H

#include <stdint.h>
#include "message.h"
#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Handles the messages queued for the calling thread, in the order they were
 * posted, and answers how many it handled. With nothing queued it first waits
 * up to `timeout_ms` milliseconds for something to arrive (0: do not wait;
 * -1: wait as long as it takes). Messages posted while it is handling wait
 * for the next call. Call it on the thread that created the connections. */
int zel_pump_messages(int timeout_ms);

/* A file descriptor that is readable whenever the calling thread's queue
 * holds messages: put it into your own poll/epoll loop and call
 * zel_pump_messages(0) when it fires. Level-triggered: it stays readable
 * until a pump empties the queue. Rarely it fires with nothing queued; that
 * pump then handles nothing and clears it. Never read from or close it. It
 * belongs to the calling thread's queue and stays valid while that thread
 * lives. */
int zel_message_fd(void);

/* Where the library's alerts go (texts such as "Internal error while parsing
 * messages, some messages are dropped"). The default writes the text and a
 * line feed to standard error. Processing carries on after the handler
 * returns. A null handler restores the default. The handler may be called on
 * any thread that reports an alert; it must not throw. */
void zel_set_alert_handler(void (*handler)(const char *text));

#ifdef __cplusplus
} /* extern "C" */

#include <string>
#include <vector>

/* Connection status (getConnectionStatus, CZelListener::statusChange). */
enum {
    ZEL_STATUS_CREATED = 1,     /* never connected yet */
    ZEL_STATUS_CONNECTED = 2,
    ZEL_STATUS_RECOVERING = 3,  /* down and recovering, or given up */
    ZEL_STATUS_LOST = 4         /* the connection dropped while connected */
};

/* What a receiver is called for. */
enum {
    ZEL_KIND_SERVICE_REQUEST = 1,
    ZEL_KIND_WATCH_MATCH = 2,
    ZEL_KIND_REPLY = 3
};

/* A connection's counters. Counters with a use, by position: 0 active
 * watches; 1 messages handled; 2 service requests; 4 replies; 5 messages
 * walked against the watches; 7, 9 and 16 requests sent; 13 received bytes
 * (counted when a block arrives and again when it is dispatched); 14 the
 * worker's own counter; 15 messages parsed; 17 the largest batch dispatched.
 * The others stay 0 unless a transport sets them. */
struct sZelMeters {
    uint64_t counters[21];
};

struct sWatchData;

/* Receives messages. Every receiver is in a process-wide registry for exactly
 * its lifetime, so the library never calls one that has been destroyed. All
 * calls come on the thread that created the connection. A receiver may add
 * and remove watches, and destroy itself or other receivers, from inside a
 * call. Exceptions thrown from a call are caught and reported as an alert. */
class CZelReceiver {
public:
    CZelReceiver();
    virtual ~CZelReceiver();
    CZelReceiver(const CZelReceiver &) = delete;
    CZelReceiver &operator=(const CZelReceiver &) = delete;

    /* A message for a watch (kind ZEL_KIND_WATCH_MATCH, with the watch and its
     * context) or for a registered service (kind ZEL_KIND_SERVICE_REQUEST,
     * watch and context null). The message is valid during the call only. */
    virtual int processMsg(vartocb *msg, int kind, sWatchData *watch, void *context, int *err) = 0;
    /* The reply (kind ZEL_KIND_REPLY) to a request sent with addRqDontStore;
     * `request` is the handle that call gave out. Called once. */
    virtual int processReply(vartocb *reply, int kind, void *request, void *context, int *err) = 0;
    /* Does nothing and answers 1. */
    virtual int ProcessRq(void *);

    /* Whether `receiver` is alive now. Any thread. */
    static bool isRegistered(const CZelReceiver *receiver);
};

/* Told of connection status changes, on the connection's thread. The status
 * passed is the one current when the call is made, so two quick changes may
 * both be seen as the later one. */
class CZelListener {
public:
    virtual ~CZelListener() = default;
    virtual int statusChange(int status, int *err);
};

/* Heartbeat listener: the transports decide when to call it; the base
 * operations answer 1 and do nothing. */
class CZelHeartbeatListener {
public:
    virtual ~CZelHeartbeatListener() = default;
    virtual int getDesc(scratchcb *desc, int *err);
    virtual int quietChannel(long interval, void *context, int *err);
    int SetMsg(const char *text);
};

/* One watch: the tags (ascending) a message must carry, with the value each
 * must have (an empty text matches any value; the field must be present). */
struct sWatchData {
    std::vector<int> tags;
    std::vector<std::string> values;
    CZelReceiver *receiver;        /* a watch without receiver is never delivered */
    void *context;                 /* handed back on delivery */
    std::string subscribe;         /* the subscribe request as sent */
    std::string unsubscribe;       /* the matching unsubscribe request */
};

/* A request waiting for its reply: a reply whose field 32760 carries
 * `request_number` in decimal completes it. */
struct sAddWatchData {
    uint64_t request_number;
    CZelReceiver *receiver;
    void *context;
};

#endif /* __cplusplus */

#endif /* ZEL_ENGINE_H */
