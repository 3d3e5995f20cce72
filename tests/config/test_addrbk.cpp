// The address-book client against an in-test service, where the request
// bytes are inspected or a fault is injected; the tool's tests go through
// the real zelhub.
#include <gtest/gtest.h>
#include <zel/addrbk.h>

#include <stdlib.h>

#include <functional>
#include <future>
#include <string>
#include <tuple>
#include <vector>

#include "message/message_test_util.h" // EXPECT_RESULT
#include "support/frame_socket.h"
#include "support/messages.h"
#include "support/scoped_env.h"

namespace {

using namespace zel::test;
using namespace zt;

void point_service_at(int port) { ::setenv("PL_LOC_BROK_ADDR", ("127.0.0.1:" + std::to_string(port)).c_str(), 1); }

// One lookup's outcome, with the three pairs' values as text.
struct Lookup {
    uint64_t result = 0;
    uint32_t detail = 0, kind = 0;
    Strings pairs;
};

// What the pairs hold before a lookup.
const Strings kBefore = {"p1a", "p1b", "p2a", "p2b", "p3a", "p3b"};

// Looks `key` up on another thread while `serve` plays the service on this one.
Lookup lookup(const std::string &key, const std::function<void(FrameSocket &)> &serve)
{
    FrameListener listener;
    point_service_at(listener.port());
    auto done = std::async(std::launch::async, [key] {
        sPChar pairs[6];
        for (int i = 0; i < 6; ++i)
            pairs[i] = pc(kBefore[size_t(i)]);
        Lookup out;
        sPChar key_text = pc(key);
        out.result = p_addr_get_details_from_addrbk(&key_text, pairs, pairs + 2, pairs + 4, &out.kind, &out.detail);
        for (int i = 0; i < 6; ++i) {
            out.pairs.push_back(pairs[i].data ? str(pairs[i]) : "(null)");
            if (pairs[i].data && pairs[i].data != kBefore[size_t(i)].data())
                pchar_destroy_mem(&pairs[i], nullptr); // the lookup's own copy
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
    sPChar address = pc(service), key = pc(k), where = pc(w);
    void *sd = nullptr;
    uint32_t err = 0;
    ASSERT_EQ(p_addr_connect_to_addrbk(&sd, &address, &err), 1u);
    FrameSocket peer = listener.accept().value();
    EXPECT_EQ(p_addrbk_request(sd, &where, &key, &err), 1u);
    EXPECT_EQ(p_addrbk_update_request(sd, &where, &key, &err), 1u);
    EXPECT_EQ(p_addrbk_remove_request(sd, &key, &err), 1u);
    EXPECT_RESULT(p_addrbk_remove_request(sd, nullptr, &err), 0u, 2u);
    for (const char *expected : {"0 1 mrv_ab 10000 1 'desk 7' 10046 1 10.1.2.3:7001 ",
                                 "0 1 mrv_lb_set_info 10000 1 'desk 7' 10046 1 10.1.2.3:7001 ",
                                 "0 1 mrv_lb_unset_info 10000 1 'desk 7' "})
        EXPECT_EQ(admin_text(peer.read_message().value_or("")), expected);
    EXPECT_EQ(p_addr_discnnct_from_addrbk(&sd, &err), 1u);
    EXPECT_EQ(sd, nullptr);
    // Filing and removing send one request on a connection of their own, to
    // the service given or, for an empty one, to PL_LOC_BROK_ADDR.
    point_service_at(listener.port());
    sPChar from_environment{};
    EXPECT_EQ(p_addr_update_addrbk(&key, nullptr, &from_environment, &where, nullptr, &err), 1u);
    EXPECT_EQ(p_addr_remove_addrbk(&key, nullptr, &address, &err), 1u);
    for (const char *expected : {"0 1 mrv_lb_set_info 10000 1 'desk 7' 10046 1 10.1.2.3:7001 ",
                                 "0 1 mrv_lb_unset_info 10000 1 'desk 7' "})
        EXPECT_EQ(admin_text(listener.accept().value().read_message().value_or("")), expected);
}

TEST(AddressBook, AReplyMapsIntoThePairsAndOnlyWhatItCarries)
{
    auto reply_with = [](Fields fields) {
        return [fields](FrameSocket &peer) {
            EXPECT_EQ(admin_text(peer.read_message().value_or("")), "0 1 mrv_ab 10000 1 k ");
            peer.send_message(build_message(fields));
        };
    };
    Lookup plain = lookup("k", reply_with({{10046, "host:1"}})); // no 32750: the third pair's first is null
    EXPECT_EQ(std::make_tuple(plain.result, plain.kind, plain.pairs),
              std::make_tuple(uint64_t{1}, 1u, Strings{"p1a", "p1b", "host:1", "p2b", "(null)", "p3b"}));
    Lookup full = lookup("k", reply_with({{10046, "host:2"}, {10003, "d"}, {32771, "s1"}, {32773, "s3"},
                                          {32750, "t"}}));
    EXPECT_EQ(std::make_pair(full.kind, full.pairs),
              std::make_pair(2u, Strings{"d", "s1", "host:2", "p2b", "t", "s3"}));
    Lookup missing = lookup("k", reply_with({{10003, "d"}})); // nothing written on failure
    EXPECT_EQ(std::make_tuple(missing.result, missing.detail, missing.pairs),
              std::make_tuple(uint64_t{0}, 3u, kBefore));
}

TEST(AddressBook, ALookupFailsClearlyWhenTheServiceFails)
{
    ScopedEnv quick("ZEL_ADDRBK_TIMEOUT_MS", "50");
    EXPECT_EQ(lookup("k", [](auto &) {}).detail, 31u); // closed without a word
    auto hold = [](FrameSocket &peer) { // reads the request, then holds the line past the bound
        peer.read_message();
        peer.read_message(std::chrono::milliseconds(1000));
    };
    EXPECT_EQ(lookup("k", hold).detail, 4u);
    Lookup garbage = lookup("k", [](FrameSocket &peer) { peer.send_message("not a message"); });
    EXPECT_TRUE(garbage.result == 0 && garbage.detail != 0);

    point_service_at(FrameListener().port()); // closed again at once
    sPChar key = pc("k"), pair[2] = {};
    uint32_t err = 0;
    EXPECT_RESULT(p_addr_local_addrbk_lookup(&key, pair, &err), 0u, 7u);
}

} // namespace
