#include "server.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <limits>
#include <span>

#include "socket_address.h"
#include "system_error.h"
#include "transport/hub/framing.h"

namespace zelhub {

namespace {

using zel::hub::frame_header_size;

// Event tokens other than client ids (which are small numbers).
constexpr uint64_t listener_token = std::numeric_limits<uint64_t>::max();
constexpr uint64_t stop_token = listener_token - 1;
constexpr uint64_t timer_token = listener_token - 2;

constexpr int events_per_round = 256;
constexpr int accepts_per_round = 64;
// Every read asks for at least this much, so a busy client costs few calls.
constexpr size_t read_chunk = 64 * 1024;
// Buffers that a burst made bigger than this are given back once empty and
// the hub has had nothing to do for a while: a stream that keeps a backlog
// keeps its buffers rather than paying to map and fault them in again.
constexpr size_t kept_buffer_size = 4 * 1024 * 1024;
constexpr int idle_ms_before_giving_back = 100;

// A client's name as it goes into a log line: short and printable, whatever it sent.
std::string printable(std::string_view name)
{
    std::string text(name.substr(0, 64));
    for (char &c : text)
        if (c < 0x20 || c > 0x7e)
            c = '?';
    return text;
}

// How log lines call a client: by its name once it told us, else by its id.
std::string label_of(const Client &client)
{
    return client.name.empty() ? "#" + std::to_string(client.id) : "\"" + printable(client.name) + "\"";
}

bool add_to_epoll(int epoll_fd, int fd, uint32_t events, uint64_t token)
{
    epoll_event event{};
    event.events = events;
    event.data.u64 = token;
    return epoll_ctl(epoll_fd, EPOLL_CTL_ADD, fd, &event) == 0;
}

// Why a socket failed, for the log; empty for a peer that simply went away
// without closing properly, which is an ordinary leave.
std::string_view socket_error()
{
    return errno == ECONNRESET || errno == EPIPE ? std::string_view() : std::string_view(std::strerror(errno));
}

// Why an address-book request is refused; empty when it is served. Only the
// fields it needs are looked at: a lookup may carry an address as well.
std::string address_book_refusal(const vartocb *m, MessageKind kind)
{
    const int needed[] = {field::address_key, field::address};
    std::string request = "sent \"" + std::string(first_value(m, field::name)) + "\"";
    for (int tag : std::span(needed, kind == MessageKind::address_set ? 2 : 1)) {
        if (!has_field(m, tag))
            return request + " without field " + std::to_string(tag);
        if (size_t size = first_value(m, tag).size(); size > AddressBook::longest_value)
            return request + " with " + std::to_string(size) + " bytes in field " + std::to_string(tag) +
                   ", more than " + std::to_string(AddressBook::longest_value);
    }
    return {};
}

} // namespace

Server::Server(Options options, int stop_fd, AddressBook &address_book)
    : options_(std::move(options)), stop_fd_(stop_fd), pending_(options_.max_pending), address_book_(address_book)
{
}

Server::~Server()
{
    for (auto &client : clients_)
        if (client)
            close(client->fd);
    for (int fd : {listen_fd_, timer_fd_, epoll_fd_})
        if (fd >= 0)
            close(fd);
    int err = 0;
    if (parsed_)
        zel_dtor_vartocb(&parsed_, &err);
}

bool Server::open(std::string &error)
{
    int err = 0;
    if (!zel_ctor_vartocb(&parsed_, &err)) {
        error = "cannot make a message parser";
        return false;
    }
    sockaddr_storage address;
    socklen_t length = 0;
    if (!parse_address(options_.bind, options_.port, address, length)) {
        error = "not an address to listen on: " + options_.bind;
        return false;
    }
    epoll_fd_ = epoll_create1(EPOLL_CLOEXEC);
    listen_fd_ = socket(address.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (epoll_fd_ < 0 || listen_fd_ < 0) {
        error = system_error("socket");
        return false;
    }
    // Lets the hub be restarted on its port while old connections linger.
    int on = 1;
    setsockopt(listen_fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(listen_fd_, reinterpret_cast<sockaddr *>(&address), length) != 0 ||
        listen(listen_fd_, SOMAXCONN) != 0) {
        error = system_error("listen on " + address_text(address));
        return false;
    }
    if (!add_to_epoll(epoll_fd_, listen_fd_, EPOLLIN, listener_token) ||
        !add_to_epoll(epoll_fd_, stop_fd_, EPOLLIN, stop_token)) {
        error = system_error("epoll");
        return false;
    }
    if (options_.stats_seconds > 0) {
        timer_fd_ = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
        itimerspec every{{options_.stats_seconds, 0}, {options_.stats_seconds, 0}};
        if (timer_fd_ < 0 || timerfd_settime(timer_fd_, 0, &every, nullptr) != 0 ||
            !add_to_epoll(epoll_fd_, timer_fd_, EPOLLIN, timer_token)) {
            error = system_error("stats timer");
            return false;
        }
    }
    length = sizeof address;
    getsockname(listen_fd_, reinterpret_cast<sockaddr *>(&address), &length);
    // Whoever started us waits for this line to know the port. Standard
    // output may be a pipe nobody reads later: write errors do not matter.
    std::printf("zelhub listening on %s\n", address_text(address).c_str());
    std::fflush(stdout);
    return true;
}

void Server::run()
{
    epoll_event events[events_per_round];
    while (!stopping_) {
        int ready = epoll_wait(epoll_fd_, events, events_per_round,
                               oversized_buffers_ ? idle_ms_before_giving_back : -1);
        if (ready < 0) {
            if (errno == EINTR)
                continue;
            std::fprintf(stderr, "zelhub: %s\n", system_error("epoll_wait").c_str());
            return;
        }
        if (ready == 0)
            give_back_buffers();
        for (int i = 0; i < ready; ++i)
            on_event(events[i]);
        // Everything forwarded this round goes out in one write per client.
        flush_outputs();
        close_dropped_clients();
    }
}

void Server::on_event(const epoll_event &event)
{
    switch (event.data.u64) {
    case listener_token:
        accept_clients();
        return;
    case stop_token: {
        signalfd_siginfo signal;
        while (read(stop_fd_, &signal, sizeof signal) > 0) {
        }
        stopping_ = true;
        return;
    }
    case timer_token: {
        uint64_t expirations;
        if (read(timer_fd_, &expirations, sizeof expirations) > 0)
            print_counters();
        return;
    }
    }
    Client *client = clients_[event.data.u64].get();
    if (!client || client->dropped)
        return;
    if ((event.events & EPOLLOUT) && !client->flush_queued) {
        client->flush_queued = true;
        to_flush_.push_back(client->id);
    }
    if (event.events & (EPOLLIN | EPOLLHUP | EPOLLERR))
        read_from(*client);
}

void Server::accept_clients()
{
    for (int i = 0; i < accepts_per_round; ++i) {
        sockaddr_storage address;
        socklen_t length = sizeof address;
        int fd = accept4(listen_fd_, reinterpret_cast<sockaddr *>(&address), &length, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK)
                return;
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                // The pending connection would wake us forever: wait for a client to leave.
                std::fprintf(stderr, "zelhub: %s; not accepting until a client leaves\n",
                             system_error("accept").c_str());
                pause_accepting(true);
                return;
            }
            continue; // that one connection failed (aborted, refused, interrupted): the next may not
        }
        int on = 1; // forwarded frames are already batched per round; do not delay them further
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        ClientId id;
        if (free_ids_.empty()) {
            id = ClientId(clients_.size());
            clients_.emplace_back();
        } else {
            id = free_ids_.back();
            free_ids_.pop_back();
        }
        if (!add_to_epoll(epoll_fd_, fd, EPOLLIN, uint64_t(id))) {
            close(fd);
            free_ids_.push_back(id);
            continue;
        }
        clients_[size_t(id)] = std::make_unique<Client>(Client{id, fd, address_text(address)});
        ++live_clients_;
    }
}

