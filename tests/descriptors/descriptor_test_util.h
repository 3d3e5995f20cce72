// Helpers shared by the descriptor, log and platform tests: failure checks,
// a self-freeing scratch buffer, the length-prefixed framing of files and TCP
// sockets, and sockets on 127.0.0.1.
#pragma once

#include <zel/zel.h>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "message/message_test_util.h"

// Passes when a call answered 0 and wrote `detail`; `err` is taken by
// reference so that it is read after the call.
inline ::testing::AssertionResult failed_with(uint64_t result, const uint32_t &err, uint32_t detail)
{
    if (result == 0 && err == detail)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "answered " << result << " with detail " << err << ", not 0 with "
                                         << detail;
}
#define EXPECT_FAILURE(call, err, detail) EXPECT_TRUE(failed_with((call), (err), (detail)))

// A scratch buffer freed on scope exit; starts empty or holding `bytes`.
struct Scratch : zt::Scratch {
    Scratch() = default;
    explicit Scratch(const std::string &bytes) { assign(bytes); }
};

inline std::string length_prefix(uint32_t length)
{
    return std::string(reinterpret_cast<const char *>(&length), sizeof length);
}
inline std::string framed(const std::string &record) { return length_prefix(uint32_t(record.size())) + record; }

// A socket bound to 127.0.0.1 on a port the system picked, listening if
// asked; closed on scope exit.
struct LoopbackSocket {
    int fd;
    std::string address;
    LoopbackSocket(int type, bool listening) : fd(socket(AF_INET, type, 0))
    {
        sockaddr_in at{AF_INET, 0, {htonl(INADDR_LOOPBACK)}};
        socklen_t size = sizeof at;
        bind(fd, reinterpret_cast<sockaddr *>(&at), size);
        getsockname(fd, reinterpret_cast<sockaddr *>(&at), &size);
        address = "127.0.0.1:" + std::to_string(ntohs(at.sin_port));
        if (listening)
            listen(fd, 4);
    }
    ~LoopbackSocket() { close(fd); }
};
