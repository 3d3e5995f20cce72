// Helpers shared by the descriptor, log and platform tests: failure checks,
// the length-prefixed framing of files and TCP sockets, and sockets on 127.0.0.1.
#pragma once

#include <zel/zel.h>

#include <gtest/gtest.h>

#include <string>

#include "message/message_test_util.h"
#include "support/ports.h"

// Checks that a call answered 0 and wrote `detail`; `err` is read after the call.
#define EXPECT_FAILURE(call, err, detail)                                                                \
    EXPECT_EQ(([&] { uint64_t result = (call); return std::make_pair(result, uint64_t(err)); }()),      \
              std::make_pair(uint64_t{0}, uint64_t(detail)))

using zt::Scratch;

inline std::string length_prefix(uint32_t n) { return std::string(reinterpret_cast<const char *>(&n), sizeof n); }
inline std::string framed(const std::string &record) { return length_prefix(uint32_t(record.size())) + record; }

// A socket bound to 127.0.0.1 on a port the system picked, listening if
// asked; closed on scope exit.
struct LoopbackSocket {
    int port = 0, fd;
    std::string address;
    LoopbackSocket(int type, bool listening)
        : fd(zel::test::bound_loopback_socket(type, &port)), address("127.0.0.1:" + std::to_string(port))
    {
        if (listening)
            listen(fd, 4);
    }
    ~LoopbackSocket() { close(fd); }
};
