// The hub worker: owns the TCP connection to the hub on a thread of its own.
// It connects and announces the application, cuts the frames it reads into
// batches for the application thread, writes what the sender queued, sends
// heartbeats, and reconnects with a doubling delay when the connection ends.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "api/engine_interface.h"
#include "transport/hub/hub_sender.h"

class CIntRxWnd;

struct HubSettings {
    std::string host;
    int port = 0;
    CIntRxWnd *window = nullptr;
};

class CHubworker : public CVartoWorker {
public:
    explicit CHubworker(HubSettings settings);
    ~CHubworker() override;

    // ---- Worker thread -------------------------------------------------------
    int serve() override;
    int recover() override;
    int receive() override;
    int sendHeartbeat() override;

    // ---- Any thread ----------------------------------------------------------
    int wake() override;
    enum class SendResult { queued, not_open, queue_full };
    // The plain send path: queues one message unless no connection is open,
    // in which case it reports "connection not open" and drops it, or the
    // send queue is at its bound.
    SendResult send(const char *message, int32_t length);
    // Subscribe and unsubscribe requests are queued whatever the state; a
    // new connection gets every watch again anyway.
    void send_watch_request(const std::string &request);

    uint64_t sent_bytes() const { return sent_bytes_.load(std::memory_order_relaxed); }
    // Frames discarded unsent because their connection dropped.
    uint64_t discarded_frames() const { return discarded_frames_.load(std::memory_order_relaxed); }
    void reset_counters()
    {
        sent_bytes_.store(0, std::memory_order_relaxed);
        discarded_frames_.store(0, std::memory_order_relaxed);
    }

    // The worker's log: its status reports, one line each. @locality application thread
    void open_log(const std::string &path);
    void close_log();
    int reportStatus(int level, std::string text) override;

private:
    bool connect_socket();
    bool wait_until_connected();
    void connection_lost(int error);
    bool read_available(int *error);
    bool hand_on_frames(int *error);
    bool post_frames(int64_t framed, int64_t payload);
    bool flush(int *error);
    bool all_taken_written() const { return unsent_offset_ == unsent_.size(); }
    void give_back_send_memory();
    void close_socket();
    void discard_unsent();
    static int64_t frames_not_written(const std::string &bytes, size_t written);
    void count_heartbeat_pass(int *passes);

    HubSettings settings_;
    CHubSender sender_;
    int socket_ = -1;
    std::atomic<int> closed_{1};
    std::vector<char> received_;   // bytes read and not yet framed
    size_t received_used_ = 0;
    bool frames_waiting_ = false;  // whole frames at the front that no batch could be made for
    std::string unsent_;           // taken from the sender, not yet written
    size_t unsent_offset_ = 0;
    std::atomic<uint64_t> sent_bytes_{0};
    std::atomic<uint64_t> discarded_frames_{0};
    const std::string heartbeat_frame_;
    std::mutex log_lock_;
    FILE *log_ = nullptr;          // guarded by log_lock_
};
