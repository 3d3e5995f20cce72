// Helpers shared by the message tests: raw wire bytes written independently of
// the library's builder (so parser tests stand on their own), RAII holders for
// scratchcb and vartocb, and readers of a parsed message.
#pragma once

#include <gtest/gtest.h>
#include <zel/message.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

// Runs `call`, which writes its detail into the local `err` (preset to -99),
// and checks both the result and the detail.
#define EXPECT_RESULT(call, result, detail)                                                        \
    do { err = -99; EXPECT_EQ((call), (result)); EXPECT_EQ(err, (detail)); } while (0)

namespace zt {

using Item = std::pair<int, std::string>;
using Strings = std::vector<std::string>;
using Tags = std::vector<int>;

// The bytes of `v` in host order, the wire's order.
template <typename T> std::string bytes_of(T v) { return std::string(reinterpret_cast<const char *>(&v), sizeof v); }
template <typename T> void put(std::string &b, T v) { b += bytes_of(v); }

// A whole message (tag, length, value bytes per item); a non-negative `count`
// replaces the true item count in the header.
inline std::string wire_msg(const std::vector<Item> &items, int64_t count = -1)
{
    std::string b = bytes_of(uint16_t(ZEL_MSG_MAGIC)) + bytes_of(count < 0 ? uint32_t(items.size()) : uint32_t(count));
    for (const auto &[tag, value] : items)
        b += bytes_of(uint16_t(tag)) + bytes_of(uint32_t(value.size())) + value;
    return b;
}

inline std::string str(const sPChar &p) { return p.data ? std::string(p.data, size_t(p.len)) : std::string(); }

// A counted view; the empty text gives the empty value (null, 0).
inline sPChar pc(const char *s) { return *s ? sPChar{const_cast<char *>(s), int32_t(strlen(s))} : sPChar{}; }
inline sPChar pc(const std::string &s)
{
    return {s.empty() ? nullptr : const_cast<char *>(s.data()), int32_t(s.size())};
}
sPChar pc(std::string &&) = delete;

// A caller-owned scratch of exactly `size` bytes, released on scope exit.
struct Scratch {
    scratchcb s{};
    explicit Scratch(int size = 64) { reopen(size); }
    explicit Scratch(const std::string &bytes) : Scratch() { assign(bytes); }
    ~Scratch() { int err; punset_buffer_size(&s, &err); }
    void reopen(int size)
    {
        int err;
        punset_buffer_size(&s, &err);
        EXPECT_EQ(zel_open_scratchcb(&s, size, &err), 1);
    }
    // Replaces the content, growing the buffer only when needed.
    void assign(const std::string &bytes)
    {
        int err;
        EXPECT_TRUE(int(bytes.size()) <= s.alloc || pset_buffer_size(&s, int(bytes.size()), &err));
        memcpy(s.data, bytes.data(), bytes.size());
        s.len = int32_t(bytes.size());
    }
    std::string bytes() const { return std::string(s.data, size_t(s.len)); }
};

struct Varto {
    vartocb *m = nullptr;
    Varto() { int err; EXPECT_EQ(zel_ctor_vartocb(&m, &err), 1); }
    ~Varto() { int err; zel_dtor_vartocb(&m, &err); }
    operator vartocb *() const { return m; }
    vartocb *operator->() const { return m; }
};

// Per-test state: one vartocb (a big record: one per test, never more) and an
// input and an output scratch. Suites alias it to name their tests.
struct MessageTest : ::testing::Test {
    int err = 0;
    Varto m;
    Scratch in, out;

    // Holds `bytes` in an input of exactly that size: a read past the end leaves it.
    void load(const std::string &bytes)
    {
        in.reopen(bytes.empty() ? 1 : int(bytes.size()));
        in.assign(bytes);
    }
    // Loads `bytes` and parses its first message in place.
    void parse(const std::string &bytes)
    {
        load(bytes);
        ASSERT_EQ(zel_parse_msg(m, &in.s, &err), 1) << "detail " << err;
    }
    // zel_get_parsed_msg as (offset into the input, length), or (-1, detail).
    std::pair<long, int> parsed()
    {
        sPChar p{};
        return zel_get_parsed_msg(m, &p, &err) ? std::make_pair(long(p.data - in.s.data), p.len)
                                               : std::make_pair(-1L, err);
    }
};

// Starts a message at the beginning of `out` (first reopened at `size` bytes
// when one is given) and adds the items one by one.
inline void build(vartocb *m, Scratch &out, const std::vector<Item> &items, int size = 0)
{
    int err = 0;
    if (size)
        out.reopen(size);
    out.s.len = 0;
    ASSERT_EQ(zel_start_msg(m, &out.s, &err), 1);
    for (const auto &[tag, value] : items) {
        sPChar v = pc(value);
        ASSERT_EQ(zel_add_data(m, tag, 1, &v, &err), 1) << "tag " << tag << " detail " << err;
    }
}

// Every item of `tag` in index order ("" for an empty value, which must
// answer detail 6); checks that each value lies inside the message's buffer.
inline Strings values(vartocb *m, int tag)
{
    Strings out;
    int count = 0, err = 0;
    for (int i = 0, n = zel_get_field(m, tag, &count, &err) ? count : 0; i < n; ++i) {
        sPChar v{};
        const char *b = m->build->data;
        if (zel_get_data(m, tag, i, &v, &err))
            EXPECT_TRUE(v.len > 0 && v.data >= b && v.data + v.len <= b + m->build->len) << tag << " item " << i;
        else
            EXPECT_EQ(std::make_pair(err, v.data), std::make_pair(6, static_cast<char *>(nullptr))) << tag;
        out.push_back(str(v));
    }
    return out;
}

// The tags in iteration order.
inline Tags field_order(vartocb *m)
{
    Tags tags;
    int tag = -1, count = 0, err = 0;
    for (int r = zel_get_first_field(m, &tag, &count, &err); r && tags.size() < 100000;
         r = zel_get_next_field(m, &tag, &count, &err))
        tags.push_back(tag);
    return tags;
}

} // namespace zt