void Server::read_from(Client &client)
{
    // A large frame makes the buffer grow as its bytes arrive (by doubling),
    // never ahead of them on the word of its length alone.
    client.input.reserve_room(read_chunk);
    ssize_t got = recv(client.fd, client.input.back(), client.input.room(), 0);
    if (got > 0) {
        client.input.commit(size_t(got));
        counters_.bytes_in += got;
        handle_frames(client);
    } else if (got == 0) {
        disconnect(client, "");
    } else if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
        disconnect(client, socket_error());
    }
}

void Server::handle_frames(Client &client)
{
    auto cut = zel::hub::cut_frames(client.input.data(), int64_t(client.input.size()),
                                    [&](const char *message, int32_t length) {
                                        // A large input buffer may hold a whole frame over the maximum.
                                        if (!client.dropped && !refuse_oversized(client, frame_header_size + length))
                                            handle_message(client, message, length);
                                    });
    counters_.frames_in += cut.frames;
    if (client.dropped)
        return;
    if (cut.broken) {
        int32_t length = zel::hub::frame_length(client.input.data() + cut.consumed);
        drop(client, "sent a broken frame length (" + std::to_string(length) + ")");
        return;
    }
    if (refuse_oversized(client, cut.needed))
        return;
    client.input.consume(size_t(cut.consumed));
    note_size(client.input);
}

