// Linked list: iteration, the cursor after each deletion, lookups, clearing.
#include <zel/containers.h>

#include <functional>
#include <string>
#include <vector>

#include "message/message_test_util.h" // EXPECT_RESULT, pc, str

namespace {

using namespace zt;
using Keys = std::vector<std::string>;
const char *const kNames[] = {"a", "b", "c", "d"};

// A list of nodes keyed "a", "b", "c", "d" whose items point at items[0..3].
struct ListTest : ::testing::Test {
    int err = 0, items[4] = {};
    void *l = nullptr, *item = nullptr;
    sPChar key{};
    void SetUp() override
    {
        ASSERT_EQ(linklist_open(&l, 1, &err), 1);
        for (int i = 0; i < 4; ++i)
            add(kNames[i], &items[i]);
    }
    void TearDown() override { EXPECT_RESULT(linklist_close(&l, &err), 1, 0); }
    void add(const char *name, void *to, bool at_begin = false)
    {
        sPChar k = pc(name); // string literals: the list keeps the pointer
        EXPECT_EQ((at_begin ? list_add_node_at_begin : list_add_node)(l, &k, to, &err), 1);
    }
    // The keys from the call that answered `found` to the end (detail 4).
    Keys keys_from(int found)
    {
        Keys keys;
        for (; found; found = list_next_node(l, &key, &item, &err))
            keys.push_back(str(key));
        EXPECT_EQ(err, 4);
        return keys;
    }
    Keys all() { return keys_from(list_first_node(l, &key, &item, &err)); }
    Keys rest() { return keys_from(list_next_node(l, &key, &item, &err)); }
    void move_to(int index) // puts the cursor on node `index` (from 0)
    {
        for (int i = 0; i <= index; ++i)
            ASSERT_EQ((i ? list_next_node : list_first_node)(l, &key, &item, &err), 1) << i;
    }
    std::string deleted() { EXPECT_RESULT(list_delete_node(l, &key, &item, &err), 1, 0); return str(key); }
};

TEST_F(ListTest, IteratesInInsertionOrderWithHeadInsertsFirstAndStaysEnded)
{
    add("z", &items[0], true);
    EXPECT_EQ(all(), (Keys{"z", "a", "b", "c", "d"}));
    EXPECT_RESULT(list_next_node(l, &key, &item, &err), 0, 4);
    EXPECT_EQ(list_node_count(l), 5);
    EXPECT_RESULT(list_first_node(l, nullptr, nullptr, &err), 1, 0); // outputs are optional
}

TEST_F(ListTest, DeletingTheHeadLetsNextReturnTheNewHeadUntilTheListIsEmpty)
{
    move_to(0);
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(deleted(), kNames[i]); // the last one is head and tail at once
        EXPECT_EQ(list_next_node(l, &key, &item, &err), i < 3 ? 1 : 0) << i;
    }
    EXPECT_EQ(std::make_pair(err, list_node_count(l)), std::make_pair(4, 0));
    add("x", &items[0], true);
    add("y", &items[1]);
    EXPECT_EQ(all(), (Keys{"x", "y"}));
}

// Deleting the tail ends the iteration, even if nodes are added after it.
TEST_F(ListTest, DeletingAnInnerNodeOrTheTailLetsNextContinueAfterIt)
{
    move_to(1);
    EXPECT_TRUE(deleted() == "b" && item == &items[1]);
    EXPECT_EQ(rest(), (Keys{"c", "d"}));
    move_to(2);
    EXPECT_EQ(deleted(), "d");
    add("e", &items[3]); // after the new tail
    EXPECT_RESULT(list_next_node(l, &key, &item, &err), 0, 4);
    EXPECT_RESULT(list_delete_node(l, &key, &item, &err), 0, 4); // no cursor left
    EXPECT_EQ(all(), (Keys{"a", "c", "e"}));
}

