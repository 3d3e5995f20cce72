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

#ifdef __cplusplus
extern "C" {
#endif

/* Handles the messages queued for the calling thread, in the order they were
 * posted, and answers how many it handled. With nothing queued it first waits
 * up to `timeout_ms` milliseconds for something to arrive (0: do not wait;
 * -1: wait as long as it takes). Messages posted while it is handling wait
 * for the next call. Call it on the thread that created the connections. */
int zel_pump_messages(int timeout_ms);

/* A file descriptor that is readable exactly while the calling thread's queue
 * holds messages: put it into your own poll/epoll loop and call
 * zel_pump_messages(0) when it fires. Level-triggered; never read from or
 * close it. It belongs to the calling thread's queue and stays valid while
 * that thread lives. */
int zel_message_fd(void);

/* Where the library's alerts go (texts such as "Internal error while parsing
 * messages, some messages are dropped"). The default writes the text and a
 * line feed to standard error. Processing carries on after the handler
 * returns. A null handler restores the default. The handler may be called on
 * any thread that reports an alert; it must not throw. */
void zel_set_alert_handler(void (*handler)(const char *text));

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* ZEL_ENGINE_H */
