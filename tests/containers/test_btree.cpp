// Ordered map: byte order across first-byte partitions, the caller's
// ordering with its tail-first check, range searches, deletion and meters.
#include <zel/containers.h>

#include <array>
#include <cstdlib>
#include <string>
#include <tuple>
#include <vector>

#include "message/message_test_util.h" // EXPECT_RESULT, str

namespace {

using Keys = std::vector<std::string>;
using zt::str;

// Unlike zt::pc, an empty key keeps its (non-null) bytes.
sPChar key(const std::string &s) { return sPChar{const_cast<char *>(s.data()), int32_t(s.size())}; }

// Orders keys as decimal numbers and counts its calls.
int compare_calls = 0;
int numeric_order(sPChar *k, sZELBtreeKeycb *node, int *result, int *)
{
    ++compare_calls;
    long a = std::strtol(str(*k).c_str(), nullptr, 10);
    long b = std::strtol(std::string(node->key, size_t(node->key_len)).c_str(), nullptr, 10);
    *result = a == b ? 1 : a < b ? 2 : 3;
    return 1;
}

struct Tree {
    void *t = nullptr;
    int err = 0;
    Keys keys; // the bytes every stored key points at

    // Opens a tree in `mode` and inserts `initial` in that order.
    explicit Tree(int mode, const Keys &initial = {}, zel_btree_compare_fn compare = nullptr)
    {
        keys.reserve(1000);
        sZELBtreeParams p{7, 8, mode, &keys, nullptr, compare};
        EXPECT_RESULT(zel_btree_open(&t, &p, &err), 1, 1);
        for (const std::string &k : initial)
            EXPECT_EQ(insert(k), 1) << k;
    }
    ~Tree() { zel_btree_close(&t, &err); }

