// Ordered map: byte order across first-byte partitions, the caller's
// ordering with its tail-first check, range searches, deletion and meters.
#include <gtest/gtest.h>
#include <zel/containers.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace {

using Keys = std::vector<std::string>;

sPChar key(const std::string &s)
{
    return sPChar{const_cast<char *>(s.data()), int32_t(s.size())};
}

std::string text(const sPChar &k)
{
    return std::string(k.data, size_t(k.len));
}

// Orders keys as decimal numbers and counts its calls.
int compare_calls = 0;
int numeric_order(sPChar *k, sZELBtreeKeycb *node, int *result, int *)
{
    ++compare_calls;
    long a = std::strtol(text(*k).c_str(), nullptr, 10), b = std::strtol(std::string(node->key, size_t(node->key_len)).c_str(), nullptr, 10);
    *result = a == b ? 1 : a < b ? 2 : 3;
    return 1;
}

struct Tree {
    void *t = nullptr;
    int err = 0;
    Keys keys; // the bytes every stored key points at

    explicit Tree(int mode, zel_btree_compare_fn compare = nullptr)
    {
        keys.reserve(1000);
        sZELBtreeParams p{7, 8, mode, &keys, nullptr, compare};
        EXPECT_EQ(zel_btree_open(&t, &p, &err), 1);
        EXPECT_EQ(err, 1);
    }
    ~Tree() { zel_btree_close(&t, &err); }

    int insert(const std::string &s)
    {
        keys.push_back(s);
        sPChar k = key(keys.back());
        return zel_btree_insert_item(t, &k, &keys.back(), &err);
    }
    Keys forward()
    {
        Keys out;
        sPChar k;
        for (int ok = zel_btree_find_first_key(t, &k, nullptr, &err); ok; ok = zel_btree_find_next_key(t, &k, nullptr, &err))
            out.push_back(text(k));
        EXPECT_EQ(err, 2);
        return out;
    }
    Keys backward()
    {
        Keys out;
        sPChar k;
        for (int ok = zel_btree_find_last_key(t, &k, nullptr, &err); ok; ok = zel_btree_find_prev_key(t, &k, nullptr, &err))
            out.push_back(text(k));
        return out;
    }
    std::string lower_bound(const std::string &s)
    {
        sPChar k = key(s), found{};
        return zel_btree_find_first_key_not_less_than(t, &k, &found, nullptr, &err) ? text(found) : "-";
    }
    std::string below(const std::string &s)
    {
        sPChar k = key(s), found{};
        return zel_btree_find_next_key_less_than(t, &k, &found, nullptr, &err) ? text(found) : "-";
    }
};

TEST(BtreeByteOrder, KeepsKeysInOrderAcrossPartitions)
{
    Tree t(0);
    for (const char *k : {"b", "a", "c", "zeta", "alpha", "Beta", "alphabet", "al", "0"})
        ASSERT_EQ(t.insert(k), 1) << k;
    Keys sorted = {"0", "Beta", "a", "al", "alpha", "alphabet", "b", "c", "zeta"};
    EXPECT_EQ(t.forward(), sorted);
    EXPECT_EQ(t.backward(), Keys(sorted.rbegin(), sorted.rend()));
    Keys nodes;
    sZELBtreeKeycb *n = nullptr;
    for (int ok = zel_btree_find_first_node(t.t, &n, &t.err); ok; ok = zel_btree_find_next_node(t.t, &n, &t.err))
        nodes.emplace_back(n->key, size_t(n->key_len));
    EXPECT_EQ(nodes, sorted);
}

TEST(BtreeByteOrder, RangeSearchesFindTheNeighboursOfAnyKey)
{
    Tree t(0);
    for (const char *k : {"Beta", "al", "alpha", "alphabet", "zeta"})
        t.insert(k);
    EXPECT_EQ(t.lower_bound("alp"), "alpha");
    EXPECT_EQ(t.lower_bound("alpha"), "alpha");
    EXPECT_EQ(t.lower_bound("b"), "zeta");   // crosses empty partitions
    EXPECT_EQ(t.lower_bound("A"), "Beta");
    EXPECT_EQ(t.lower_bound("zz"), "-");
    EXPECT_EQ(t.err, 2);
    EXPECT_EQ(t.below("alpha"), "al");
    EXPECT_EQ(t.below("b"), "alphabet");
    EXPECT_EQ(t.below("\x7f"), "zeta");
    EXPECT_EQ(t.below("Beta"), "-");
}

