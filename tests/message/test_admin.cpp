// Admin text in both directions, argument vectors, printing; copying fields and messages.
#include <cstdio>
#include <fstream>
#include <iterator>

#include "message_test_util.h"

namespace {

using namespace zt;
using AdminText = MessageTest;
using MessageCopy = MessageTest;

// The admin text of the message (or its printable form, which a NUL follows),
// written into a small scratch so that it grows.
std::string admin(vartocb *m, bool printable = false)
{
    Scratch text(16);
    int err;
    EXPECT_RESULT(printable ? varto_to_printable_admin(m, &text.s, 0, &err) : varto_to_admin(m, &text.s, &err), 1, 0);
    EXPECT_TRUE(!printable || (text.s.len < text.s.alloc && text.s.data[text.s.len] == '\0'));
    return text.bytes();
}

TEST_F(AdminText, WritesTripletsByFieldQuotingBlanksAndDoublingQuotesWithAFinalSpaceAndPrintsThem)
{
    Scratch pre(8);
    int tag, count;
    const std::string sorted = "5 1 'it''s' 6 1 t\tb\nc 7 1 'x y' 8 1 '''''' 9 0 ";
    const std::string path = testing::TempDir() + "zel_print_msg_test.txt";
    std::string named = path + "XYZ"; // the name is counted, not terminated
    sPChar dest{named.data(), int32_t(path.size())}, to_stdout = pc("stdout");
    build(m, out, {{5, "ab"}, {7, "x y"}, {9, ""}, {5, "it's"}, {6, "t\tb\nc"}, {8, "''"}});
    EXPECT_EQ(admin(m), "5 1 ab 5 1 'it''s' 7 1 'x y' 9 0 6 1 t\tb\nc 8 1 '''''' ");
    ASSERT_EQ(zel_delete_data_item(m, 5, 0, &err), 1);
    ASSERT_EQ(zel_get_first_field_sort(m, &tag, &count, &err), 1);
    pre.assign("> ");
    EXPECT_RESULT(varto_to_admin(m, &pre.s, &err), 1, 0);
    EXPECT_EQ(pre.bytes(), "> " + sorted);
    std::ofstream(path) << std::string(200, '#'); // printed: longer than the new content
    EXPECT_RESULT(zel_parse_print_msg(m, &dest, &err), 1, 0);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(std::ifstream(path).rdbuf()), {}), sorted + "\n");
    std::remove(path.c_str());
    testing::internal::CaptureStdout();
    EXPECT_EQ(zel_parse_print_msg(m, &to_stdout, &err), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), sorted + "\n");
    // The printable form walks the buffer: deleted items show as 65535, and a NUL follows.
    EXPECT_EQ(admin(m, true), "65535 1 ab 7 1 'x y' 9 0 5 1 'it''s' 6 1 t\tb\nc 8 1 '''''' ");
    out.s.data[m->header_offset] = 'X';
    EXPECT_RESULT(varto_to_admin(m, &pre.s, &err), 0, 2);
    EXPECT_RESULT(varto_to_printable_admin(m, &pre.s, 0, &err), 0, 2);
    // Values made of quotes and blanks outgrow any estimate.
    build(m, out, {{1, std::string(3000, '\'')}, {2, ""}, {3, std::string(500, ' ')}});
    const std::string want = "1 1 '" + std::string(6000, '\'') + "' 2 0 3 1 '" + std::string(500, ' ') + "' ";
    EXPECT_EQ(std::make_pair(admin(m), admin(m, true)), std::make_pair(want, want));
}

// Tokenizes a copy of `text` (exactly its length) into the documented bound
// of tokens, and builds a message from them into `out`.
int from_admin(vartocb *m, Scratch &out, const std::string &text, int *err)
{
    std::vector<char> bytes(text.begin(), text.end());
    std::vector<sPChar> tokens(text.size() / 2 + 1);
    sPChar whole{bytes.data(), int32_t(bytes.size())};
    int n = 0;
    zel_get_data_triplets(tokens.data(), &n, &whole);
    *err = -99;
    return varto_from_admin(m, n, tokens.data(), &out.s, err);
}

// Builds a message from `argv` (tag, count, values...) into `out`.
int couplets(vartocb *m, Scratch &out, std::vector<const char *> argv, int *err)
{
    void *pair[2] = {m, &out.s};
    *err = -99;
    return read_mnm_couplets(pair, int(argv.size()), argv.data(), err);
}

TEST_F(AdminText, ReadingTripletsOrArgumentVectorsBuildsItemsAndRejectsIncompleteOnes)
{
    // Blanks, tabs and line breaks separate; an unterminated quote runs to the end.
    EXPECT_RESULT(from_admin(m, out, "5 2 a\tb\r\n9 0  3 1 'it''s' 7 1 '''' 4 1 'a b", &err), 1, 0);
    EXPECT_EQ(out.bytes(), wire_msg({{5, "a"}, {5, "b"}, {9, ""}, {3, "it's"}, {7, "'"}, {4, "a b"}}));
    // "9 0" alone fails: a count of 0 must be followed by another token.
    for (const char *text : {"9 0", "5", "5 1", "5 2 a", "5 1 x 6", "5 -1 x y", "x 1 a", "5 y a", "70000 1 a"})
        EXPECT_EQ(std::make_pair(from_admin(m, out, text, &err), err), std::make_pair(0, 2)) << text;
    out.assign("junk before"); // an argument vector's message starts the scratch afresh
    EXPECT_RESULT(couplets(m, out, {"5", "2", "a b", "c", "9", "0", "12", "1", "d"}, &err), 1, 0);
    EXPECT_EQ(out.bytes(), wire_msg({{5, "a b"}, {5, "c"}, {9, ""}, {12, "d"}}));
    // Starting the message writes detail 0; a non-numeric tag or count then
    // ends the call without writing another. A short vector is detail 2.
    for (const auto &[argv, detail] : std::vector<std::pair<std::vector<const char *>, int>>{
             {{"12", "x"}, 0}, {{"x"}, 0}, {{"5", "-1", "a"}, 0}, {{"+5", "1"}, 0}, {{"5"}, 2}, {{"5", "2", "a"}, 2}})
        EXPECT_EQ(std::make_pair(couplets(m, out, argv, &err), err), std::make_pair(0, detail))
            << argv[0] << " " << argv.size();
}

