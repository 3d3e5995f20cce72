// Lines of format and ini text: comments, the stop at an empty line, splitting
// at the first delimiter, trimming.
#include <zel/config.h>

#include <string>
#include <vector>

#include "config/text_lists.h"
#include "message/message_test_util.h" // pc, str

namespace {

using zt::pc;
using zt::str;

// Every line the reader yields from `text`, up to the first it refuses.
std::vector<std::string> lines_of(std::string text)
{
    scratchcb s{int32_t(text.size()), int32_t(text.size()), int32_t(text.size()), text.data()};
    std::vector<std::string> lines;
    sPChar line{};
    int32_t pos = 0;
    while (get_single_fmt_ini_msg(&s, &line, &pos))
        lines.push_back(str(line));
    return lines;
}

// The key and value that splitting `line` at `delimiter` gives; "-" stands
// for a null text.
using KeyValue = std::pair<std::string, std::string>;
KeyValue split(const std::string &line, const char *delimiter = "=")
{
    sCfgItem item{};
    sPChar text = pc(line);
    uint32_t err = 99;
    EXPECT_EQ(load_delim_msg_to_hndl(&item, &text, delimiter, &err), 1u);
    EXPECT_EQ(err, 0u);
    KeyValue result{item.key.data ? str(item.key) : "-", item.value.data ? str(item.value) : "-"};
    zel::cfg::release_items(&item, 1);
    return result;
}

std::string trimmed(std::string text)
{
    zel_trim_str_spaces(text.data());
    return text.c_str();
}

TEST(LineReader, SkipsBlanksAndOneCommentLineCutsInlineCommentsAndStopsAtTwoCommentLines)
{
    const std::vector<std::pair<std::string, std::vector<std::string>>> cases = {
        {"\n\n  \ta=1\r\n// note\n\tb = 2  \n/* one line only\nc\n", {"a=1", "b = 2", "c"}},
        {"a=1\n// first\n// second\nb=2\n", {"a=1"}},
        {"a=1\n// first\n\n/* second\nb=2\n", {"a=1"}},
        {"a = 1   // why\nb=2/* no block */ c\nd=3\t// tab\n", {"a = 1", "b=2", "d=3\t"}}}; // tabs before stay
    for (const auto &[text, lines] : cases)
        EXPECT_EQ(lines_of(text), lines) << text;
}

TEST(Trim, RemovesBlanksTabsAndApostrophesAtBothEndsOnly)
{
    for (const auto &[in, out] : {std::pair{" \t'a b'\t ", "a b"}, {"it's", "it's"}, {"' '", ""}, {"", ""}})
        EXPECT_EQ(trimmed(in), out);
    zel_trim_str_spaces(nullptr);
}

TEST(Split, SplitsAtTheFirstDelimiterAndSkipsLeadingOnes)
{
    EXPECT_EQ(split("price : 0", ":"), KeyValue("price", "0"));
    for (const auto &[line, kv] : {std::pair{" name = 'a=b' ", KeyValue("name", "a=b")}, {"key=", {"key", "-"}},
                                   {"=value", {"value", "-"}}, {"'' = x", {"-", "x"}}, {"===", {"-", "-"}},
                                   {"==ab", {"ab", "b"}}}) // the value starts at the key's length + 1
        EXPECT_EQ(split(line), kv) << line;
}

TEST(Split, RefusesALineLongerThanTheLimit)
{
    std::string longest(CFG_MAX_LINE, 'k'), too_long(CFG_MAX_LINE + 1, 'k');
    EXPECT_EQ(split(longest).first.size(), size_t(CFG_MAX_LINE));
    sCfgItem item{};
    sPChar text = pc(too_long);
    uint32_t err;
    EXPECT_RESULT(load_delim_msg_to_hndl(&item, &text, "=", &err), 0u, 5u);
    EXPECT_EQ(item.key.data, nullptr);
}

} // namespace
