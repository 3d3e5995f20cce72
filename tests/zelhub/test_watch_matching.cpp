// The watch index against a plain scan. Random watches on a few tags and
// values come and go, between messages and from inside receivers, and random
// messages are matched: the receive window must make exactly the scan's
// deliveries in the scan's order, and the hub's subscriptions must pick
// exactly the scan's clients.
#include <gtest/gtest.h>
#include <zel/engine.h>

#include <algorithm>
#include <functional>
#include <random>
#include <ranges>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "api/receive_window.h"
#include "message/wire.h"
#include "subscriptions.h"
#include "support/messages.h"

namespace {

using zel::test::Fields;
using zelhub::KeyList;

constexpr uint32_t seed = 20261125;
constexpr int receivers = 4;

class Random {
public:
    size_t below(size_t n) { return rng_() % n; }
    bool one_in(size_t n) { return below(n) == 0; }
    std::string value() { return values_[below(4)]; }
    // Up to three keys on tags 1 to 4, a tag possibly twice.
    KeyList keys()
    {
        KeyList keys(below(4));
        for (auto &key : keys)
            key = {int(1 + below(4)), value()};
        return keys;
    }
    // Tags 1 to 5, each there or not, with one or two values, in any order.
    Fields message()
    {
        Fields fields;
        for (int tag = 1; tag <= 5; ++tag)
            for (size_t n = one_in(3) ? 0 : 1 + below(2); n > 0; --n)
                fields.push_back({tag, value()});
        std::shuffle(fields.begin(), fields.end(), rng_);
        return fields;
    }

private:
    std::mt19937 rng_{seed};
    const char *values_[4] = {"", "a", "b", "ab"};
};

// The message in wire form, written directly rather than by a builder, whose
// large index would cost more than the rest of the test.
std::string wire_form(const Fields &fields)
{
    std::string bytes(ZEL_MSG_HEADER_SIZE, '\0');
    zel::wire::store_message_header(bytes.data(), uint32_t(fields.size()));
    for (const auto &[tag, value] : fields) {
        std::string item(ZEL_ITEM_HEADER_SIZE + value.size(), '\0');
        zel::wire::store_item(item.data(), uint16_t(tag), value.data(), int32_t(value.size()));
        bytes += item;
    }
    return bytes;
}

// Every key's field is there and, when the key has a value, the field's
// first value is that value.
bool scan_matches(const KeyList &keys, const Fields &message)
{
    return std::ranges::all_of(keys, [&](const zel::WatchKey &key) {
        auto field = std::ranges::find(message, key.tag, &Fields::value_type::first);
        return field != message.end() && (key.value.empty() || field->second == key.value);
    });
}

struct ScanWatch {
    sWatchData *handle;
    int receiver; // -1: none
    KeyList keys;
    bool removed = false;
};

using Delivery = std::tuple<int, const sWatchData *>; // (receiver, watch)

// The scan of one message over the `next` watches there when it arrived,
// newest first, a step per delivery, so that removals made by the receivers
// it has called count.
struct Scan {
    const std::vector<ScanWatch> &watches;
    const Fields &message;
    const std::string &bytes; // the message in wire form, to show on a failure
    size_t next;
    std::set<int> called;
    // The next delivery; (-1, null) when there is none.
    Delivery step()
    {
        while (next > 0) {
            const ScanWatch &w = watches[--next];
            // A receiver is called once per message, for its newest match.
            if (!w.removed && w.receiver >= 0 && scan_matches(w.keys, message) && called.insert(w.receiver).second)
                return {w.receiver, w.handle};
        }
        return {-1, nullptr};
    }
};

struct Recv : CZelReceiver {
    std::function<void(const sWatchData *)> on_call;
    int processMsg(vartocb *, int, sWatchData *watch, void *, int *) override
    {
        on_call(watch);
        return 1;
    }
    int processReply(vartocb *, int, void *, void *, int *) override { return 1; }
};

// One receive window and one hub table, driven alike, beside what the scans
// say of them.
class Round {
public:
    Round(Random &random, Recv *recv, vartocb *parsed) : random_(random), recv_(recv), parsed_(parsed)
    {
        // A receiver may remove a watch or add one: the scan of the message
        // in hand goes on with what it left.
        for (int r = 0; r < receivers; ++r)
            recv_[r].on_call = [this, r](const sWatchData *w) {
                EXPECT_EQ(Delivery(r, w), scan_->step()) << zel::test::admin_text(scan_->bytes);
                if (random_.one_in(4))
                    remove_one();
                if (random_.one_in(6))
                    add_watch();
            };
    }