TEST_F(MessageCopy, FieldsKeepTheirItemsAndOrderReceiveLeavesOutTransportTagsAndChangedFieldsAreMerged)
{
    Varto dst;
    Scratch dbuf, small(4);
    build(m, out, {{5, "a"}, {3, ""}, {9, "x"}, {5, "b"}});
    build(dst, dbuf, {});
    EXPECT_RESULT(zel_copy_field_as(dst, m, 100, 5, &err), 1, 0);
    EXPECT_RESULT(zel_copy_field(dst, m, 3, &err), 1, 0);
    EXPECT_EQ(dbuf.bytes(), wire_msg({{100, "a"}, {100, "b"}, {3, ""}}));
    EXPECT_RESULT(zel_copy_field_as(dst, m, 100, 44, &err), 0, 6);
    build(dst, dbuf, {});
    EXPECT_RESULT(zel_copy_msg(dst, m, &err), 1, 6);
    EXPECT_EQ(dbuf.bytes(), wire_msg({{5, "a"}, {5, "b"}, {3, ""}, {9, "x"}}));
    build(m, out, {{1, "a"}, {32760, "t0"}, {32761, "t1"}, {40, ""}, {32767, "t7"}, {32759, "below"},
                   {32768, "above"}, {1, "b"}});
    build(dst, dbuf, {});
    EXPECT_RESULT(varto_copy_msg_recieve(m, dst, &err), 1, 0);
    const std::string copied = wire_msg({{1, "a"}, {1, "b"}, {40, ""}, {32759, "below"}, {32768, "above"}});
    EXPECT_EQ(dbuf.bytes(), copied);
    small.assign("xyz"); // the whole build buffer appended
    EXPECT_RESULT(varto_to_scratch(dst, &small.s, &err), 1, 0);
    EXPECT_EQ(small.bytes(), "xyz" + copied);
    EXPECT_RESULT(varto_scratch_comp(m, &out.s, &err), 0, 2); // built, not parsed in place
    parse(wire_msg({{1, "a"}}));
    EXPECT_RESULT(varto_scratch_comp(m, &in.s, &err), 1, 0);
    parse(wire_msg({})); // no field
    EXPECT_RESULT(varto_scratch_comp(m, &in.s, &err), 0, 2);

    // A merge of changed fields adds them or rewrites them in place.
    const std::string big(3000, 'B');
    int all_tags[16] = {}, kept[16] = {}, n_all = 0, n_values = 0, n_kept = 0;
    sPChar all_vals[16] = {};
    build(m, out, {{4, "same"}, {5, big}, {6, "added"}, {7, ""}, {8, ""}, {9, "x"}, {11, "s"}, {32761, "t"}, {5, "2"}});
    build(dst, dbuf, {{4, "same"}, {5, "old"}, {7, ""}, {5, "old2"}, {9, ""}, {10, "keep"}, {11, "longvalue"}});
    EXPECT_RESULT(varto_copy_changed_fields(m, dst, all_tags, &n_all, all_vals, &n_values, kept, &n_kept, &err), 1, 0);
    EXPECT_EQ(Tags(all_tags, all_tags + n_all), (Tags{4, 5, 6, 7, 8, 9, 11}));
    EXPECT_EQ(std::make_tuple(n_values, str(all_vals[1]), all_vals[3].len), std::make_tuple(7, big, 0));
    // Equal, added and changed fields are kept; empty on both sides is not.
    EXPECT_EQ(Tags(kept, kept + n_kept), (Tags{4, 5, 6, 8, 9, 11}));
    // Only the first item of a changed field is rewritten, where it lies; absent fields follow.
    const std::string merged = wire_msg({{4, "same"}, {5, big}, {7, ""}, {5, "old2"}, {9, "x"}, {10, "keep"},
                                         {11, "s"}, {6, "added"}, {8, ""}});
    EXPECT_EQ(dbuf.bytes(), merged);
    EXPECT_EQ(values(dst, 5), (Strings{big, "old2"}));
    n_kept = 2; // merging again changes nothing; the lists grow from their counts
    EXPECT_RESULT(varto_copy_changed_fields(m, dst, all_tags, &n_all, all_vals, &n_values, kept, &n_kept, &err), 1, 0);
    EXPECT_EQ(Tags(kept, kept + n_kept), (Tags{4, 5, 4, 5, 6, 9, 11}));
    EXPECT_EQ(dbuf.bytes(), merged);
}

} // namespace
