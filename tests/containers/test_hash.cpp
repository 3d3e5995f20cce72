// Hash table: the named functions, finding, replacing and deleting across
// growth, the occupied-bucket list and iteration.
#include <zel/containers.h>

#include <set>
#include <string>
#include <vector>

#include "containers/hash_functions.h"
#include "message/message_test_util.h" // EXPECT_RESULT

namespace {

using zt::pc;

struct Table {
    void *h = nullptr;
    int err = 0;

    explicit Table(int size)
    {
        sZELHashParams p{size, pc("hashr_torek"), nullptr};
        EXPECT_EQ(zel_hash_open(&h, &p, &err), 1);
    }
    ~Table() { zel_hash_close(&h, &err); }

    sZELHashMeters meters()
    {
        sZELHashMeters m{};
        zel_hash_meters(h, &m, &err);
        return m;
    }
    int add(std::string &s, void *value) { sPChar k = pc(s); return zel_hash_add(h, &k, value, &err); }
    // The value found for `s`, or null.
    void *find(const std::string &s)
    {
        sPChar k = pc(s);
        void *value = nullptr;
        return zel_hash_table_find(h, &k, &value, &err) ? value : nullptr;
    }
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

// Known values, with bytes as signed characters; names select by prefix.
TEST(HashFunctions, KnownValuesAndNamesSelectByPrefixWithSdbmMeaningPhong)
{
    using namespace zel::hash;
    EXPECT_EQ(ejb("A", 1), 33u);
    EXPECT_EQ(torek("ab", 2), 3299u);
    EXPECT_EQ(sdbm("ab", 2), 6363201u);
    EXPECT_EQ(phong("ab", 2), 4181564557u);
    EXPECT_EQ(torek("\xff", 1), 0xFFFFFFFFu); // 0xFF counts as -1
    EXPECT_EQ(sdbm("x", 0), 0u);
    EXPECT_LT(ejb("a long key to wrap around", 25), 1048583u);
    for (auto [name, expected] : std::vector<std::pair<const char *, Function>>{
             {"hash_ejb", ejb}, {"hash_phong", phong}, {"hash_sdbm", phong}, {"hashr_torek", torek},
             {"hash", ejb}, {"", ejb}, {"hash_p", phong}, {"hashr", torek}, {"hash_s", phong},
             {"md5", nullptr}, {"hash_ejbx", nullptr}})
        EXPECT_EQ(by_name(name, int32_t(strlen(name))), expected) << name;
}

TEST(HashTable, FindsEveryKeyAfterGrowthReplacesValuesAndDeletesEachKeyOnce)
{
    Table t(16);
    int &err = t.err;
    std::vector<std::string> keys = {"a"};
    for (int i = 0; i < 100; ++i)
        keys.push_back("k" + std::to_string(i));
    ASSERT_EQ(t.add(keys[0], &keys[0]), 1);
    EXPECT_EQ(t.find("A"), &keys[0]); // case is ignored within the key's own bucket
    for (std::string &k : keys)
        ASSERT_EQ(t.add(k, &k), 1);
    for (std::string &k : keys) // every key survives the moves
        EXPECT_EQ(t.find(k), &k) << k;
    std::string again = "k0";
    EXPECT_RESULT(t.add(again, &again), 1, 0);
    EXPECT_EQ(t.find("k0"), &again);
    EXPECT_EQ(std::make_pair(t.meters().adds, t.meters().replaces), std::make_pair(101u, 2u));
    void *value = nullptr;
    for (size_t i = 1; i < keys.size(); i += 2) { // k0, k2, ...
        sPChar k = pc(keys[i]);
        EXPECT_RESULT(zel_hash_delete(t.h, &k, &value, &err), 1, 0);
        EXPECT_EQ(value, i > 1 ? &keys[i] : &again);
        EXPECT_RESULT(zel_hash_delete(t.h, &k, &value, &err), 0, 4);
    }
    std::vector<std::string> left = t.keys_in_iteration_order();
    EXPECT_EQ(std::set<std::string>(left.begin(), left.end()).size(), 51u);
    EXPECT_EQ(std::make_pair(left.size(), t.meters().deletes), std::make_pair(size_t(51), 50u));
    EXPECT_RESULT(zel_hash_clear(t.h, &err), 1, 0);
    EXPECT_TRUE(t.keys_in_iteration_order().empty());
    EXPECT_EQ(t.add(keys[1], &keys[1]), 1); // still usable
}

// While the list of occupied buckets lasts, iteration follows it (order of
// occupation); once a fourth bucket of sixteen is taken the list is dropped
// and iteration walks the buckets upwards from the lowest occupied one.
TEST(HashIteration, FollowsTheOccupiedListUntilItIsDropped)
{
    Table t(16);
    int &err = t.err;
    std::vector<std::string> keys = {"O", "N", "M", "L"}; // buckets 15, 14, 13, 12
    for (size_t i = 0; i < 3; ++i)
        t.add(keys[i], &keys[i]);
    EXPECT_EQ(t.keys_in_iteration_order(), (std::vector<std::string>{"O", "N", "M"}));
    t.add(keys[3], &keys[3]);
    EXPECT_EQ(t.keys_in_iteration_order(), (std::vector<std::string>{"L", "M", "N", "O"}));
    EXPECT_EQ(std::make_pair(t.meters().lowest_bucket, t.meters().occupied_buckets), std::make_pair(12u, 4u));
    sPChar first, k = pc(keys[3]);
    ASSERT_EQ(zel_hash_first_item(t.h, &first, nullptr, &err), 1);
    zel_hash_delete(t.h, &k, nullptr, &err); // a change ends the iteration
    EXPECT_RESULT(zel_hash_next_item(t.h, &first, nullptr, &err), 0, 4);
    EXPECT_EQ(t.meters().lowest_bucket, 13u);
}

TEST(HashBadInput, NullsEmptyKeysAndUnknownNamesGiveTheirDetailsAndChangeNothing)
{
    Table t(0);
    int err = 0;
    void *h = nullptr;
    sPChar empty{nullptr, 0}, no_bytes{nullptr, 3}, k = pc("x");
    EXPECT_RESULT(zel_hash_add(nullptr, &k, nullptr, &err), 0, 1);
    for (sPChar *bad : {static_cast<sPChar *>(nullptr), &empty, &no_bytes}) {
        EXPECT_RESULT(zel_hash_add(t.h, bad, nullptr, &err), 0, 3);
        EXPECT_RESULT(zel_hash_table_find(t.h, bad, nullptr, &err), 0, 3);
        EXPECT_RESULT(zel_hash_delete(t.h, bad, nullptr, &err), 0, 3);
    }
    EXPECT_RESULT(zel_hash_meters(t.h, nullptr, &err), 0, 3);
    EXPECT_RESULT(zel_hash_first_item(nullptr, nullptr, nullptr, &err), 0, 1);
    sZELHashParams p{0, pc("hashr_torek"), nullptr}, unknown{0, pc("md5"), nullptr};
    EXPECT_RESULT(zel_hash_open(&t.h, &p, &err), 0, 5);
    EXPECT_RESULT(zel_hash_open(&h, &unknown, &err), 0, 3);
    EXPECT_EQ(h, nullptr);
    EXPECT_EQ(t.meters().adds, 0u);
    EXPECT_RESULT(zel_hash_close(&h, &err), 0, 1);
    void *value = nullptr; // a null detail pointer: the same answers, no detail
    EXPECT_TRUE(zel_hash_open(&h, &p, nullptr) && !zel_hash_table_find(h, &k, &value, nullptr) &&
                zel_hash_close(&h, nullptr));
}

} // namespace
