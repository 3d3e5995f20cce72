// Building and editing messages; raw item strings.
#include "message_test_util.h"

namespace {

using namespace zt;
using Build = MessageTest;
using Edit = MessageTest;

TEST_F(Build, StartWritesAHeaderAfterEarlierContentAndAddDataRejectsMalformedValuesUnchanged)
{
    vartocb *held = m;
    char q[] = "q";
    sPChar two[] = {pc("ab"), {nullptr, 0}}, z = pc("z"), bad_values[] = {{q, 0}, {nullptr, 3}, {q, -1}};
    EXPECT_RESULT(zel_ctor_vartocb(&m.m, &err), 0, 4);
    EXPECT_EQ(m.m, held);
    parse(wire_msg({{3, "p"}})); // forgotten by the start
    out.reopen(8);
    out.assign("pref");
    EXPECT_RESULT(zel_start_msg(m, &out.s, &err), 1, 0);
    EXPECT_EQ(std::make_tuple(out.s.alloc, m->header_offset, field_order(m), parsed()),
              std::make_tuple(4 + 6 + 1024, 4, Tags{}, std::make_pair(-1L, 6)));
    EXPECT_RESULT(zel_add_data(m, 5, 2, two, &err), 1, 0);
    EXPECT_RESULT(zel_add_data(m, 65534, 1, &z, &err), 1, 0);
    const std::string built = "pref" + wire_msg({{5, "ab"}, {5, ""}, {65534, "z"}});
    EXPECT_EQ(std::make_pair(out.bytes(), values(m, 5)), std::make_pair(built, Strings{"ab", ""}));
    for (sPChar &bad : bad_values)
        EXPECT_RESULT(zel_add_data(m, 1, 1, &bad, &err), 0, 2);
    EXPECT_RESULT(zel_add_data(m, 65535, 1, &z, &err), 0, 2);
    EXPECT_RESULT(zel_add_data(m, 1, 0, &z, &err), 0, 2);
    EXPECT_EQ(out.bytes(), built);
    EXPECT_RESULT(zel_clean_vartocb(&m.m, &err), 1, 0); // the index goes, the buffer stays
    EXPECT_EQ(std::make_tuple(field_order(m), m->build, out.bytes()), std::make_tuple(Tags{}, &out.s, built));
}

TEST_F(Build, BufferDoublesToTwiceTheNeedAndTheIndexFollowsItsMoves)
{
    sPChar inside{};
    build(m, out, {{1, "abcd"}}, 16);
    EXPECT_EQ(out.s.alloc, 16); // an exact fit does not grow
    EXPECT_RESULT(zel_delete_data_item(m, 1, 0, &err), 1, 0);
    std::vector<Strings> expected(7);
    for (int i = 0; i < 400; ++i) {
        const std::string v = "value-" + std::to_string(i);
        const int needed = out.s.len + int(v.size()) + 6, alloc = out.s.alloc;
        sPChar p = pc(v);
        ASSERT_EQ(zel_add_data(m, 100 + i % 7, 1, &p, &err), 1);
        EXPECT_EQ(out.s.alloc, needed > alloc ? 2 * needed : alloc) << i;
        expected[size_t(i % 7)].push_back(v);
    }
    for (int t = 0; t < 7; ++t) // the deleted item stays out after the rebuilds
        EXPECT_EQ(values(m, 100 + t), expected[size_t(t)]) << t;
    EXPECT_EQ(m->item_count, 401); // the header counts the deleted item
    build(m, out, {{1, "abcd"}}, 26); // values taken from the build buffer itself while it moves
    ASSERT_EQ(zel_get_data(m, 1, 0, &inside, &err), 1);
    sPChar twice[] = {inside, inside}; // the first fits exactly, the second moves the buffer
    EXPECT_RESULT(zel_add_data(m, 2, 2, twice, &err), 1, 0);
    EXPECT_GT(out.s.alloc, 26);
    EXPECT_EQ(out.bytes(), wire_msg({{1, "abcd"}, {2, "abcd"}, {2, "abcd"}}));
}

TEST_F(Edit, DeleteMarksItemsKeepsTheHeaderCountAndTheChainConsistent)
{
    Varto again;
    // Room for every step: no move rebuilds the index.
    build(m, out, {{4, "a"}, {4, "b"}, {6, "x"}, {4, "c"}, {7, "y"}}, 128);
    // Each step deletes item `index` of tag 4 (or adds `value` when there is
    // one) and names what tag 4 then holds. The deletions take the first of
    // three, the last, a middle one, the first of two and the only one.
    for (const auto &[index, value, after] : std::vector<std::tuple<int, const char *, Strings>>{
             {0, nullptr, {"b", "c"}}, {0, "d", {"b", "c", "d"}}, {2, nullptr, {"b", "c"}}, {0, "e", {"b", "c", "e"}},
             {1, nullptr, {"b", "e"}}, {0, nullptr, {"e"}}, {0, "f", {"e", "f"}}, {1, nullptr, {"e"}},
             {0, nullptr, {}}, {0, "g", {"g"}}}) {
        sPChar v = pc(value ? value : "");
        if (value)
            EXPECT_RESULT(zel_add_data(m, 4, 1, &v, &err), 1, 0);
        else
            EXPECT_RESULT(zel_delete_data_item(m, 4, index, &err), 1, 0);
        EXPECT_EQ(values(m, 4), after) << index << (value ? value : "");
    }
    EXPECT_EQ(field_order(m), (Tags{6, 7, 4})); // the others keep their order
    // Deleted items stay in place, marked, and the header still counts them.
    EXPECT_EQ(out.bytes(), wire_msg({{0xFFFF, "a"}, {0xFFFF, "b"}, {6, "x"}, {0xFFFF, "c"}, {7, "y"}, {0xFFFF, "d"},
                                     {0xFFFF, "e"}, {0xFFFF, "f"}, {4, "g"}}));
    EXPECT_RESULT(zel_delete_data_item(m, 9, 0, &err), 0, 6);
    EXPECT_RESULT(zel_delete_data_item(m, 4, 1, &err), 0, 2);
    int list[] = {6, 7, 99, 6}; // whole fields: every item is marked, a listed one once
    sPChar h = pc("h");
    ASSERT_EQ(zel_add_data(m, 4, 1, &h, &err), 1);
    EXPECT_RESULT(zel_delete_field(m, 4, &err), 1, 0);
    EXPECT_RESULT(zel_delete_field(m, 4, &err), 0, 6);
    EXPECT_RESULT(zel_delete_field_list(m, list, 4, &err), 1, 0);
    EXPECT_RESULT(zel_delete_field_list(m, list, 4, &err), 0, 2); // none present
    ASSERT_EQ(zel_parse_msg(again, &out.s, &err), 1);
    EXPECT_EQ(std::make_pair(field_order(again), again->item_count), std::make_pair(Tags{}, 10));
}

TEST_F(Edit, ReplaceMarksTheFieldDeletedAndAddsItAgainAtTheEnd)
{
    sPChar fresh = pc("NEW"), inside{};
    build(m, out, {{2, ""}, {3, "mid"}, {2, "old"}}, 48);
    EXPECT_RESULT(zel_replace_data_item(m, 2, 1, &fresh, &err), 1, 0);
    EXPECT_EQ(std::make_pair(values(m, 2), field_order(m)), std::make_pair(Strings{"", "NEW"}, Tags{3, 2}));
    EXPECT_EQ(out.bytes(), wire_msg({{0xFFFF, ""}, {3, "mid"}, {0xFFFF, "old"}, {2, ""}, {2, "NEW"}}));
    ASSERT_EQ(zel_get_data(m, 3, 0, &inside, &err), 1); // a value of the message itself...
    EXPECT_RESULT(zel_replace_data_item(m, 2, 0, &inside, &err), 1, 0);
    EXPECT_GT(out.s.alloc, 48); // ... while the buffer moves
    EXPECT_EQ(values(m, 2), (Strings{"mid", "NEW"}));
    for (auto [tag, index] : std::initializer_list<std::pair<int, int>>{{2, -1}, {65535, 0}, {9, 0}, {2, 2}})
        EXPECT_RESULT(zel_replace_data_item(m, tag, index, &fresh, &err), 0, 2);
    parse(wire_msg({{1, "one"}, {2, "two"}})); // in place, with no spare room: the input grows
    fresh = pc("TWO!");
    EXPECT_RESULT(zel_replace_data_item(m, 2, 0, &fresh, &err), 1, 0);
    EXPECT_EQ(std::make_pair(values(m, 1), values(m, 2)), std::make_pair(Strings{"one"}, Strings{"TWO!"}));
    EXPECT_EQ(in.bytes(), wire_msg({{1, "one"}, {0xFFFF, "two"}, {2, "TWO!"}}));
}

TEST_F(Build, BuildMsgFirstOnlyGrowsATooSmallDestinationAndAnswers0)
{
    Scratch dst(32), room(150);
    build(m, out, {{1, std::string(100, 'v')}, {2, "w"}});
    const std::string msg = out.bytes(), a = wire_msg({{1, "a"}}), b = wire_msg({{2, "b"}, {0xFFFF, "dead"}, {3, ""}});
    dst.assign("pre");
    EXPECT_RESULT(zel_build_msg(m, &dst.s, &err), 0, 0);
    EXPECT_EQ(std::make_pair(dst.s.alloc, dst.bytes()), std::make_pair(int(msg.size()) + 256, std::string("pre")));
    EXPECT_EQ(zel_build_msg(m, &dst.s, &err), 1);
    EXPECT_EQ(dst.bytes(), "pre" + msg);
    room.assign(std::string(100, 'p')); // the message fits the buffer but not its free room
    EXPECT_EQ(zel_build_msg(m, &room.s, &err), 1);
    EXPECT_EQ(room.bytes(), std::string(100, 'p') + msg);
    parse(a + b); // after an in-place parse: the current message, deleted items included
    ASSERT_EQ(zel_parse_next_msg(m, nullptr, &err), 1);
    room.s.len = 0;
    EXPECT_EQ(zel_build_msg(m, &room.s, &err), 1);
    EXPECT_EQ(room.bytes(), b);
    in.s.data[a.size()] = 'X';
    EXPECT_RESULT(zel_build_msg(m, &room.s, &err), 0, 2);
}

TEST_F(Build, AddDataPcharAppendsRawItemsToAHeapString)
{
    sPChar buf{nullptr, -1}, unmarked{nullptr, 0}, abc = pc("abc"), z = pc("Z");
    EXPECT_RESULT(zel_add_data_pchar(&buf, 7, &abc, &err), 1, 0);
    EXPECT_RESULT(zel_add_data_pchar(&buf, 65534, &z, &err), 1, 0);
    EXPECT_EQ(str(buf), wire_msg({{7, "abc"}, {65534, "Z"}}).substr(ZEL_MSG_HEADER_SIZE));
    EXPECT_RESULT(pchar_destroy_mem(&buf, &err), 1, 0);
    EXPECT_RESULT(zel_add_data_pchar(&unmarked, 7, &abc, &err), 0, -1);
}

} // namespace
