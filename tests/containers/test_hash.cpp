// Hash table: the named functions, replacing, the case-insensitive find and
// how growth changes it, the occupied-bucket list and iteration.
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
    int add(std::string &s, void *value) { sPChar k = key(s); return zel_hash_add(h, &k, value, &err); }
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

// Finding ignores case but never looks outside the key's own bucket: "a" and
// "A" share one until the table has 64 buckets. An add that finds as many
// items as buckets doubles the table first: 16 -> 32 at the 17th, 64 at the 33rd.
TEST(HashFind, IgnoresCaseOnlyWithinTheKeysBucketWhichGrowthPastLoadOneSplits)
{
    Table t(16);
    std::vector<std::string> keys = {"a"};
    for (int i = 0; i < 32; ++i)
        keys.push_back("k" + std::to_string(i));
    std::string upper = "A";
    sPChar u = key(upper);
    for (size_t i = 0; i < 32; ++i)
        ASSERT_EQ(t.add(keys[i], &keys[i]), 1);
    EXPECT_EQ(zel_hash_table_find(t.h, &u, nullptr, &t.err), 1);
    ASSERT_EQ(t.add(keys[32], &keys[32]), 1);
    EXPECT_EQ(zel_hash_table_find(t.h, &u, nullptr, &t.err), 0);
    EXPECT_EQ(t.err, 4);
    for (std::string &k : keys) { // every key survives the moves
        sPChar lookup = key(k);
        void *value = nullptr;
        EXPECT_TRUE(zel_hash_table_find(t.h, &lookup, &value, &t.err) && value == &k) << k;
    }
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

TEST(HashAddDelete, AnExistingKeysValueIsReplacedAndDeleteHandsBackTheValueOnce)
{
    Table t(0);
    std::vector<std::string> keys;
    for (int i = 0; i < 50; ++i)
        keys.push_back("k" + std::to_string(i));
    for (std::string &s : keys)
        t.add(s, &s);
    std::string again = "k0";
    void *value = nullptr;
    EXPECT_EQ(t.add(again, &again), 1);
    sPChar k0 = key(keys[0]);
    zel_hash_table_find(t.h, &k0, &value, &t.err);
    EXPECT_EQ(value, &again);
    EXPECT_EQ(std::make_pair(t.meters().adds, t.meters().replaces), std::make_pair(50u, 1u));
    for (size_t i = 0; i < keys.size(); i += 2) {
        sPChar k = key(keys[i]);
        ASSERT_EQ(zel_hash_delete(t.h, &k, &value, &t.err), 1);
        EXPECT_EQ(value, i ? &keys[i] : &again);
        EXPECT_EQ(zel_hash_delete(t.h, &k, &value, &t.err), 0);
        EXPECT_EQ(t.err, 4);
    }
    std::vector<std::string> left = t.keys_in_iteration_order();
    EXPECT_EQ(std::set<std::string>(left.begin(), left.end()).size(), 25u);
    EXPECT_EQ(std::make_pair(left.size(), t.meters().deletes), std::make_pair(size_t(25), 25u));
    ASSERT_EQ(zel_hash_clear(t.h, &t.err), 1);
    EXPECT_TRUE(t.keys_in_iteration_order().empty());
    EXPECT_EQ(t.add(keys[1], &keys[1]), 1); // still usable
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
