// Hash table: the named functions, sizing and doubling, replacing, the
// case-insensitive find, the occupied-bucket list and iteration.
#include <gtest/gtest.h>
#include <zel/containers.h>

#include <set>
#include <string>
#include <vector>

#include "containers/hash_functions.h"

namespace {

sPChar key(const std::string &s)
{
    return sPChar{const_cast<char *>(s.data()), int32_t(s.size())};
}

struct Table {
    void *h = nullptr;
    int err = 0;

    explicit Table(int size, const char *name = "hashr_torek")
    {
        sZELHashParams p{size, {const_cast<char *>(name), int32_t(strlen(name))}, nullptr};
        EXPECT_EQ(zel_hash_open(&h, &p, &err), 1);
    }
    ~Table() { zel_hash_close(&h, &err); }

    sZELHashMeters meters()
    {
        sZELHashMeters m{};
        zel_hash_meters(h, &m, &err);
        return m;
    }
    uint32_t buckets() { return meters().occupied_buckets + meters().free_buckets; }
    std::vector<std::string> keys_in_iteration_order()
    {
        std::vector<std::string> keys;
        sPChar k;
        for (int ok = zel_hash_first_item(h, &k, nullptr, &err); ok; ok = zel_hash_next_item(h, &k, nullptr, &err))
            keys.emplace_back(k.data, size_t(k.len));
        EXPECT_EQ(err, 4);
        return keys;
    }
};

TEST(HashFunctions, KnownValuesWithBytesAsSignedCharacters)
{
    using namespace zel::hash;
    EXPECT_EQ(ejb("A", 1), 33u);
    EXPECT_EQ(torek("ab", 2), 3299u);
    EXPECT_EQ(sdbm("ab", 2), 6363201u);
    EXPECT_EQ(phong("ab", 2), 4181564557u);
    EXPECT_EQ(torek("\xff", 1), 0xFFFFFFFFu); // 0xFF counts as -1
    EXPECT_EQ(sdbm("x", 0), 0u);
    EXPECT_LT(ejb("a long key to wrap around", 25), 1048583u);
}

TEST(HashFunctions, NamesSelectByPrefixAndSdbmMeansPhong)
{
    using namespace zel::hash;
    struct Case { const char *name; Function expected; } cases[] = {
        {"hash_ejb", ejb}, {"hash_phong", phong}, {"hash_sdbm", phong}, {"hashr_torek", torek},
        {"hash", ejb}, {"", ejb}, {"hash_p", phong}, {"hashr", torek},
        {"md5", nullptr}, {"hash_ejbx", nullptr}, {"hash_s", phong}};
    for (const Case &c : cases)
        EXPECT_EQ(by_name(c.name, int32_t(strlen(c.name))), c.expected) << c.name;

    void *h = nullptr;
    int err = 0;
    sZELHashParams unknown{0, {const_cast<char *>("md5"), 3}, nullptr};
    EXPECT_EQ(zel_hash_open(&h, &unknown, &err), 0);
    EXPECT_EQ(err, 3);
    EXPECT_EQ(h, nullptr);
}

TEST(HashSizing, BucketCountsArePowersOfTwoAndDoubleAtLoadOne)
{
    for (auto [asked, buckets] : std::vector<std::pair<int, uint32_t>>{{0, 16}, {-5, 16}, {1, 2}, {17, 32}, {100, 128}}) {
        Table t(asked);
        EXPECT_EQ(t.buckets(), buckets) << asked;
    }
    Table t(16);
    std::vector<std::string> keys;
    for (int i = 0; i < 17; ++i)
        keys.push_back("key" + std::to_string(i));
    for (int i = 0; i < 16; ++i) {
        sPChar k = key(keys[i]);
        ASSERT_EQ(zel_hash_add(t.h, &k, &keys[i], &t.err), 1);
    }
    EXPECT_EQ(t.meters().doublings, 0u);
    sPChar last = key(keys[16]);
    ASSERT_EQ(zel_hash_add(t.h, &last, &keys[16], &t.err), 1);
    EXPECT_EQ(t.meters().doublings, 1u);
    EXPECT_EQ(t.buckets(), 32u);
    for (std::string &k : keys) {
        sPChar lookup = key(k);
        void *value = nullptr;
        EXPECT_EQ(zel_hash_table_find(t.h, &lookup, &value, &t.err), 1) << k;
        EXPECT_EQ(value, &k);
    }
    EXPECT_EQ(t.keys_in_iteration_order().size(), 17u);
}

TEST(HashAdd, AnExistingKeyHasItsValueReplaced)
{
    Table t(0);
    std::string a = "alpha", again = "alpha";
    int one = 1, two = 2;
    sPChar k1 = key(a), k2 = key(again);
    zel_hash_add(t.h, &k1, &one, &t.err);
    EXPECT_EQ(zel_hash_add(t.h, &k2, &two, &t.err), 1);
    void *value = nullptr;
    zel_hash_table_find(t.h, &k1, &value, &t.err);
    EXPECT_EQ(value, &two);
    EXPECT_EQ(t.meters().adds, 1u);
    EXPECT_EQ(t.meters().replaces, 1u);
    EXPECT_EQ(t.keys_in_iteration_order().size(), 1u);
}

// Finding ignores case but never looks outside the key's own bucket.
TEST(HashFind, IgnoresCaseOnlyWithinTheKeysBucket)
{
    std::string added = "abc", upper = "ABC";
    sPChar k = key(added), u = key(upper);
    int value = 7;
    Table sixteen(16); // "abc" and "ABC" share a bucket here
    zel_hash_add(sixteen.h, &k, &value, &sixteen.err);
    EXPECT_EQ(zel_hash_table_find(sixteen.h, &u, nullptr, &sixteen.err), 1);
    Table sixty_four(64); // and not here
    zel_hash_add(sixty_four.h, &k, &value, &sixty_four.err);
    EXPECT_EQ(zel_hash_table_find(sixty_four.h, &u, nullptr, &sixty_four.err), 0);
    EXPECT_EQ(sixty_four.err, 4);
    EXPECT_EQ(zel_hash_table_find(sixty_four.h, &k, nullptr, &sixty_four.err), 1);
}

// While the list of occupied buckets lasts, iteration follows it (order of
// occupation); once a fourth bucket of sixteen is taken the list is dropped
// and iteration walks the buckets upwards from the lowest occupied one.
TEST(HashIteration, FollowsTheOccupiedListUntilItIsDropped)
{
    Table t(16);
    std::vector<std::string> keys = {"O", "N", "M", "L"}; // buckets 15, 14, 13, 12
    for (size_t i = 0; i < 3; ++i) {
        sPChar k = key(keys[i]);
        zel_hash_add(t.h, &k, &keys[i], &t.err);
    }
    EXPECT_EQ(t.keys_in_iteration_order(), (std::vector<std::string>{"O", "N", "M"}));
    sPChar k = key(keys[3]);
    zel_hash_add(t.h, &k, &keys[3], &t.err);
    EXPECT_EQ(t.keys_in_iteration_order(), (std::vector<std::string>{"L", "M", "N", "O"}));
    EXPECT_EQ(t.meters().lowest_bucket, 12u);
    EXPECT_EQ(t.meters().occupied_buckets, 4u);

    sPChar first;
    ASSERT_EQ(zel_hash_first_item(t.h, &first, nullptr, &t.err), 1);
    zel_hash_delete(t.h, &k, nullptr, &t.err); // a change ends the iteration
    EXPECT_EQ(zel_hash_next_item(t.h, &first, nullptr, &t.err), 0);
    EXPECT_EQ(t.err, 4);
    EXPECT_EQ(t.meters().lowest_bucket, 13u);
}

TEST(HashDelete, HandsBackTheValueAndForgetsTheKey)
{
    Table t(0);
    std::vector<std::string> keys;
    for (int i = 0; i < 50; ++i)
        keys.push_back("k" + std::to_string(i));
    for (std::string &s : keys) {
        sPChar k = key(s);
        zel_hash_add(t.h, &k, &s, &t.err);
    }
    for (size_t i = 0; i < keys.size(); i += 2) {
        sPChar k = key(keys[i]);
        void *value = nullptr;
        ASSERT_EQ(zel_hash_delete(t.h, &k, &value, &t.err), 1);
        EXPECT_EQ(value, &keys[i]);
        EXPECT_EQ(zel_hash_delete(t.h, &k, &value, &t.err), 0);
        EXPECT_EQ(t.err, 4);
    }
    std::vector<std::string> left = t.keys_in_iteration_order();
    EXPECT_EQ(std::set<std::string>(left.begin(), left.end()).size(), 25u);
    EXPECT_EQ(left.size(), 25u);
    EXPECT_EQ(t.meters().deletes, 25u);
    ASSERT_EQ(zel_hash_clear(t.h, &t.err), 1);
    EXPECT_TRUE(t.keys_in_iteration_order().empty());
    sPChar k = key(keys[1]);
    EXPECT_EQ(zel_hash_add(t.h, &k, &keys[1], &t.err), 1); // still usable
}

TEST(HashBadInput, NullsAndEmptyKeysGiveTheirDetailsAndChangeNothing)
{
    Table t(0);
    int err = 0;
    sPChar empty{nullptr, 0}, no_bytes{nullptr, 3};
    std::string s = "x";
    sPChar k = key(s);
    EXPECT_EQ(zel_hash_add(nullptr, &k, nullptr, &err), 0);
    EXPECT_EQ(err, 1);
    for (sPChar *bad : {static_cast<sPChar *>(nullptr), &empty, &no_bytes}) {
        EXPECT_EQ(zel_hash_add(t.h, bad, nullptr, &err), 0);
        EXPECT_EQ(err, 3);
        EXPECT_EQ(zel_hash_table_find(t.h, bad, nullptr, &err), 0);
        EXPECT_EQ(zel_hash_delete(t.h, bad, nullptr, &err), 0);
        EXPECT_EQ(err, 3);
    }
    EXPECT_EQ(zel_hash_meters(t.h, nullptr, &err), 0);
    EXPECT_EQ(err, 3);
    EXPECT_EQ(zel_hash_first_item(nullptr, nullptr, nullptr, &err), 0);
    EXPECT_EQ(err, 1);
    sZELHashParams p{0, {const_cast<char *>("hashr_torek"), 11}, nullptr};
    EXPECT_EQ(zel_hash_open(&t.h, &p, &err), 0);
    EXPECT_EQ(err, 5);
    EXPECT_EQ(t.meters().adds, 0u);
    void *closed = nullptr;
    EXPECT_EQ(zel_hash_close(&closed, &err), 0);
    EXPECT_EQ(err, 1);
}

} // namespace