TEST_F(ListTest, MatchingIterationVisitsOnlyNodesWithTheSameBytes)
{
    sPChar c = pc("c");
    move_to(0);
    ASSERT_EQ(list_set_key(l, &key, &c, &err), 1); // nodes 1 and 3 of four are "c"
    std::vector<void *> found;
    for (int r = list_matching_first_node(l, &c, &item, &err); r; r = list_matching_next_node(l, &c, &item, &err))
        found.push_back(item);
    EXPECT_EQ(std::make_pair(found, err), std::make_pair(std::vector<void *>{&items[0], &items[2]}, 4));
    EXPECT_RESULT(list_matching_next_node(l, &c, &item, &err), 0, 4); // iteration is over
    for (sPChar other : {pc("C"), pc("cc")})
        EXPECT_RESULT(list_matching_first_node(l, &other, &item, &err), 0, 4);
    EXPECT_RESULT(list_matching_first_node(l, nullptr, &item, &err), 0, 5);
}

// Find reads any node and leaves the cursor; set-key and set-item change the
// cursor node and hand back its old values.
TEST_F(ListTest, FindLeavesTheCursorWhileSetKeyAndSetItemChangeItsNode)
{
    sPChar q = pc("q");
    int other = 0;
    EXPECT_RESULT(list_set_item(l, &item, &other, &err), 0, 5); // no cursor yet
    move_to(0);
    EXPECT_RESULT(list_find_node(l, &key, &items[3], &err), 1, 0);
    EXPECT_EQ(str(key), "d");
    EXPECT_RESULT(list_find_node(l, &key, &other, &err), 0, 4);
    EXPECT_RESULT(list_find_node(l, &key, nullptr, &err), 0, 5);
    EXPECT_EQ(rest(), (Keys{"b", "c", "d"}));
    move_to(1);
    key = pc("stale"); // the old values come from the node, not from what these held
    item = nullptr;
    EXPECT_RESULT(list_set_key(l, &key, &q, &err), 1, 0);
    EXPECT_RESULT(list_set_item(l, &item, &other, &err), 1, 0);
    EXPECT_TRUE(str(key) == "b" && item == &items[1]);
    EXPECT_RESULT(list_set_item(l, &item, nullptr, &err), 0, 5);
    EXPECT_RESULT(list_set_key(l, &key, nullptr, &err), 0, 5);
    EXPECT_RESULT(list_delete_node(l, nullptr, &item, &err), 0, 5);
    move_to(1);
    EXPECT_TRUE(str(key) == "q" && item == &other);
}

TEST_F(ListTest, AfterClearingOnlyCloseWorks)
{
    move_to(1);
    EXPECT_RESULT(list_clear_nodes(l, &err), 1, 0);
    for (auto call : std::vector<std::function<int()>>{
             [&] { return list_next_node(l, &key, &item, &err); },
             [&] { return list_delete_node(l, &key, &item, &err); },
             [&] { return list_first_node(l, &key, &item, &err); },
             [&] { return list_add_node(l, &key, &item, &err); },
             [&] { return list_set_item(l, &item, &items[0], &err); }, [&] { return list_clear_nodes(l, &err); }})
        EXPECT_RESULT(call(), 0, 1);
    EXPECT_EQ(list_node_count(l), 0); // TearDown's close then frees the block; the leak check sees the rest
}

TEST(ListOpen, RequiresANonZeroFlagAndAFreeHandleAndClosesOnlyAnOpenList)
{
    int err = 0;
    void *l = nullptr;
    EXPECT_RESULT(linklist_open(&l, 0, &err), 0, 5);
    EXPECT_RESULT(linklist_open(&l, 1, &err), 1, 0);
    EXPECT_RESULT(linklist_open(&l, 1, &err), 0, 2);
    EXPECT_RESULT(linklist_close(&l, &err), 1, 0);
    EXPECT_EQ(l, nullptr);
    EXPECT_RESULT(linklist_close(&l, &err), 0, 1);
    EXPECT_RESULT(list_add_node(nullptr, nullptr, nullptr, &err), 0, 1);
    EXPECT_EQ(list_node_count(nullptr), 0);
}

} // namespace
