// Loopback ports for tests and benchmarks, picked by the system.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace zel::test {

// A socket of `type` (SOCK_STREAM, SOCK_DGRAM) bound to a free loopback
// port, which `*port` receives.
inline int bound_loopback_socket(int type, int *port)
{
    int s = ::socket(AF_INET, type, 0);
    sockaddr_in a{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t size = sizeof a;
    if (s < 0 || ::bind(s, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 ||
        ::getsockname(s, reinterpret_cast<sockaddr *>(&a), &size) != 0)
        throw std::runtime_error("no free loopback port");
    *port = ntohs(a.sin_port);
    return s;
}

// A loopback port that nothing uses now: bound once and let go.
inline int free_loopback_port(int type = SOCK_STREAM)
{
    int port = 0;
    ::close(bound_loopback_socket(type, &port));
    return port;
}

} // namespace zel::test