    void add_watch()
    {
        int receiver = int(random_.below(receivers + 1)) - 1;
        KeyList keys = random_.keys();
        auto *w = new sWatchData{{}, {}, receiver < 0 ? nullptr : &recv_[receiver], nullptr, "", ""};
        for (const auto &key : keys) {
            w->tags.push_back(key.tag);
            w->values.push_back(key.value);
        }
        window_.add_watch(w);
        watches_.push_back({w, receiver, keys});
        if (receiver < 0)
            return;
        auto &mine = subscribed_[size_t(receiver)];
        if (std::find(mine.begin(), mine.end(), keys) == mine.end())
            mine.push_back(keys);
        subscriptions_.add(receiver, keys);
    }

    // A removed watch's address may be a new watch's: only live ones are named.
    void remove_one()
    {
        if (watches_.empty())
            return;
        ScanWatch &w = watches_[random_.below(watches_.size())];
        if (!std::exchange(w.removed, true)) {
            EXPECT_TRUE(window_.remove_watch(w.handle));
        }
    }

    // Every watch of one receiver, newest first; the hub forgets the client.
    void remove_receiver()
    {
        int receiver = int(random_.below(receivers));
        std::vector<const sWatchData *> removed, expected;
        for (ScanWatch &w : watches_ | std::views::reverse)
            if (w.receiver == receiver && !std::exchange(w.removed, true))
                expected.push_back(w.handle);
        EXPECT_EQ(window_.remove_watches([&](const sWatchData &w) { return w.receiver == &recv_[receiver]; },
                                         [&](const sWatchData &w) { removed.push_back(&w); }),
                  int(expected.size()));
        EXPECT_EQ(removed, expected);
        subscribed_[size_t(receiver)].clear();
        subscriptions_.forget(receiver);
    }

    // One of the client's subscriptions, or keys it may not have.
    void unsubscribe()
    {
        int client = int(random_.below(receivers));
        auto &mine = subscribed_[size_t(client)];
        KeyList keys = mine.empty() || random_.one_in(4) ? random_.keys() : mine[random_.below(mine.size())];
        std::erase(mine, keys);
        subscriptions_.remove(client, keys);
    }

    void deliver()
    {
        Fields message = random_.message();
        std::string bytes = wire_form(message);
        // Each receiver's call checks itself against the scan's next step.
        Scan scan{watches_, message, bytes, watches_.size(), {}};
        scan_ = &scan;
        window_.dispatch(bytes.data(), int32_t(bytes.size()), 1);
        EXPECT_EQ(scan.step(), Delivery(-1, nullptr)) << "missing in " << zel::test::admin_text(bytes);

        std::vector<zelhub::ClientId> clients, expected;
        auto matches = [&](const KeyList &keys) { return scan_matches(keys, message); };
        for (int client = 0; client < receivers; ++client)
            if (std::ranges::any_of(subscribed_[size_t(client)], matches))
                expected.push_back(client);
        int err = 0;
        scratchcb in = zel::test::scratch_of(bytes);
        ASSERT_TRUE(zel_parse_msg(parsed_, &in, &err));
        subscriptions_.match(parsed_, clients);
        std::ranges::sort(clients);
        EXPECT_EQ(clients, expected) << zel::test::admin_text(bytes);

        // The window's meter counts its live watches.
        sZelMeters meters{};
        window_.read_meters(&meters);
        EXPECT_EQ(meters.counters[0], uint64_t(std::ranges::count(watches_, false, &ScanWatch::removed)));
    }

private:
    Random &random_;
    Recv *recv_; // `receivers` of them
    vartocb *parsed_;
    CIntRxWnd window_;
    std::vector<ScanWatch> watches_; // oldest first
    Scan *scan_ = nullptr;           // of the message being dispatched
    zelhub::Subscriptions subscriptions_;
    std::vector<std::vector<KeyList>> subscribed_ = std::vector<std::vector<KeyList>>(receivers);
};

TEST(WatchMatching, IndexFindsWhatAScanFindsOverRandomWatchesMessagesAndRemovals)
{
    SCOPED_TRACE("seed " + std::to_string(seed));
    Random random;
    Recv recv[receivers];
    vartocb *parsed = nullptr;
    int err = 0;
    ASSERT_TRUE(zel_ctor_vartocb(&parsed, &err));
    for (int round = 0; round < 200 && !HasFailure(); ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        Round r(random, recv, parsed);
        for (int op = 0; op < 120; ++op) {
            size_t roll = random.below(20);
            if (roll < 8)
                r.add_watch();
            else if (roll < 10)
                r.remove_one();
            else if (roll == 10)
                r.remove_receiver();
            else if (roll == 11)
                r.unsubscribe();
            else
                r.deliver();
        }
    }
    zel_dtor_vartocb(&parsed, &err);
}

} // namespace
