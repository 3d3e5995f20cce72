// Raw hub peers for tests: a socket that sends and reads whole frames, and
// a listener that plays the hub where a fault must be injected.
#pragma once

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

#include "support/ports.h"
#include "support/time_factor.h"
#include "transport/hub/framing.h"

namespace zel::test {

// The header of a frame of `length` bytes, whether or not they follow.
inline std::string frame_header(uint32_t length)
{
    std::string header(hub::frame_header_size, '\0');
    hub::put_frame_length(header.data(), length);
    return header;
}

inline std::string frame(const std::string &message)
{
    return frame_header(uint32_t(message.size())) + message;
}

// Sets the receive buffer of `fd` to `size` unless it is 0; answers `fd`.
inline int with_receive_buffer(int fd, int size)
{
    if (size)
        ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    return fd;
}

class FrameSocket {
public:
    explicit FrameSocket(int fd = -1) : fd_(fd) {}
    ~FrameSocket() { close(); }
    FrameSocket(FrameSocket &&other) noexcept : fd_(other.fd_) { other.fd_ = -1; }

    // A `receive_buffer` other than 0 sets the socket's receive buffer first.
    static FrameSocket connect_to(int port, int receive_buffer = 0)
    {
        sockaddr_in a{AF_INET, htons(uint16_t(port)), {htonl(INADDR_LOOPBACK)}, {}};
        FrameSocket socket(with_receive_buffer(::socket(AF_INET, SOCK_STREAM, 0), receive_buffer));
        if (::connect(socket.fd_, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0)
            throw std::runtime_error("connect failed");
        return socket;
    }

    int fd() const { return fd_; }
    void close()
    {
        if (fd_ >= 0)
            ::close(fd_);
        fd_ = -1;
    }

    bool send_raw(const std::string &bytes)
    {
        return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == ssize_t(bytes.size());
    }
    bool send_message(const std::string &message) { return send_raw(frame(message)); }

    // The next frame's message, or nothing when the peer closed or the wait
    // ran out.
    std::optional<std::string> read_message(std::chrono::milliseconds wait = patience())
    {
        auto deadline = std::chrono::steady_clock::now() + wait;
        std::string header, message;
        if (!read_exactly(header, hub::frame_header_size, deadline))
            return std::nullopt;
        if (!read_exactly(message, size_t(hub::frame_length(header.data())), deadline))
            return std::nullopt;
        return message;
    }

private:
    bool read_exactly(std::string &out, size_t size, std::chrono::steady_clock::time_point deadline)
    {
        out.resize(size);
        size_t got = 0;
        while (got < size) {
            auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            pollfd p{fd_, POLLIN, 0};
            if (left.count() <= 0 || ::poll(&p, 1, int(left.count())) <= 0)
                return false;
            ssize_t n = ::recv(fd_, out.data() + got, size - got, 0);
            if (n <= 0)
                return false;
            got += size_t(n);
        }
        return true;
    }

    int fd_;
};

// Listens on a free loopback port and hands out the connections it accepts.
class FrameListener {
public:
    // A `receive_buffer` other than 0 sets it for every connection accepted.
    explicit FrameListener(int receive_buffer = 0)
        : fd_(with_receive_buffer(bound_loopback_socket(SOCK_STREAM, &port_), receive_buffer))
    {
        if (::listen(fd_, 16) != 0)
            throw std::runtime_error("listen failed");
    }
    ~FrameListener() { ::close(fd_); }

    int port() const { return port_; }
    std::optional<FrameSocket> accept(std::chrono::milliseconds wait = patience())
    {
        pollfd p{fd_, POLLIN, 0};
        if (::poll(&p, 1, int(wait.count())) <= 0)
            return std::nullopt;
        return FrameSocket(::accept(fd_, nullptr, nullptr));
    }

private:
    int port_ = 0; // before fd_, which the constructor sets it with
    int fd_;
};

} // namespace zel::test
