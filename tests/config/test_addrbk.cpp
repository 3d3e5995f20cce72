// The address-book client: against the real zelhub, and against an in-test
// service where the request bytes are inspected or a fault is injected.
#include <gtest/gtest.h>
#include <zel/addrbk.h>

#include <stdlib.h>

#include <functional>
#include <future>
#include <string>

#include "support/frame_socket.h"
#include "support/messages.h"
#include "support/zelhub_process.h"

namespace {

using zel::test::admin_text;
using zel::test::build_message;
using zel::test::FrameListener;

// Points at `s`, which must outlive the result.
sPChar text(const std::string &s)
{
    return sPChar{const_cast<char *>(s.data()), int32_t(s.size())};
}

std::string value(const sPChar &s)
{
    return s.data ? std::string(s.data, size_t(s.len)) : "(null)";
}

void point_service_at(int port)
{
    ::setenv("PL_LOC_BROK_ADDR", ("127.0.0.1:" + std::to_string(port)).c_str(), 1);
}

// One lookup's outcome, with every pair value as text.
struct Lookup {
    uint64_t result = 0;
    uint32_t detail = 0, kind = 0;
    std::string pairs[3][2];
};

// Looks `key` up on another thread while `serve` plays the service on this one.
Lookup lookup(const std::string &key, const std::function<void(zel::test::FrameSocket &)> &serve)
{
    FrameListener listener;
    point_service_at(listener.port());
    auto done = std::async(std::launch::async, [key] {
        static const std::string before[3][2] = {{"p1a", "p1b"}, {"p2a", "p2b"}, {"p3a", "p3b"}};
        sPChar pairs[3][2];
        for (int p = 0; p < 3; ++p)
            for (int v = 0; v < 2; ++v)
                pairs[p][v] = text(before[p][v]);
        Lookup out;
        std::string k = key;
        sPChar key_text = text(k);
        out.result = p_addr_get_details_from_addrbk(&key_text, pairs[0], pairs[1], pairs[2], &out.kind, &out.detail);
        for (int p = 0; p < 3; ++p)
            for (int v = 0; v < 2; ++v) {
                out.pairs[p][v] = value(pairs[p][v]);
                if (pairs[p][v].data && pairs[p][v].data != before[p][v].data())
                    pchar_destroy_mem(&pairs[p][v], nullptr); // the lookup's own copy
            }
        return out;
    });
    if (auto peer = listener.accept())
        serve(*peer);
    return done.get();
}

TEST(AddressBook, RequestsCarryTheirFieldsInOrder)
{
    FrameListener listener;
    std::string service = "127.0.0.1:" + std::to_string(listener.port()), k = "desk 7", w = "10.1.2.3:7001";
    sPChar address = text(service), key = text(k), where = text(w);
    void *sd = nullptr;
    uint32_t err = 0;
    ASSERT_EQ(p_addr_connect_to_addrbk(&sd, &address, &err), 1u);
    auto peer = listener.accept();
    ASSERT_TRUE(peer);
    EXPECT_EQ(p_addrbk_request(sd, &where, &key, &err), 1u);
    EXPECT_EQ(p_addrbk_update_request(sd, &where, &key, &err), 1u);
    EXPECT_EQ(p_addrbk_remove_request(sd, &key, &err), 1u);
    EXPECT_EQ(p_addrbk_remove_request(sd, nullptr, &err), 0u);
    EXPECT_EQ(err, 2u);
    for (const char *expected : {"0 1 mrv_ab 10000 1 'desk 7' 10046 1 10.1.2.3:7001 ",
                                 "0 1 mrv_lb_set_info 10000 1 'desk 7' 10046 1 10.1.2.3:7001 ",
                                 "0 1 mrv_lb_unset_info 10000 1 'desk 7' "})
        EXPECT_EQ(admin_text(peer->read_message().value_or("")), expected);
    EXPECT_EQ(p_addr_discnnct_from_addrbk(&sd, &err), 1u);
    EXPECT_EQ(sd, nullptr);
}

TEST(AddressBook, AReplyMapsIntoThePairsAndOnlyWhatItCarries)
{
    auto reply_with = [](zel::test::Fields fields) {
        return [fields](zel::test::FrameSocket &peer) {
            EXPECT_EQ(admin_text(peer.read_message().value_or("")), "0 1 mrv_ab 10000 1 k ");
            peer.send_message(build_message(fields));
        };
    };
    Lookup plain = lookup("k", reply_with({{10046, "host:1"}}));
    EXPECT_EQ(plain.result, 1u);
    EXPECT_EQ(plain.kind, 1u);
    EXPECT_EQ(plain.pairs[1][0], "host:1");
    EXPECT_EQ(plain.pairs[2][0], "(null)"); // no 32750
    for (int p = 0; p < 3; ++p)
        EXPECT_EQ(plain.pairs[p][1], "p" + std::to_string(p + 1) + "b"); // untouched

    Lookup full = lookup("k", reply_with({{10046, "host:2"}, {10003, "d"}, {32771, "s1"}, {32773, "s3"},
                                          {32750, "t"}}));
    EXPECT_EQ(full.kind, 2u);
    EXPECT_EQ(full.pairs[0][0] + full.pairs[0][1] + full.pairs[1][0] + full.pairs[1][1] + full.pairs[2][0] +
                  full.pairs[2][1],
              "ds1host:2p2bts3");

    Lookup missing = lookup("k", reply_with({{10003, "d"}}));
    EXPECT_EQ(missing.result, 0u);
    EXPECT_EQ(missing.detail, 3u);
    EXPECT_EQ(missing.pairs[0][0], "p1a"); // nothing written on failure
}

TEST(AddressBook, ALookupFailsClearlyWhenTheServiceFails)
{
    ::setenv("ZEL_ADDRBK_TIMEOUT_MS", "50", 1);
    EXPECT_EQ(lookup("k", [](auto &) {}).detail, 31u); // closed without a word
    EXPECT_EQ(lookup("k", [](zel::test::FrameSocket &peer) {
                  peer.read_message();
                  peer.read_message(std::chrono::milliseconds(1000)); // holds the line past the bound
              }).detail,
              4u);
    Lookup garbage = lookup("k", [](zel::test::FrameSocket &peer) { peer.send_message("not a message"); });
    EXPECT_EQ(garbage.result, 0u);
    EXPECT_NE(garbage.detail, 0u);
    ::unsetenv("ZEL_ADDRBK_TIMEOUT_MS");

    int closed_port;
    {
        FrameListener gone;
        closed_port = gone.port();
    }
    point_service_at(closed_port);
    std::string k = "k";
    sPChar key = text(k), pair[2] = {};
    uint32_t err = 0;
    EXPECT_EQ(p_addr_local_addrbk_lookup(&key, pair, &err), 0u);
    EXPECT_EQ(err, 7u);
}

TEST(AddressBook, UpdateLookupAndRemoveThroughZelhub)
{
    zel::test::ZelhubProcess hub;
    point_service_at(hub.port());
    std::string k = "pricing", a = "10.0.0.9:7100";
    sPChar key = text(k), address = text(a), from_environment{};
    uint32_t err = 0;
    ASSERT_EQ(p_addr_update_addrbk(&key, nullptr, &from_environment, &address, nullptr, &err), 1u);
    sPChar pair[2] = {};
    ASSERT_EQ(p_addr_local_addrbk_lookup(&key, pair, &err), 1u);
    EXPECT_EQ(value(pair[0]), "10.0.0.9:7100");
    pchar_destroy_mem(&pair[0], nullptr);

    std::string service = "127.0.0.1:" + std::to_string(hub.port());
    sPChar holder = text(service);
    ASSERT_EQ(p_addr_remove_addrbk(&key, nullptr, &holder, &err), 1u);
    EXPECT_EQ(p_addr_local_addrbk_lookup(&key, pair, &err), 0u);
    EXPECT_EQ(err, 3u);
}

} // namespace
