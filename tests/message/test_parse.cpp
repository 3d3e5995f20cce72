// Parsing (in place, into a copy, filtered), field access and iteration, and
// malformed input. Inputs are written directly, never by the builder.
#include "message_test_util.h"

namespace {

using namespace zt;
using Parse = MessageTest;
using ParseRobustness = MessageTest;
using FilteredParse = MessageTest;
using FieldIteration = MessageTest;

TEST_F(Parse, InPlaceIndexesValuesInsideTheInputSkippingDeletedItemsMessageByMessage)
{
    EXPECT_EQ(parsed(), std::make_pair(-1L, 6)); // nothing parsed yet
    const std::string bytes = wire_msg({{5, "ab"}, {0xFFFF, "zz"}, {7, "xyz"}, {5, "c"}, {9, ""}}),
                      next = wire_msg({{3, "three"}});
    parse(bytes + next); // values() finds every value inside the input: no copy is made
    EXPECT_EQ(std::make_tuple(field_order(m), values(m, 5), values(m, 7), values(m, 9)),
              std::make_tuple(Tags{5, 7, 9}, Strings{"ab", "c"}, Strings{"xyz"}, Strings{""}));
    sPChar v{};
    int nfields = 0, nitems = 0, count = 0;
    EXPECT_RESULT(zel_get_count(m, &nfields, &nitems, &err), 1, 0);
    EXPECT_EQ(std::make_tuple(nfields, nitems, m->item_count), std::make_tuple(3, 4, 5)); // header counts deleted
    EXPECT_EQ(parsed(), std::make_pair(0L, int(bytes.size())));
    EXPECT_RESULT(zel_get_field(m, 6, &count, &err), 0, 6);
    EXPECT_RESULT(zel_get_field(m, 65535, &count, &err), 0, 2);
    EXPECT_RESULT(zel_get_data(m, 5, 2, &v, &err), 0, 2); // index past the count
    EXPECT_RESULT(zel_get_data(m, 6, 0, &v, &err), 0, 2); // absent field
    EXPECT_RESULT(zel_parse_next_msg(m, nullptr, &err), 1, 0); // the next message replaces this one
    EXPECT_EQ(std::make_pair(field_order(m), values(m, 3)), std::make_pair(Tags{3}, Strings{"three"}));
    EXPECT_EQ(parsed(), std::make_pair(long(bytes.size()), int(next.size())));
    EXPECT_RESULT(zel_parse_next_msg(m, nullptr, &err), 0, 6);
    EXPECT_RESULT(zel_parse_msg(m, &in.s, &err), 1, 0); // starts over
    EXPECT_EQ(values(m, 5), (Strings{"ab", "c"}));
    // A null detail pointer: the same work, and no detail.
    EXPECT_TRUE(zel_parse_msg(m, &in.s, nullptr) && zel_get_data(m, 7, 0, &v, nullptr) && str(v) == "xyz");
}

TEST_F(Parse, CopyModeCompactsEachMessageIntoTheCopyAndReportsTheInputStart)
{
    Scratch copy(8);
    const std::string a = wire_msg({{4, "keep"}, {0xFFFF, "gone"}, {6, ""}, {4, "too"}}), b = wire_msg({{8, "2nd"}});
    load(a + b);
    copy.assign("stale bytes");
    EXPECT_RESULT(zel_parse_first_msg(m, &copy.s, &in.s, &err), 1, 0);
    EXPECT_EQ(copy.bytes(), wire_msg({{4, "keep"}, {6, ""}, {4, "too"}}));
    EXPECT_EQ(values(m, 4), (Strings{"keep", "too"})); // values live in the copy
    EXPECT_RESULT(zel_parse_next_msg(m, &copy.s, &err), 1, 0);
    EXPECT_EQ(std::make_pair(copy.bytes(), values(m, 8)), std::make_pair(b, Strings{"2nd"}));
    // Reported at the start of the input with the current message's length, as callers expect.
    EXPECT_EQ(parsed(), std::make_pair(0L, int(b.size())));
    EXPECT_RESULT(zel_parse_next_msg(m, &copy.s, &err), 0, 6);
    EXPECT_RESULT(zel_parse_first_msg(m, &in.s, &in.s, &err), 1, 0); // copy == input: in place
    EXPECT_EQ(std::make_pair(m->build, in.bytes()), std::make_pair(&in.s, a + b));
}

TEST_F(ParseRobustness, MalformedInputFailsWithDetail2InEveryMode)
{
    // One item whose value needs `len` bytes; 3 are there.
    auto claiming = [](uint32_t len) { return wire_msg({}, 1) + bytes_of(uint16_t(1)) + bytes_of(len) + "abc"; };
    const std::string two = wire_msg({{1, "abc"}, {2, "d"}});
    const std::vector<std::pair<const char *, std::string>> inputs = {
        {"wrong magic", "\x41\x42" + two.substr(2)}, {"value one byte past the end", claiming(4)},
        {"value length 0x7FFFFFFF", claiming(0x7FFFFFFF)}, {"value length 0xFFFFFFFF", claiming(0xFFFFFFFF)},
        {"value length wrapping a 32-bit sum", claiming(0xFFFFFFFA)}, {"empty", ""},
        {"count beyond the items", wire_msg({{1, "abc"}}, 5)}, {"count 0xFFFFFFFF", wire_msg({{1, "abc"}}, 0xFFFFFFFF)},
        {"ends inside the message header", two.substr(0, 5)}, {"ends inside the first item header", two.substr(0, 9)},
        {"one byte short of the second item header", two.substr(0, 20)}};
    Scratch copy;
    for (const auto &[name, bytes] : inputs) {
        SCOPED_TRACE(name);
        load(bytes);
        EXPECT_RESULT(zel_parse_msg(m, &in.s, &err), 0, 2);
        EXPECT_EQ(zel_parse_msg(m, &in.s, nullptr), 0);
        EXPECT_EQ(parsed(), std::make_pair(-1L, 6));
        EXPECT_RESULT(zel_parse_first_msg(m, &copy.s, &in.s, &err), 0, 2);
        EXPECT_EQ(parsed(), std::make_pair(-1L, 6));
        build(m, out, {});
        EXPECT_RESULT(zel_parse_interested_field_in_msg(m, &in.s, nullptr, 0, &err), 0, 2);
        // The same bytes after a good message: the walk stops there.
        load(wire_msg({{1, "ok"}}) + bytes);
        ASSERT_EQ(zel_parse_msg(m, &in.s, &err), 1);
        EXPECT_RESULT(zel_parse_next_msg(m, nullptr, &err), 0, bytes.empty() ? 6 : 2);
    }
}

TEST_F(FilteredParse, CopiesTheSelectedFieldsOfTheFirstMessageOnly)
{
    load(wire_msg({{7, "a"}, {8, "b"}, {0xFFFF, "x"}, {9, ""}, {7, "c"}}) + wire_msg({{10, "next"}}));
    auto filtered = [&](auto parse_fn, int *tags, int ntags) {
        build(m, out, {});
        return parse_fn(m, &in.s, tags, ntags, &err);
    };
    int wanted[] = {9, 7, 70000, -3}, unwanted[] = {7}, only_later[] = {10};
    EXPECT_EQ(filtered(zel_parse_interested_field_in_msg, nullptr, 0), 1);
    EXPECT_EQ(out.bytes(), wire_msg({{7, "a"}, {8, "b"}, {9, ""}, {7, "c"}}));
    EXPECT_EQ(filtered(zel_parse_interested_field_in_msg, wanted, 4), 1); // out-of-range tags ignored
    EXPECT_EQ(out.bytes(), wire_msg({{7, "a"}, {9, ""}, {7, "c"}}));
    EXPECT_EQ(values(m, 7), (Strings{"a", "c"})); // values live in the build buffer
    EXPECT_EQ(filtered(zel_parse_uninterested_field_in_msg, unwanted, 1), 1);
    EXPECT_EQ(out.bytes(), wire_msg({{8, "b"}, {9, ""}}));
    EXPECT_RESULT(filtered(zel_parse_interested_field_in_msg, only_later, 1), 0, 6);
    EXPECT_RESULT(filtered(zel_parse_uninterested_field_in_msg, unwanted, 0), 0, 2);
    out.s.data[0] = 'X'; // no magic in the build buffer
    EXPECT_RESULT(zel_parse_interested_field_in_msg(m, &in.s, unwanted, 1, &err), 0, 2);
    ASSERT_EQ(zel_start_msg(m, &in.s, &err), 1);
    EXPECT_RESULT(zel_parse_interested_field_in_msg(m, &in.s, unwanted, 1, &err), 0, 2); // build == input
    load(wire_msg({}));
    EXPECT_RESULT(filtered(zel_parse_interested_field_in_msg, nullptr, 0), 0, 6);
}

TEST_F(FieldIteration, FollowsFirstAppearanceSortingReordersLaterIterationsAndTag65534KeepsTheCount)
{
    const std::string bytes = wire_msg({{30, "a"}, {10, "b"}, {20, "c"}, {10, "d"}});
    parse(bytes);
    int tag = 0, count = 0;
    Tags seen; // tag * 10 + count
    for (int r = zel_get_first_field(m, &tag, &count, &err); r; r = zel_get_next_field(m, &tag, &count, &err))
        seen.push_back(tag * 10 + count);
    EXPECT_EQ(err, 6);
    EXPECT_RESULT(zel_get_next_field(m, &tag, &count, &err), 1, 0); // the end rewound
    EXPECT_EQ(tag, 30);
    for (int r = zel_get_first_field_sort(m, &tag, &count, &err); r;
         r = zel_get_next_field_sort(m, &tag, &count, &err))
        seen.push_back(tag * 10 + count);
    EXPECT_EQ(seen, (Tags{301, 102, 201, 102, 201, 301}));
    EXPECT_EQ(std::make_pair(field_order(m), in.bytes()), std::make_pair(Tags{10, 20, 30}, bytes)); // items stay
    parse(wire_msg({}));
    EXPECT_RESULT(zel_get_first_field(m, &tag, &count, &err), 0, 6);
    parse(wire_msg({{65534, "z"}}));
    EXPECT_EQ(values(m, 65534), (Strings{"z"}));
    count = 42; // not fetched for the top tag: the caller's value stands
    EXPECT_RESULT(zel_get_first_field(m, &tag, &count, &err), 1, 0);
    EXPECT_EQ(std::make_pair(tag, count), std::make_pair(65534, 42));
    count = 0;
    EXPECT_RESULT(zel_get_first_field(m, &tag, &count, &err), 0, 6);
    Tags order; // more tags than the list first holds
    std::vector<Item> items;
    for (int t = 0; t < 5000; ++t)
        items.push_back({order.emplace_back((t * 7919) % 65535), std::to_string(t)});
    parse(wire_msg(items));
    EXPECT_EQ(field_order(m), order);
}

} // namespace
