// The hub's event loop: accepts clients, cuts what they send into frames,
// routes each message, and writes every client's output once per round of
// events. A client that breaks the protocol or falls too far behind is
// dropped alone.
#pragma once

#include <sys/epoll.h>
#include <zel/message.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "address_book.h"
#include "client.h"
#include "message_kind.h"
#include "pending_requests.h"
#include "subscriptions.h"

namespace zelhub {

struct Options {
    std::string bind = "127.0.0.1";
    int port = 0;
    int64_t max_backlog = 64 * 1024 * 1024;        // unsent bytes a client may be owed
    int64_t max_total_backlog = 256 * 1024 * 1024; // unsent bytes all clients together may be owed
    int64_t max_frame = 16 * 1024 * 1024;          // bytes of one frame a client sends, header included
    int max_pending = 65536;                       // unanswered requests kept per client
    int stats_seconds = 0;                         // 0: no periodic counters
    std::string address_book;                      // its file; empty: in memory only
};

struct Counters {
    int64_t frames_in = 0, frames_out = 0;
    int64_t bytes_in = 0, bytes_out = 0;
    int64_t clients_dropped = 0;
    int64_t heartbeats = 0;
    int64_t replies_unrouted = 0;   // nobody waited for them any more
    int64_t requests_forgotten = 0; // their client had too many unanswered
};

class Server {
public:
    Server(Options options, int stop_fd, AddressBook &address_book);
    ~Server();
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    // Listens and prints the address; false (with `error`) when it cannot.
    bool open(std::string &error);
    // Serves until a stop signal arrives on the stop descriptor.
    void run();

private:
    void on_event(const epoll_event &event);
    void accept_clients();
    void read_from(Client &client);
    void handle_frames(Client &client);
    bool refuse_oversized(Client &client, int64_t frame_size);
    void handle_message(Client &sender, const char *frame, int32_t length);
    void count_forgotten_request(Client &client);
    void serve_address_book(Client &client, MessageKind kind);
    void answer_lookup(Client &client, std::string_view key);
    void route_reply(const char *frame, int32_t length);
    void send_to_others(Client &sender, const char *frame, int32_t length);
    void send_to(ClientId id, const char *frame, int32_t length);
    void drop_most_behind(const Client &recipient, int32_t frame_size);
    void flush_outputs();
    void write_output(Client &client);
    void note_size(const ByteBuffer &buffer);
    void give_back_buffers();
    void watch_output(Client &client, bool watch);
    void drop(Client &client, std::string_view why);
    void disconnect(Client &client, std::string_view why);
    void close_dropped_clients();
    void pause_accepting(bool pause);
    void print_counters();

    Options options_;
    int stop_fd_;
    int epoll_fd_ = -1;
    int listen_fd_ = -1;
    int timer_fd_ = -1;
    bool stopping_ = false;
    bool accepting_paused_ = false;
    bool oversized_buffers_ = false; // a client buffer is above the size kept for good
    int live_clients_ = 0;
    int64_t total_backlog_ = 0; // unsent bytes of all clients not dropped

    std::vector<std::unique_ptr<Client>> clients_; // by id; null for a free id
    std::vector<ClientId> free_ids_;
    std::vector<ClientId> to_flush_;   // clients owed output this round
    std::vector<ClientId> to_close_;   // clients dropped this round
    std::vector<ClientId> recipients_; // of the message in hand
    std::vector<const sVartoItem *> numbers_; // of the reply in hand

    vartocb *parsed_ = nullptr; // one parse record, reused for every message
    Subscriptions subscriptions_;
    PendingRequests pending_;
    AddressBook &address_book_;
    Counters counters_;
};

} // namespace zelhub
