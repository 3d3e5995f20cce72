// The hub's reference: a relay that forwards bytes between two clients
// without reading them. Engines connected to it instead of the hub still
// talk (every frame reaches the other side, and the engines match watches and
// services themselves), so the same engines through the hub and through the
// relay show what the hub costs beyond moving the bytes.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>
#include <thread>
#include <vector>

namespace zel::reference {

class RawRelay {
public:
    // Listens on a free loopback port and joins the first two clients that
    // connect, from a thread of its own.
    RawRelay()
    {
        listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        auto *where = reinterpret_cast<sockaddr *>(&address);
        socklen_t size = sizeof address;
        if (listener_ < 0 || ::bind(listener_, where, size) != 0 || ::listen(listener_, 4) != 0 ||
            ::getsockname(listener_, where, &size) != 0) {
            if (listener_ >= 0)
                ::close(listener_);
            throw std::runtime_error("the relay cannot listen on the loopback interface");
        }
        port_ = ntohs(address.sin_port);
        joiner_ = std::thread([this] { join_clients(); });
    }
    ~RawRelay()
    {
        // Ends a wait in accept() as well as the forwarding reads.
        ::shutdown(listener_, SHUT_RDWR);
        joiner_.join();
        for (int client : clients_)
            ::shutdown(client, SHUT_RDWR);
        for (std::thread &forwarder : forwarders_)
            forwarder.join();
        for (int client : clients_)
            ::close(client);
        ::close(listener_);
    }
    RawRelay(const RawRelay &) = delete;
    RawRelay &operator=(const RawRelay &) = delete;

    int port() const { return port_; }

private:
    // @locality the joiner thread; the destructor reads what it made only
    // after joining it
    void join_clients()
    {
        while (clients_.size() < 2) {
            int client = ::accept(listener_, nullptr, nullptr);
            if (client < 0)
                return;
            clients_.push_back(client);
        }
        forwarders_.emplace_back([this] { forward(clients_[0], clients_[1]); });
        forwarders_.emplace_back([this] { forward(clients_[1], clients_[0]); });
    }

    // @locality one forwarder thread per direction
    static void forward(int from, int to)
    {
        std::vector<char> buffer(1 << 16);
        for (;;) {
            ssize_t n = ::read(from, buffer.data(), buffer.size());
            if (n <= 0)
                return;
            for (const char *bytes = buffer.data(); n > 0;) {
                ssize_t sent = ::send(to, bytes, size_t(n), MSG_NOSIGNAL);
                if (sent <= 0)
                    return;
                bytes += sent;
                n -= sent;
            }
        }
    }

    int listener_ = -1;
    int port_ = 0;
    std::thread joiner_;
    std::vector<int> clients_;
    std::vector<std::thread> forwarders_;
};

} // namespace zel::reference