    int insert(const std::string &s)
    {
        keys.push_back(s);
        sPChar k = key(keys.back());
        return zel_btree_insert_item(t, &k, &keys.back(), &err);
    }
    // Every key from one end to the other, through the neighbour lookups.
    Keys walk(bool ascending)
    {
        Keys out;
        sPChar k;
        auto first = ascending ? zel_btree_find_first_key : zel_btree_find_last_key;
        auto step = ascending ? zel_btree_find_next_key : zel_btree_find_prev_key;
        for (int ok = first(t, &k, nullptr, &err); ok; ok = step(t, &k, nullptr, &err))
            out.push_back(str(k));
        EXPECT_EQ(err, 2);
        return out;
    }
    Keys forward() { return walk(true); }
    // The key a range search finds for `s`, or "-".
    std::string search(decltype(zel_btree_find_next_key_less_than) find, const std::string &s)
    {
        sPChar k = key(s), found{};
        return find(t, &k, &found, nullptr, &err) ? str(found) : "-";
    }
    std::string lower_bound(const std::string &s) { return search(zel_btree_find_first_key_not_less_than, s); }
    std::string below(const std::string &s) { return search(zel_btree_find_next_key_less_than, s); }
};

// Byte order is strcmp order: a key's bytes after a NUL do not count, and keys
// equal by it stay in the order they arrived.
TEST(BtreeByteOrder, KeepsKeysInOrderAcrossPartitions)
{
    const std::string nul("\0nul", 4), ca("c\0a", 3), cb("c\0b", 3);
    Tree t(0, {nul, "b", "a", "c", ca, "zeta", "alpha", "Beta", "alphabet", "al", "0", "cz", cb, "zebra", "z"});
    Keys sorted = {nul, "0", "Beta", "a", "al", "alpha", "alphabet", "b", "c", ca, cb, "cz", "z", "zebra", "zeta"};
    EXPECT_EQ(t.forward(), sorted);
    EXPECT_EQ(t.walk(false), Keys(sorted.rbegin(), sorted.rend()));
    Keys nodes;
    sZELBtreeKeycb *n = nullptr;
    for (int ok = zel_btree_find_first_node(t.t, &n, &t.err); ok; ok = zel_btree_find_next_node(t.t, &n, &t.err))
        nodes.emplace_back(n->key, size_t(n->key_len));
    EXPECT_EQ(nodes, sorted);
}

TEST(BtreeByteOrder, RangeSearchesFindTheNeighboursOfAnyKey)
{
    Tree t(0, {"Beta", "al", "alpha", "alphabet", "zeta"});
    // A key, the first key not less than it and the last key less than it; "b" crosses empty partitions.
    for (const auto &[k, at_least, less] : std::vector<std::array<std::string, 3>>{
             {"alp", "alpha", "al"}, {"alpha", "alpha", "al"}, {"b", "zeta", "alphabet"}, {"A", "Beta", "-"},
             {"Beta", "Beta", "-"}, {"\x7f", "-", "zeta"}}) {
        EXPECT_EQ(t.below(k), less) << k;
        EXPECT_EQ(t.lower_bound(k), at_least) << k;
    }
    EXPECT_EQ(t.err, 2); // the last search found nothing
}

TEST(BtreeDelete, UnlinksFromTheOrderAndItsPartition)
{
    Tree t(0, {"a1", "a2", "a3", "b1", "c1"});
    int &err = t.err;
    void *value = nullptr;
    for (std::string s : {"a1", "a3", "b1"}) {
        sPChar gone = key(s);
        EXPECT_RESULT(zel_btree_delete_item(t.t, &gone, &value, &err), 1, 1);
        EXPECT_EQ(*static_cast<std::string *>(value), s);
        EXPECT_RESULT(zel_btree_find_key(t.t, &gone, &value, &err), 0, 2);
    }
    EXPECT_EQ(t.forward(), (Keys{"a2", "c1"}));
    t.insert("b0"); // into the partition emptied above
    t.insert("a0");
    EXPECT_EQ(t.forward(), (Keys{"a0", "a2", "b0", "c1"}));
    sZELBtreeMeterscb m{};
    zel_btree_get_meters(t.t, &m, &err);
    EXPECT_EQ(std::make_tuple(m.items, m.inserts, m.deletes), std::make_tuple(4u, 7u, 3u));
    ASSERT_EQ(zel_btree_delete_all(t.t, &err), 1);
    EXPECT_TRUE(t.forward().empty());
    EXPECT_EQ(t.insert("a2"), 1); // the hash forgot the keys too
}

TEST(BtreeCallerOrder, ChecksTheTailFirstAndRefusesEqualKeys)
{
    compare_calls = 0;
    Tree t(1, {"1", "2", "3", "4"}, numeric_order);
    EXPECT_EQ(compare_calls, 3); // ascending: one comparison each after the first
    for (const char *k : {"10", "0", "25"})
        t.insert(k);
    int &err = t.err;
    for (const char *k : {"010", "025"}) // equal to an inner key and to the tail by the caller's order
        EXPECT_RESULT(t.insert(k), 0, 9);
    EXPECT_EQ(t.forward(), (Keys{"0", "1", "2", "3", "4", "10", "25"}));
    EXPECT_EQ((Keys{t.lower_bound("5"), t.lower_bound("10"), t.below("5")}), (Keys{"10", "10", "4"}));
}

TEST(BtreeBadInput, RefusalsHaveTheirDetailsAndChangeNothing)
{
    // An ordering that answers none of its three results.
    Tree broken(1, {"first"}, [](sPChar *, sZELBtreeKeycb *, int *result, int *) {
        *result = 7;
        return 1;
    });
    EXPECT_EQ(std::make_pair(broken.insert("second"), broken.err), std::make_pair(0, 5));
    EXPECT_EQ(broken.forward(), Keys{"first"});

    Tree t(0, {"k"});
    int &err = t.err;
    for (const auto &[k, detail] : {std::pair{"k", 9}, {"", 4}, {"\x80high", 4}}) // a duplicate, no bytes, no partition
        EXPECT_RESULT(t.insert(k), 0, detail);
    sPChar k = zt::pc("v");
    EXPECT_RESULT(zel_btree_insert_item(t.t, &k, nullptr, &err), 0, 4);
    EXPECT_RESULT(zel_btree_insert_item(nullptr, &k, &k, &err), 0, 4);
    EXPECT_EQ(t.forward(), Keys{"k"});
    sZELBtreeParams p{0, 0, 0, nullptr, nullptr, nullptr};
    EXPECT_RESULT(zel_btree_open(&t.t, &p, &err), 0, 9);
    void *other = nullptr;
    p.mode = 1; // the caller's ordering needs a function
    EXPECT_RESULT(zel_btree_open(&other, &p, &err), 0, 4);
    sZELBtreeInfocb info{};
    EXPECT_RESULT(zel_btree_get_info(t.t, &info, &err), 1, 1);
    EXPECT_TRUE(info.user1 == 7 && info.user3 == &t.keys && info.items == 1u);
}

} // namespace