// Refused on its length alone, before its body is buffered: the hub keeps a
// frame whole until it is handled.
bool Server::refuse_oversized(Client &client, int64_t frame_size)
{
    if (frame_size <= options_.max_frame)
        return false;
    drop(client, "sent a frame of " + std::to_string(frame_size) + " bytes, more than the maximum " +
                     std::to_string(options_.max_frame));
    return true;
}

void Server::handle_message(Client &sender, const char *message, int32_t length)
{
    const char *frame = message - frame_header_size;
    int32_t frame_size = length + frame_header_size;
    // Parsed in place: the fields point into the sender's input, never copied.
    scratchcb bytes{length, length, length, const_cast<char *>(message)};
    int err = 0;
    if (!zel_parse_msg(parsed_, &bytes, &err)) {
        drop(sender, "sent a message that does not parse (detail " + std::to_string(err) + ")");
        return;
    }
    MessageKind kind = kind_of(parsed_);
    switch (kind) {
    case MessageKind::device_name:
        sender.name = first_value(parsed_, field::device_name);
        return;
    case MessageKind::heartbeat:
        ++counters_.heartbeats;
        return;
    case MessageKind::subscribe:
        subscriptions_.add(sender.id, Subscriptions::keys_of(parsed_));
        return;
    case MessageKind::unsubscribe:
        subscriptions_.remove(sender.id, Subscriptions::keys_of(parsed_));
        return;
    case MessageKind::data:
        recipients_.clear();
        subscriptions_.match(parsed_, recipients_);
        for (ClientId id : recipients_)
            send_to(id, frame, frame_size);
        return;
    case MessageKind::request:
        // Relays add their own number after the sender's: the last one is this hop's.
        if (has_field(parsed_, field::request_number)) {
            const sVartoItem *last = parsed_->slots[field::request_number].last;
            if (pending_.remember(std::string_view(last->data, size_t(last->len)), sender.id))
                count_forgotten_request(sender);
        }
        send_to_others(sender, frame, frame_size);
        return;
    case MessageKind::reply:
        route_reply(frame, frame_size);
        return;
    case MessageKind::address_lookup:
    case MessageKind::address_set:
    case MessageKind::address_unset:
        serve_address_book(sender, kind);
        return;
    }
}

