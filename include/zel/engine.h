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

/* The most bytes a connection may hold queued for sending that its transport
 * has not yet written: once a send would pass it, sendMsg and addRqDontStore
 * answer 0 with ZEL_DETAIL_SEND_QUEUE_FULL and nothing is queued; they
 * succeed again as soon as the transport has written enough. (Watch requests
 * are not counted: the watch table bounds them.)
 * The memory a long queue took is given back once it has drained. Default
 * 64 MiB (67108864); 0 restores the default. Process-wide, for every
 * connection, from the next send on. Any thread. */
void zel_set_send_queue_limit(uint64_t bytes);

#ifdef __cplusplus
} /* extern "C" */

#include <cstdio>
#include <string>
#include <vector>

/* Connection status (getConnectionStatus, CZelListener::statusChange). */
enum {
    ZEL_STATUS_CREATED = 1,     /* never connected yet */
    ZEL_STATUS_CONNECTED = 2,
    ZEL_STATUS_RECOVERING = 3,  /* down and recovering, or given up */
    ZEL_STATUS_LOST = 4         /* the connection dropped while connected */
};

/* Details that CZelEngine operations write through `err` themselves, beside
 * the ones their transport writes. */
enum {
    ZEL_DETAIL_NULL_ARGUMENT = 1,   /* a pointer the call needs is null */
    ZEL_DETAIL_NOT_A_MESSAGE = 2,   /* not exactly one whole message: bad header, an
                                       item running past the length, or bytes after it */
    ZEL_DETAIL_BAD_INTERVAL = 10,   /* a heartbeat interval below 1 ms */
    ZEL_DETAIL_NO_CONNECTION = 11,  /* create_connection has not succeeded on this object */
    ZEL_DETAIL_SEND_QUEUE_FULL = 12 /* the send queue is at its bound (zel_set_send_queue_limit) */
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
 * worker's own counter; 15 messages parsed; 17 the largest batch dispatched;
 * 18 frames that were queued for a connection that dropped and were
 * discarded unsent (the hub transport). The others stay 0 unless a transport
 * sets them. */
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

class CVartoEngine;
class CIntRxWnd;

/* One connection to a hub or broker. Create it, call create_connection on
 * the thread that is to receive, then use the other operations on that same
 * thread; pump that thread's queue (zel_pump_messages or zel_message_fd) to
 * receive messages and status changes.
 *
 * Results: 1 for success and 0 for failure. The trailing `int *err` receives
 * a detail on failure: one of the ZEL_DETAIL_* codes above, or the
 * transport's own. It may be null: the detail is then not reported. Every
 * operation but the constructor, the destructor, getConnectionStatus,
 * setConnectionListener, removeAllRqs and the fixed no-ops needs a
 * successful create_connection first; without one it answers 0 with
 * ZEL_DETAIL_NO_CONNECTION (enable_log and disable_log answer 0).
 *
 * Watch, service and request operations answer 0 while the connection is not
 * up (status ZEL_STATUS_CONNECTED). */
class CZelEngine {
public:
    /* The first construction in the process also fills the list of key tags
     * (10100, 31003, 44031, 50207, 54211, 63001, 63100, 64001, 64016, 64022)
     * that transports compose message keys from. Not thread-safe with a
     * concurrent first construction. */
    CZelEngine();
    /* Stops the connection: asks the worker to end, waits for its thread,
     * then frees the connection. Messages still queued for it are dropped.
     * Call it on the connection's thread. It may be called from inside one of
     * the connection's own receiver or listener calls: no further receiver of
     * the connection is called, and the connection is stopped and freed as
     * soon as that call has returned into the library. */
    ~CZelEngine();
    CZelEngine(const CZelEngine &) = delete;
    /* A shallow copy: both objects then share one connection, which must
     * be destroyed through one of them only. */
    CZelEngine &operator=(const CZelEngine &) = default;

    /* Opens the connection whose transport `type` names: "hub" or "" for a
     * hub at host:port; "ZMQ_SUB" or "ZMQ_PUB" (exact case) for ZeroMQ;
     * anything else for an AMQP broker. ZeroMQ is described by host, port,
     * type, `text7` and `text6`. `text7` is also the connection's instance
     * name (the hub announces it). `callback` is kept for the transport.
     * Returns once the first connect attempt has ended, whatever its outcome:
     * watch the status for it. Answers 1, or 0 when this object already has a
     * connection or when this build has no such transport.
     *
     * AMQP (0-9-1 broker):
     *   host    the broker's server name; when PL_LOC_BROK_ADDR names an
     *           address book, the address it gives for the name is used (the
     *           name itself when it has none)
     *   port    the broker's port (TLS or plain)
     *   type    the virtual host, for example "/"
     *   text4   user            text5   password
     *   text6   the exchange (never declared by the engine: a topic exchange
     *           routes by key, a fanout one gives every client everything)
     *   text7   the client name: its private queue is "<name>_<N>", bound
     *           with "#.<name>.#", and it is the reply_to of every publish
     *   option  compression of message bodies: 0 none ("zel"), 1 LZMA, 2 the
     *           block codec (both "zelz")
     *   text9   CA certificate file: set, the connection uses TLS
     *   text10, text11  client key and certificate files: both set, the
     *           client authenticates with them
     * No field may hold "@": the fields travel joined by "@".
 *
 * ZeroMQ: a SUB or PUB socket connects to tcp://host:port (its peer, for
 * example zelproxy, binds); text6 is a label for the trace, text7 the client
 * name. On a SUB connection addWatch and registerSrvc subscribe prefix
 * filters and sendMsg answers 0; on a PUB connection sendMsg and
 * addRqDontStore send [topic][message]. The README tells how filters meet
 * topics. */
    int create_connection(int port, std::string host, std::string type, std::string text4, std::string text5,
                          std::string text6, std::string text7, int option, std::string text9, std::string text10,
                          std::string text11, int (*callback)(char *));

