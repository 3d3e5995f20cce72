// Vector: linear growth, the cursor, shifting, meters and the refusal of bad input.
#include <zel/containers.h>

#include <vector>

#include "message/message_test_util.h" // EXPECT_RESULT

namespace {

using Ints = std::vector<int>;

struct VectorTest : ::testing::Test {
    int err = 0, user = 0;
    void *v = nullptr, *p = nullptr;

    sZELVecParams params{&user, 0, sizeof(int)}; // 0 stands for 4
    void SetUp() override { ASSERT_EQ(zel_vec_open(&v, &params, &err), 1); }
    void TearDown() override { EXPECT_RESULT(zel_vec_close(&v, &err), 1, 1); }
    void add(const Ints &values) { for (int x : values) EXPECT_RESULT(zel_vec_add(v, &x, &err), 1, 1); }
    Ints contents()
    {
        void *a = nullptr;
        int n = 0;
        EXPECT_EQ(zel_vec_get_array(v, &a, &n, &err), 1);
        return Ints(static_cast<int *>(a), static_cast<int *>(a) + n);
    }
    int value() const { return *static_cast<int *>(p); }
    // adds, deletes, grows, clears and memory (element size x capacity + 64).
    Ints meters()
    {
        sZELVecMeterscb m{};
        EXPECT_EQ(zel_vec_get_meters(v, &m, &err), 1);
        return {int(m.adds), int(m.deletes), int(m.grows), int(m.clears), int(m.memory)};
    }
};

TEST_F(VectorTest, AnElementCopiedFromTheVectorItselfSurvivesGrowthAndShift)
{
    add({10, 11, 12, 13});
    ASSERT_EQ(zel_vec_get(v, &p, 0, &err), 1);
    EXPECT_RESULT(zel_vec_add(v, p, &err), 1, 1); // full: the array moves first
    ASSERT_EQ(zel_vec_get(v, &p, 1, &err), 1);
    EXPECT_RESULT(zel_vec_add_at(v, p, 0, &err), 1, 1); // the source itself shifts up
    EXPECT_EQ(contents(), (Ints{11, 10, 11, 12, 13, 10}));
}

TEST_F(VectorTest, CursorNeedsFirstRunsToTheEndAndThenNeedsFirstAgain)
{
    EXPECT_RESULT(zel_vec_first(v, &p, &err), 0, 2);
    add({5, 6, 7});
    EXPECT_RESULT(zel_vec_next(v, &p, &err), 0, 2); // a first that found nothing left no cursor
    EXPECT_RESULT(zel_vec_first(v, &p, &err), 1, 1);
    Ints seen{value()};
    while (zel_vec_next(v, &p, &err))
        seen.push_back(value());
    EXPECT_EQ(std::make_pair(seen, err), std::make_pair(Ints{5, 6, 7}, 4)); // 4: past the end
    EXPECT_RESULT(zel_vec_next(v, &p, &err), 0, 2);
}

TEST_F(VectorTest, InsertionsAndDeletionsShiftTheFollowingElementsAndAreMetered)
{
    add({1, 2, 3});
    int five = 5, index = -1, found = -1;
    for (auto [x, at] : {std::pair{0, 0}, {9, 4}, {7, 2}}) // 9 at the count: appends
        EXPECT_RESULT(zel_vec_add_at(v, &x, at, &err), 1, 1);
    EXPECT_EQ(contents(), (Ints{0, 1, 7, 2, 3, 9}));
    EXPECT_RESULT(zel_vec_del_at(v, 2, &err), 1, 1);
    EXPECT_RESULT(zel_vec_del_first(v, &err), 1, 1);
    EXPECT_RESULT(zel_vec_del(v, &err), 1, 1);
    EXPECT_EQ(contents(), (Ints{1, 2, 3}));
    void *where = nullptr;
    EXPECT_RESULT(zel_vec_add_get(v, &five, &where, &index, &err), 1, 1); // and hands back where
    EXPECT_RESULT(zel_vec_last(v, &p, &err), 1, 1);
    EXPECT_RESULT(zel_vec_get_index(v, p, &found, &err), 1, 1);
    EXPECT_TRUE(index == 3 && found == 3 && where == p && value() == 5);
    EXPECT_RESULT(zel_vec_get_index(v, static_cast<char *>(p) + 1, &index, &err), 0, 4); // inside an element
    EXPECT_EQ(meters(), (Ints{7, 3, 1, 0, 96})); // grown by one step of four
    sZELVecInfocb info{};
    EXPECT_RESULT(zel_vec_get_info(v, &info, &err), 1, 1);
    EXPECT_TRUE(info.user == &user && info.elem_size == 4 && info.step == 4 && info.count == 4 && info.adds == 7);
}

TEST_F(VectorTest, BadIndexesChangeNothingAndDeletingASequenceClosesTheGap)
{
    add({0, 1, 2, 3, 4});
    int x = 9;
    for (int index : {-1, 6})
        EXPECT_RESULT(zel_vec_add_at(v, &x, index, &err), 0, 4);
    for (int index : {-1, 5}) {
        EXPECT_RESULT(zel_vec_del_at(v, index, &err), 0, 4);
        EXPECT_RESULT(zel_vec_get(v, &p, index, &err), 0, 4);
    }
    for (auto [from, to] : {std::pair{-1, 0}, {2, 1}, {1, 5}})
        EXPECT_RESULT(zel_vec_del_seq(v, from, to, &err), 0, 4);
    EXPECT_EQ(meters(), (Ints{5, 0, 1, 0, 96}));
    EXPECT_RESULT(zel_vec_del_seq(v, 1, 2, &err), 1, 1);
    EXPECT_EQ(contents(), (Ints{0, 3, 4}));
    EXPECT_TRUE(zel_vec_last(v, &p, &err) && value() == 4);
    EXPECT_RESULT(zel_vec_del_seq(v, 0, 2, &err), 1, 1);
    EXPECT_RESULT(zel_vec_last(v, &p, &err), 0, 2);
    EXPECT_RESULT(zel_vec_del_first(v, &err), 0, 4);
    EXPECT_RESULT(zel_vec_del(v, &err), 0, 4);
    EXPECT_EQ(zel_vec_del(v, nullptr), 0); // a null detail pointer: the same answer, no detail
    EXPECT_EQ(meters()[1], 5); // each element counts
}

TEST_F(VectorTest, ClearKeepsTheArrayAndResetZeroesOnlyTheCounters)
{
    add({1, 2, 3, 4, 5});
    EXPECT_RESULT(zel_vec_clear(v, &err), 1, 1);
    add({6, 7, 8, 9, 10, 11, 12, 13}); // fits the kept capacity of 8
    EXPECT_EQ(meters(), (Ints{13, 0, 1, 1, 96}));
    EXPECT_RESULT(zel_vec_reset_meters(v, &err), 1, 1);
    EXPECT_EQ(meters(), (Ints{0, 0, 0, 0, 96}));
    EXPECT_EQ(contents().size(), 8u);
}

TEST(VectorOpen, RefusesBadParametersASecondOpenNullArgumentsAndANullHandle)
{
    int err = 0, elem = 1, index = 0;
    void *v = nullptr;
    sZELVecParams p{nullptr, 0, 4};
    for (sZELVecParams bad :
         {sZELVecParams{nullptr, -1, 4}, {nullptr, 0, 0}, {nullptr, 0, -4}, {nullptr, 65536, 65536}})
        EXPECT_RESULT(zel_vec_open(&v, &bad, &err), 0, 4);
    EXPECT_RESULT(zel_vec_open(&v, nullptr, &err), 0, 4);
    EXPECT_EQ(v, nullptr); // and nothing was allocated (leak check)
    EXPECT_RESULT(zel_vec_open(&v, &p, &err), 1, 1);
    void *held = v;
    EXPECT_RESULT(zel_vec_open(&v, &p, &err), 0, 9);
    EXPECT_EQ(v, held);
    EXPECT_RESULT(zel_vec_add(v, nullptr, &err), 0, 4);
    EXPECT_RESULT(zel_vec_first(v, nullptr, &err), 0, 4);
    EXPECT_RESULT(zel_vec_get_index(v, v, nullptr, &err), 0, 4);
    EXPECT_RESULT(zel_vec_add_get(v, &elem, nullptr, &index, &err), 0, 4);
    EXPECT_RESULT(zel_vec_close(&v, &err), 1, 1);
    EXPECT_EQ(v, nullptr);
    EXPECT_RESULT(zel_vec_close(&v, &err), 0, 7);
    EXPECT_RESULT(zel_vec_add(v, &elem, &err), 0, 7);
    EXPECT_RESULT(zel_vec_get_count(v, &index, &err), 0, 7);
    EXPECT_TRUE(zel_vec_open(&v, &p, nullptr) && zel_vec_close(&v, nullptr)); // no detail wanted
}

} // namespace
