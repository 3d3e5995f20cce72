// Helpers shared by the descriptor tests: failure checks, a self-freeing
// scratch buffer, and the length-prefixed framing of files and TCP sockets.
#pragma once

#include <zel/zel.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>

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
struct Scratch {
    scratchcb s{};
    Scratch() = default;
    explicit Scratch(const std::string &bytes)
    {
        int err;
        pset_buffer_size(&s, int(bytes.size()) + 1, &err);
        std::memcpy(s.data, bytes.data(), bytes.size());
        s.len = int32_t(bytes.size());
    }
    Scratch(const Scratch &) = delete;
    Scratch &operator=(const Scratch &) = delete;
    ~Scratch()
    {
        int ignored;
        punset_buffer_size(&s, &ignored);
    }
    std::string str() const { return std::string(s.data ? s.data : "", size_t(s.len)); }
};

inline std::string framed(const std::string &record)
{
    const uint32_t length = uint32_t(record.size());
    return std::string(reinterpret_cast<const char *>(&length), sizeof length) + record;
}