    /* Sends the request built in `request` (a started message with its name
     * in field 0) and waits, without blocking, for its reply: the reply
     * (field 32767, with this request's number in field 32760) goes to
     * `receiver->processReply` once, with `context`. `*handle` receives the
     * request's handle, which processReply is given. The request number is
     * the receiver's address, so a receiver's replies complete its requests
     * newest first. Details: ZEL_DETAIL_NULL_ARGUMENT for a null `handle` or
     * `request`, ZEL_DETAIL_NOT_A_MESSAGE when `request` is not one whole
     * message with field 0, ZEL_DETAIL_SEND_QUEUE_FULL; nothing is sent then. */
    int addRqDontStore(void **handle, void *request, CZelReceiver *receiver, void *context, int *err);

    /* Watches for messages (without field 0) that carry every tag with its
     * value; a value of length 0 matches any value, but the field must be
     * present. Matches go to `receiver` (a CZelReceiver *) with kind
     * ZEL_KIND_WATCH_MATCH and `context`; a receiver is called once per
     * message however many of its watches match. The watch is kept with its
     * tags sorted and bound again after every reconnect. `*handle` receives
     * the watch (an sWatchData *). The four arguments after `context` are
     * unused by the hub. A null `handle` answers 0 with
     * ZEL_DETAIL_NULL_ARGUMENT before anything is sent. */
    int addWatch(void **handle, int *tags, sPChar *values, int count, void *receiver, void *context, bool option1,
                 long option2, bool option3, bool option4, int *err);
    /* Passed to the transport; always answers 0, whatever happened. */
    int RemoveWatch(const int *tags, sPChar *values, int count);
    /* Removes one watch; 0 when it is not there (or already removed). */
    int removeWatch(void *handle, int *err);
    /* Removes the watches with this context or this receiver, or every watch
     * that has a receiver: 1 when at least one went, else 0. */
    int removeWatchesByContext(void *context);
    int removeWatchesByReceiver(CZelReceiver *receiver);
    int removeAllWatches(int *err);

    /* Sends the one message built in `message`. 1 means the message was
     * handed to the transport, not that it arrived (see the README on what an
     * outage loses). 0 while the connection is not up, and with a detail:
     * ZEL_DETAIL_NOT_A_MESSAGE when `message` is not exactly one whole
     * message, ZEL_DETAIL_SEND_QUEUE_FULL when the transport is that far
     * behind; nothing is sent then. */
    int sendMsg(scratchcb *message, int *err);

    /* Offers a service: requests (messages whose field 0 is `name`) go to
     * `handler`, a CZelReceiver *, as processMsg with kind
     * ZEL_KIND_SERVICE_REQUEST and a null watch and context. */
    int registerSrvc(const sPChar *name, void *handler, int option, int *err);
    /* Announces a service name; the receiver is not called. */
    int RegisterSrvc(std::string name, CZelReceiver *receiver, int *err);

    /* Turns heartbeats on at `interval` (milliseconds; transports default to
     * 50000) and keeps `listener`. An interval below 1 ms answers 0 with
     * ZEL_DETAIL_BAD_INTERVAL and changes nothing. */
    int enableHeartbeat(CZelHeartbeatListener *listener, long interval, int *err);
    /* Both answer 1 and do nothing; isHeartbeatEnabled leaves *enabled as
     * it is. */
    int disableHeartbeat(int *err);
    int isHeartbeatEnabled(bool *enabled, int *err);

    /* Copies the connection's counters (see sZelMeters); reset zeroes them.
     * A null `meters` answers 0 with ZEL_DETAIL_NULL_ARGUMENT. */
    int getMeters(sZelMeters *meters, int *err);
    int resetMeters(int *err);

    /* Removes the entry for the address `err` itself from the receiver
     * registry, which in practice removes nothing; answers 1. */
    int removeAllRqs(int *err);

    /* Fixed no-ops that answer 1. */
    int openChannel(int *err);
    int stop(int *err);
    int addDevice(const sPChar *device, int *err);
    int addVersion(const sPChar *name, const sPChar *version, int *err);
    /* Passed to the transport; answers 1 whatever it did. */
    int closeChannel(int *err);

    /* Opens (mode "w+") or closes the transport's log file at `path`; both
     * answer 1. */
    int enable_log(FILE *file, std::string path);
    int disable_log(FILE *file, std::string path);

    /* Writes the connection status (ZEL_STATUS_*) to *status; before
     * create_connection it leaves *status alone. */
    void getConnectionStatus(int *status, int *err);
    /* Sets (or with null, clears) the one status listener. Before
     * create_connection the call is lost. */
    void setConnectionListener(CZelListener *listener, int *err);

private:
    CVartoEngine *engine;
    CIntRxWnd *window;
    int reserved;
};

/* Always 4. */
int NT_series();
/* 1 when every byte of `text` is a digit 0-9 (an empty text included); 0 at
 * the first byte that is not, and 0 for a null pointer. */
int m_all_digits(sPChar *text);

#endif /* __cplusplus */

#endif /* ZEL_ENGINE_H */
