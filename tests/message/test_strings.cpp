// Counted strings, scratch buffers, text numbers and raw byte numbers.
#include <algorithm>

#include "message_test_util.h"

namespace {

using namespace zt;

std::vector<int> dims(const scratchcb &s) { return {s.len, s.size, s.alloc}; }

// Setting the size grows to the request, appending grows with 512 spare, and
// neither shrinks; opening checks its arguments, closing leaves the caller's
// handle, and palloc never hands its block out.
TEST(ScratchBuffer, SizesGrowOnlyOpenChecksItsArgumentsCloseLeavesTheHandleAndPallocNeverHandsOut)
{
    int err;
    scratchcb s{.len = 3}, *h = nullptr, owned{.len = 7}, *never = nullptr, *open = &owned;
    EXPECT_RESULT(pset_buffer_size(nullptr, 10, &err), 0, 1);
    EXPECT_RESULT(pset_buffer_size(&s, 0, &err), 0, 2);
    EXPECT_RESULT(pset_buffer_size(&s, 10, &err), 1, 0);
    memcpy(s.data, "0123456789", 10);
    EXPECT_RESULT(pset_buffer_size(&s, 4, &err), 1, 0); // smaller: only `size` follows
    EXPECT_EQ(dims(s), (std::vector<int>{3, 4, 10}));
    EXPECT_RESULT(pset_buffer_size(&s, 5000, &err), 1, 0);
    EXPECT_EQ(dims(s), (std::vector<int>{3, 5000, 5000}));
    EXPECT_EQ(std::string(s.data, 10), "0123456789");
    EXPECT_RESULT(punset_buffer_size(&s, &err), 1, 0);
    EXPECT_TRUE(s.data == nullptr && dims(s) == std::vector<int>(3, 0));
    EXPECT_RESULT(punset_buffer_size(nullptr, &err), 0, 3);
    Scratch dst(10), src(16); // appending grows with 512 spare once the result would fill the buffer
    dst.assign("abcd");
    for (const char *more : {"efghij", "k"}) { // an exact fill already grows; then there is room
        src.assign(more);
        EXPECT_RESULT(p_append_buf(&dst.s, &src.s, &err), 1, 0);
        EXPECT_EQ(dst.s.alloc, 4 + 6 + 512);
    }
    EXPECT_EQ(dst.bytes(), "abcdefghijk");
    EXPECT_RESULT(p_append_buf(&dst.s, &s, &err), 0, 2);

    // Opening, closing and allocating a scratch of one's own.
    EXPECT_RESULT(zel_open_scratch(&h, 0, &err), 0, 2);
    EXPECT_EQ(zel_open_scratch(&h, 0, nullptr), 0); // a null detail pointer: the same answer, no detail
    EXPECT_RESULT(zel_open_scratch(&h, 100, &err), 1, 0);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(dims(*h), (std::vector<int>{0, 100, 100}));
    scratchcb *held = h;
    EXPECT_RESULT(zel_open_scratch(&h, 100, &err), 0, 4);
    EXPECT_RESULT(zel_close_scratch(&h, &err), 1, 0);
    EXPECT_EQ(h, held); // the caller clears its own handle
    h = nullptr;
    EXPECT_RESULT(zel_close_scratch(&h, &err), 0, 1);
    EXPECT_RESULT(zel_open_scratchcb(&owned, 32, &err), 1, 0); // caller-owned: its len is left alone
    EXPECT_EQ(dims(owned), (std::vector<int>{7, 32, 32}));
    EXPECT_RESULT(palloc_scratch(&never, 64, &err), 1, 0);
    EXPECT_EQ(never, nullptr); // and the block it made is released again (leak check)
    EXPECT_RESULT(palloc_scratch(&never, 0, &err), 0, 2);
    EXPECT_RESULT(palloc_scratch(&open, 64, &err), 0, 4);
    EXPECT_RESULT(punset_buffer_size(&owned, &err), 1, 0);
}

TEST(CountedString, CopyMovesOverlappingBytesAndReplicateMakesAnOwnedCopy)
{
    int err;
    char text[] = "hello world";
    sPChar src{text, 5}, copy{}, empty{text, 0}, middle{text + 2, 5};
    EXPECT_RESULT(pchar_replicate_mem(&copy, &src, &err), 1, 0);
    EXPECT_TRUE(copy.data != text && str(copy) == "hello");
    EXPECT_RESULT(pchar_destroy_mem(&copy, &err), 1, 0);
    EXPECT_TRUE(copy.data == nullptr && copy.len == 0);
    EXPECT_RESULT(pchar_destroy_mem(&copy, &err), 0, 2);
    EXPECT_RESULT(pchar_replicate_mem(&copy, &empty, &err), 0, 5);
    EXPECT_RESULT(p_mem_copy(text + 4, &middle, &err), 1, 0); // overlapping, either way
    EXPECT_EQ(std::string(text), "hellllo wld");
    EXPECT_RESULT(p_mem_copy(text, &middle, &err), 1, 0);
    EXPECT_EQ(std::string(text), "llllolo wld");
}

TEST(CountedString, CompareIsEqualityCompareMatchOrdersWithDetail1AndQuicksortFollowsIt)
{
    int err = -99;
    sPChar upper = pc("ABC"), lower = pc("abc"), other = pc("ABD"), prefix = pc("AB"), ab = pc("ab");
    for (auto [a, b, nocase, want] : std::vector<std::tuple<sPChar *, sPChar *, int, int>>{
             {&upper, &lower, 1, 1}, {&upper, &lower, 0, 0}, {&upper, &other, 1, 0}, {&prefix, &upper, 1, 0}})
        EXPECT_EQ(pchar_compare(a, b, nocase, &err), want) << str(*a) << " " << str(*b) << " " << nocase;
    EXPECT_EQ(err, -99); // no detail on success or mismatch
    EXPECT_RESULT(pchar_compare(&upper, nullptr, 1, &err), 0, 2);
    EXPECT_RESULT(pchar_compare_match(&ab, &lower, &err), -1, 1); // the sort below checks the rest of the order
    EXPECT_RESULT(pchar_compare_match(&ab, &ab, &err), 0, 1);
    char x[] = "a\0b", y[] = "a\0c", l[] = "abcX", r[] = "abcY";
    sPChar px{x, 3}, py{y, 3}, pl{l, 3}, pr{r, 3}, empty{x, 0};
    EXPECT_EQ(pchar_compare_match(&px, &py, &err), 0); // an embedded NUL ends the comparison
    EXPECT_EQ(pchar_compare_match(&pl, &pr, &err), 0); // only the counted bytes take part
    EXPECT_RESULT(pchar_compare_match(&ab, &empty, &err), 0, 2);
    Strings words = {"b", "a", "ab", "\xff", "\x80", "a", "ba", "10", "9", "b", "abc", "1", "a"}, sorted;
    std::vector<sPChar> array(words.size());
    std::ranges::transform(words, array.begin(), [](const std::string &w) { return pc(w); });
    EXPECT_RESULT(p_quicksort_pchars(array.data(), int(array.size()), &err), 1, 0);
    std::ranges::transform(array, std::back_inserter(sorted), str);
    std::sort(words.begin(), words.end()); // byte order, as unsigned characters
    EXPECT_EQ(sorted, words);
}

TEST(Numbers, TextConvertsDigitsWithALeadingMinusAndRawNumbersAreLittleEndian)
{
    int err, i, off = 1;
    long l;
    short s;
    double d;
    // A text and what the int, long, short and double readers make of it (77: refused, untouched).
    const std::string long_zeros = std::string(126, '0') + "7", too_long(128, '1');
    const std::vector<std::tuple<std::string, int, long, short, double>> table = {
        {"-12", -12, -12, -12, -12}, {"-", 0, 0, 0, 0}, {long_zeros, 7, 7, 7, 7}, {"70000", 70000, 70000, 4464, 7e4},
        {"1.2.3", 77, 77, 77, 1.2}, {"+12", 77, 77, 77, 77}, {"1a", 77, 77, 77, 77}, {".5", 77, 77, 77, 77},
        {"1e5", 77, 77, 77, 77}, {"", 77, 77, 77, 77}, {too_long, 77, 77, 77, 77}};
    for (const auto &[text, want_i, want_l, want_s, want_d] : table) {
        sPChar p = pc(text);
        i = 77, l = 77, s = 77, d = 77;
        EXPECT_EQ(pchars_to_int(&i, &p, &err), want_i != 77) << text;
        EXPECT_EQ(err, want_i != 77 ? 0 : 2) << text;
        EXPECT_EQ(pchars_to_long(&l, &p, &err) + pchars_to_short(&s, &p, &err), want_l != 77 ? 2 : 0) << text;
        EXPECT_EQ(pchars_to_double(&d, &p, &err), want_d != 77) << text;
        EXPECT_EQ(std::make_tuple(i, l, s, d), std::make_tuple(want_i, want_l, want_s, want_d)) << text;
    }
    sPChar three{const_cast<char *>("12345"), 3}; // only the counted bytes are converted
    EXPECT_RESULT(pchars_to_int(&i, &three, &err), 1, 0);
    EXPECT_EQ(i, 123);
    EXPECT_TRUE(isstrnum("") && isstrnum("0123") && !isstrnum("-1") && !isstrnum("12a")); // "" counts
    unsigned short two = 0;
    unsigned int four = 0;
    char raw[8] = {};
    EXPECT_TRUE(pput_two_byte_num(0x4242, raw, &off, &err) && pput_four_byte_num(0xFF020304u, raw, &off, &err));
    EXPECT_EQ(std::string(raw, 8) + std::to_string(off), std::string("\0\x42\x42\x04\x03\x02\xFF\0", 8) + "7");
    off = 1;
    EXPECT_TRUE(pget_two_byte_num(&two, raw, &off, &err) && pget_four_byte_num(&four, raw, &off, &err));
    EXPECT_EQ(std::make_tuple(int(two), four, off, err), std::make_tuple(0x4242, 0xFF020304u, 7, 0));
}

} // namespace