// Clients of the address book connect, ask and leave: they are not parties
// to the hub's traffic, so no request is forwarded to them.
void Server::serve_address_book(Client &client, MessageKind kind)
{
    client.uses_address_book = true;
    if (std::string why = address_book_refusal(parsed_, kind); !why.empty()) {
        drop(client, why);
        return;
    }
    std::string_view key = first_value(parsed_, field::address_key);
    if (kind == MessageKind::address_set)
        address_book_.set(key, first_value(parsed_, field::address));
    else if (kind == MessageKind::address_unset)
        address_book_.unset(key);
    else
        answer_lookup(client, key);
}

// A known key is answered with its address alone, an unknown one with the
// key alone, which tells the asker it was not found.
void Server::answer_lookup(Client &client, std::string_view key)
{
    const std::string *address = address_book_.find(key);
    std::string reply = address ? zel::hub::make_frame({{field::address, *address}})
                                : zel::hub::make_frame({{field::address_key, key}});
    send_to(client.id, reply.data(), int32_t(reply.size()));
}

// Logged the first time for a client and then each time its count doubles,
// so that a client asking without end does not flood the log.
void Server::count_forgotten_request(Client &client)
{
    ++counters_.requests_forgotten;
    int64_t forgotten = ++client.requests_forgotten;
    if ((forgotten & (forgotten - 1)) == 0)
        std::fprintf(stderr,
                     "zelhub: client %s from %s: forgot %" PRId64 " unanswered requests (over the bound of %d)\n",
                     label_of(client).c_str(), client.peer.c_str(), forgotten, options_.max_pending);
}

// The reply's request numbers are read from the last (this hop's) back to
// the first; the first one somebody waits for decides.
void Server::route_reply(const char *frame, int32_t frame_size)
{
    ClientId requester = -1;
    field::take_request_number_last_first(parsed_, numbers_, [&](const sVartoItem &number) {
        requester = pending_.take(std::string_view(number.data, size_t(number.len)));
        return requester >= 0;
    });
    if (requester >= 0)
        send_to(requester, frame, frame_size);
    else
        ++counters_.replies_unrouted;
}

void Server::send_to_others(Client &sender, const char *frame, int32_t frame_size)
{
    for (const auto &client : clients_)
        if (client && client.get() != &sender && !client->uses_address_book)
            send_to(client->id, frame, frame_size);
}

void Server::send_to(ClientId id, const char *frame, int32_t frame_size)
{
    Client &client = *clients_[size_t(id)];
    if (client.dropped)
        return;
    if (int64_t(client.output.size()) + frame_size > options_.max_backlog) {
        drop(client, "fell behind by more than " + std::to_string(options_.max_backlog) + " bytes");
        return;
    }
    while (total_backlog_ + frame_size > options_.max_total_backlog && !client.dropped)
        drop_most_behind(client, frame_size);
    if (client.dropped)
        return;
    client.output.append(frame, size_t(frame_size));
    total_backlog_ += frame_size;
    ++counters_.frames_out;
    if (!client.flush_queued) {
        client.flush_queued = true;
        to_flush_.push_back(id);
    }
}

// The client owed the most goes first, so that the slowest readers, not the
// healthy ones, pay for the hub's memory running out. The recipient counts
// the frame on its way, which it may be alone to owe.
void Server::drop_most_behind(const Client &recipient, int32_t frame_size)
{
    Client *most = nullptr;
    int64_t most_owed = 0;
    for (const auto &client : clients_) {
        if (!client || client->dropped)
            continue;
        int64_t owed = int64_t(client->output.size()) + (client.get() == &recipient ? frame_size : 0);
        if (owed > most_owed) {
            most = client.get();
            most_owed = owed;
        }
    }
    drop(*most, "all clients together fell behind by more than " + std::to_string(options_.max_total_backlog) +
                    " bytes; this one owed the most (" + std::to_string(most_owed) + " bytes)");
}

void Server::flush_outputs()
{
    for (ClientId id : to_flush_) {
        Client &client = *clients_[size_t(id)];
        client.flush_queued = false;
        if (!client.dropped)
            write_output(client);
    }
    to_flush_.clear();
}