TEST(BtreeDelete, UnlinksFromTheOrderAndItsPartition)
{
    Tree t(0);
    for (const char *k : {"a1", "a2", "a3", "b1", "c1"})
        t.insert(k);
    void *value = nullptr;
    for (const char *k : {"a1", "a3", "b1"}) {
        std::string s = k;
        sPChar gone = key(s);
        ASSERT_EQ(zel_btree_delete_item(t.t, &gone, &value, &t.err), 1) << k;
        EXPECT_EQ(*static_cast<std::string *>(value), s);
        EXPECT_EQ(zel_btree_find_key(t.t, &gone, &value, &t.err), 0);
        EXPECT_EQ(t.err, 2);
    }
    EXPECT_EQ(t.forward(), (Keys{"a2", "c1"}));
    t.insert("b0"); // into the partition emptied above
    t.insert("a0");
    EXPECT_EQ(t.forward(), (Keys{"a0", "a2", "b0", "c1"}));
    sZELBtreeMeterscb m{};
    zel_btree_get_meters(t.t, &m, &t.err);
    EXPECT_EQ(m.items, 4u);
    EXPECT_EQ(m.inserts, 7u);
    EXPECT_EQ(m.deletes, 3u);
    ASSERT_EQ(zel_btree_delete_all(t.t, &t.err), 1);
    EXPECT_TRUE(t.forward().empty());
    EXPECT_EQ(t.insert("a2"), 1); // the hash forgot the keys too
}

TEST(BtreeCallerOrder, ChecksTheTailFirstAndRefusesEqualKeys)
{
    Tree t(1, numeric_order);
    compare_calls = 0;
    for (const char *k : {"1", "2", "3", "4"})
        t.insert(k);
    EXPECT_EQ(compare_calls, 3); // ascending: one comparison each after the first
    t.insert("10");
    t.insert("0");
    t.insert("25");
    EXPECT_EQ(t.forward(), (Keys{"0", "1", "2", "3", "4", "10", "25"}));
    EXPECT_EQ(t.insert("010"), 0); // equal to "10" by the caller's order
    EXPECT_EQ(t.err, 9);
    EXPECT_EQ(t.forward().size(), 7u);
    EXPECT_EQ(t.lower_bound("5"), "10");
    EXPECT_EQ(t.below("5"), "4");
}

int broken_order(sPChar *, sZELBtreeKeycb *, int *result, int *)
{
    *result = 7;
    return 1;
}

TEST(BtreeBadInput, RefusalsHaveTheirDetailsAndChangeNothing)
{
    Tree broken(1, broken_order);
    broken.insert("first");
    EXPECT_EQ(broken.insert("second"), 0);
    EXPECT_EQ(broken.err, 5);
    EXPECT_EQ(broken.forward(), Keys{"first"});

    Tree t(0);
    EXPECT_EQ(t.insert("k"), 1);
    EXPECT_EQ(t.insert("k"), 0);
    EXPECT_EQ(t.err, 9);
    EXPECT_EQ(t.insert(""), 0);
    EXPECT_EQ(t.err, 4);
    EXPECT_EQ(t.insert("\x80high"), 0); // no partition for it
    EXPECT_EQ(t.err, 4);
    std::string s = "v";
    sPChar k = key(s);
    EXPECT_EQ(zel_btree_insert_item(t.t, &k, nullptr, &t.err), 0);
    EXPECT_EQ(t.err, 4);
    EXPECT_EQ(zel_btree_insert_item(nullptr, &k, &s, &t.err), 0);
    EXPECT_EQ(t.forward(), Keys{"k"});

    sZELBtreeParams p{0, 0, 0, nullptr, nullptr, nullptr};
    EXPECT_EQ(zel_btree_open(&t.t, &p, &t.err), 0);
    EXPECT_EQ(t.err, 9);
    void *other = nullptr;
    p.mode = 1; // the caller's ordering needs a function
    EXPECT_EQ(zel_btree_open(&other, &p, &t.err), 0);
    EXPECT_EQ(t.err, 4);

    sZELBtreeInfocb info{};
    ASSERT_EQ(zel_btree_get_info(t.t, &info, &t.err), 1);
    EXPECT_EQ(info.user1, 7);
    EXPECT_EQ(info.user3, &t.keys);
    EXPECT_EQ(info.items, 1u);
}

} // namespace