void Server::write_output(Client &client)
{
    ByteBuffer &output = client.output;
    while (!output.empty()) {
        ssize_t sent = send(client.fd, output.data(), output.size(), MSG_NOSIGNAL);
        if (sent > 0) {
            output.consume(size_t(sent));
            total_backlog_ -= sent;
            counters_.bytes_out += sent;
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            break;
        } else if (errno != EINTR) {
            disconnect(client, socket_error());
            return;
        }
    }
    note_size(output);
    // Wake up for a full socket only while something waits to go out.
    watch_output(client, !output.empty());
}

// A buffer above the size kept for good is given back when the hub is next idle.
void Server::note_size(const ByteBuffer &buffer)
{
    oversized_buffers_ |= buffer.capacity() > kept_buffer_size;
}

void Server::give_back_buffers()
{
    oversized_buffers_ = false;
    for (const auto &client : clients_) {
        if (!client)
            continue;
        for (ByteBuffer *buffer : {&client->input, &client->output}) {
            buffer->shrink_if_empty_and_above(kept_buffer_size);
            note_size(*buffer);
        }
    }
}

void Server::watch_output(Client &client, bool watch)
{
    if (client.watching_output == watch)
        return;
    epoll_event event{};
    event.events = watch ? EPOLLIN | EPOLLOUT : EPOLLIN;
    event.data.u64 = uint64_t(client.id);
    if (epoll_ctl(epoll_fd_, EPOLL_CTL_MOD, client.fd, &event) != 0) {
        disconnect(client, system_error("epoll"));
        return;
    }
    client.watching_output = watch;
}

// The hub's own decision to let a client go, as opposed to the client leaving.
void Server::drop(Client &client, std::string_view why)
{
    if (client.dropped)
        return;
    ++counters_.clients_dropped;
    disconnect(client, why);
}

// Forgets the client at once, so that nothing more is routed to it; its
// socket and memory go at the end of the round, when no caller up the stack
// still uses them. An empty `why` is an ordinary leave, not logged.
void Server::disconnect(Client &client, std::string_view why)
{
    if (client.dropped)
        return;
    client.dropped = true;
    total_backlog_ -= int64_t(client.output.size());
    subscriptions_.forget(client.id);
    pending_.forget(client.id);
    to_close_.push_back(client.id);
    --live_clients_;
    if (!why.empty())
        std::fprintf(stderr, "zelhub: client %s from %s disconnected: %.*s\n", label_of(client).c_str(),
                     client.peer.c_str(), int(why.size()), why.data());
}

void Server::close_dropped_clients()
{
    for (ClientId id : to_close_) {
        close(clients_[size_t(id)]->fd);
        clients_[size_t(id)].reset();
        free_ids_.push_back(id);
    }
    if (!to_close_.empty())
        pause_accepting(false);
    to_close_.clear();
}

void Server::pause_accepting(bool pause)
{
    if (pause == accepting_paused_)
        return;
    if (pause)
        epoll_ctl(epoll_fd_, EPOLL_CTL_DEL, listen_fd_, nullptr);
    else
        add_to_epoll(epoll_fd_, listen_fd_, EPOLLIN, listener_token);
    accepting_paused_ = pause;
}

void Server::print_counters()
{
    const Counters &c = counters_;
    std::printf("zelhub stats: clients %d, frames in %" PRId64 ", frames out %" PRId64 ", bytes in %" PRId64
                ", bytes out %" PRId64 ", clients dropped %" PRId64 ", heartbeats %" PRId64
                ", unrouted replies %" PRId64 ", forgotten requests %" PRId64 "\n",
                live_clients_, c.frames_in, c.frames_out, c.bytes_in, c.bytes_out, c.clients_dropped, c.heartbeats,
                c.replies_unrouted, c.requests_forgotten);
    std::fflush(stdout);
}

} // namespace zelhub
