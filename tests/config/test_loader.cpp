// Lines of format and ini text (comments, the stop at an empty line, splitting
// at the first delimiter, trimming); loading format, ini and cfg files,
// compiling ini sections into cfg records, reading cells back, and the
// refusals of input beyond the limits.
#include <zel/config.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "config/text_lists.h"
#include "message/message_test_util.h" // pc, str

namespace {

using namespace zt;
using Cells = std::vector<std::pair<uint32_t, std::string>>;

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

// The key and value that splitting `line` at `delimiter` gives, "-" standing
// for a null text; for a refusal, its detail and whether a key was left.
using KeyValue = std::pair<std::string, std::string>;
KeyValue split(const std::string &line, const char *delimiter = "=")
{
    sCfgItem item{};
    sPChar text = pc(line);
    uint32_t err = 99;
    if (!load_delim_msg_to_hndl(&item, &text, delimiter, &err))
        return {"<" + std::to_string(err) + ">", item.key.data ? "key left" : ""};
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

// "==ab": the value starts at the key's length + 1. A line of the limit's
// length splits; one byte more is refused.
TEST(Split, SplitsAtTheFirstDelimiterSkipsLeadingOnesAndRefusesALineLongerThanTheLimit)
{
    const std::string longest(CFG_MAX_LINE, 'k');
    EXPECT_EQ(split("price : 0", ":"), KeyValue("price", "0"));
    for (const auto &[line, kv] : std::vector<std::pair<std::string, KeyValue>>{
             {" name = 'a=b' ", {"name", "a=b"}}, {"key=", {"key", "-"}}, {"=value", {"value", "-"}},
             {"'' = x", {"-", "x"}}, {"===", {"-", "-"}}, {"==ab", {"ab", "b"}}, {longest, {longest, "-"}},
             {longest + "k", {"<5>", ""}}})
        EXPECT_EQ(split(line), kv) << line.substr(0, 16);
}


// One cfg record with its length prefix.
std::string record(uint32_t row, const Cells &cells)
{
    std::string body;
    put(body, row);
    for (const auto &[column, text] : cells) {
        put(body, column);
        put(body, uint32_t(text.size()));
        body += text;
    }
    std::string framed;
    put(framed, uint32_t(body.size()));
    return framed + body;
}

// A handle and a private directory for the files of one test; both go away
// with the test.
struct ConfigTest : ::testing::Test {
    std::string dir;
    sCfgHandle *h = nullptr;
    uint32_t err = 99;

    void SetUp() override
    {
        char name[] = "/tmp/zel_config_XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        dir = name;
        ASSERT_EQ(cfg_open(&h, 0, &err), 1u);
    }
    void TearDown() override
    {
        release_what_unloading_keeps();
        EXPECT_EQ(cfg_close(&h, &err), 1u);
        EXPECT_EQ(h, nullptr);
        std::filesystem::remove_all(dir);
    }
    // cfg_unload_ini (and so cfg_close) leaves the texts of every item after a
    // section's first: a test releases them itself.
    void release_what_unloading_keeps()
    {
        for (uint32_t s = 0; h && h->ini && s < h->ini->count; ++s) {
            sCfgItemList &list = h->ini->sections[s].list;
            zel::cfg::release_items(list.items + 1, list.count - 1);
        }
    }
    std::string file(const std::string &name, const std::string &bytes)
    {
        std::ofstream(dir + "/" + name, std::ios::binary) << bytes;
        return dir + "/" + name;
    }
    uint64_t load(uint64_t (*loader)(sCfgHandle *, sPChar *, uint32_t *), const std::string &path)
    {
        sPChar p = pc(path);
        return loader(h, &p, &err);
    }
    uint64_t load_cfg_bytes(const std::string &bytes) { return load(cfg_load_cfg, file("t.cfg", bytes)); }
    void expect_refused(uint64_t result, uint32_t detail)
    {
        EXPECT_EQ(std::make_pair(result, err), std::make_pair(uint64_t{0}, detail));
    }
    std::string item(int32_t row, int32_t column)
    {
        sPChar out{};
        return cfg_get_item(h, row, column, &out, &err) ? str(out) : "<" + std::to_string(err) + ">";
    }
};

const char *const kFormat = "name\nprice : 0 // when a section has none\ncolour\n";
// A key given twice: the first counts. Two comment lines in a row end the file.
const char *const kIni = "// fruit\n/apple\nprice = 3\ncolour = 'dark red'\n/pear\ncolour=green=ish\ncolour=red\n"
                         "// one\n// two\n/plum\n";

TEST_F(ConfigTest, CompiledSectionsReadBackCellByCellWithDefaults)
{
    ASSERT_EQ(load(cfg_load_fmt, file("t.fmt", kFormat)), 1u);
    ASSERT_EQ(load(cfg_load_ini, file("t.ini", kIni)), 1u);
    EXPECT_EQ(str(h->ini->sections[1].list.items[0].key), "pear"); // the header line is item 0
    scratchcb out{};
    ASSERT_EQ(cfg_build_file_data(&out, h, h, &err), 1u);
    std::string compiled(out.data, size_t(out.len));
    int ignored;
    punset_buffer_size(&out, &ignored);
    EXPECT_EQ(compiled, record(0, {{1, "3"}, {2, "dark red"}}) + record(1, {{1, "0"}, {2, "green=ish"}}));

    ASSERT_EQ(load_cfg_bytes(compiled), 1u);
    EXPECT_EQ(item(0, 2), "dark red");
    EXPECT_EQ(item(1, 1), "0");
    EXPECT_EQ(item(0, 0), "<6>"); // "name" has no default and no section sets it
    int32_t rows = 0, columns = 0;
    ASSERT_EQ(cfg_get_size(h, &rows, &columns, &err), 1u);
    EXPECT_EQ(std::make_pair(rows, columns), std::make_pair(2, 2));
}

TEST_F(ConfigTest, UnloadingAnIniListKeepsTheTextsOfLaterItems)
{
    ASSERT_EQ(load(cfg_load_ini, file("t.ini", "/s\na=1\n")), 1u);
    sCfgItem later = h->ini->sections[0].list.items[1];
    ASSERT_EQ(cfg_unload_ini(&h->ini, &err), 1u);
    EXPECT_EQ(h->ini, nullptr);
    for (void *text : {later.key.data, later.value.data}) // still allocated: freeing them succeeds, once
        EXPECT_EQ(sys_mem_free(0, &text, &err), 1u);
    expect_refused(cfg_unload_ini(&h->ini, &err), 2u);
}

TEST_F(ConfigTest, TextFilesBeyondTheLimitsAreRefused)
{
    std::string lines, sections, items = "/s\n";
    for (int i = 0; i <= 1024; ++i) {
        lines += "c" + std::to_string(i) + "\n";
        sections += "/s" + std::to_string(i) + "\n";
        items += "k" + std::to_string(i) + "=v\n"; // with the header, 1026 items
    }
    expect_refused(load(cfg_load_fmt, file("t.fmt", lines)), 5u);
    expect_refused(load(cfg_load_ini, file("s.ini", sections)), 5u);
    expect_refused(load(cfg_load_ini, file("i.ini", items)), 5u);
    EXPECT_EQ(load(cfg_load_fmt, file("ok.fmt", lines.substr(lines.find("c1\n")))), 1u);
}

TEST_F(ConfigTest, CfgRecordsBeyondTheTableOrPastTheirEndAreRefused)
{
    std::string too_many_records;
    Cells cells;
    for (uint32_t i = 0; i <= 1024; ++i) {
        too_many_records += record(0, {});
        cells.push_back({i % 1024, "x"});
    }
    std::string past_end = record(0, {{0, "abc"}});
    past_end[8 + 4] = 4; // the text length now runs one byte past the record
    for (const std::string &bad : {record(1024, {}), record(0, {{1024, "x"}}), std::string("\3\0\0\0abc", 7),
                                   past_end, too_many_records, record(0, cells)}) {
        expect_refused(load_cfg_bytes(bad), 5u);
        EXPECT_EQ(h->table, nullptr);
    }
}

TEST_F(ConfigTest, CellRowsAreCheckedAgainstTheRecordCount)
{
    ASSERT_EQ(load_cfg_bytes(record(5, {{3, "five"}}) + record(0, {{0, "first"}, {0, ""}})), 1u);
    // A cell given twice keeps the later text, and an empty text is not an empty cell; a row equal to
    // the record count passes; row 5 is held, but beyond the record count.
    for (const auto &[row, column, cell] : {std::tuple{0, 0, ""}, {2, 0, "<6>"}, {5, 3, "<5>"}, {-1, 0, "<5>"},
                                            {0, 1024, "<5>"}})
        EXPECT_EQ(item(row, column), cell) << row << "," << column;
    expect_refused(load_cfg_bytes(record(0, {})), 3u); // a table is already loaded
}

TEST_F(ConfigTest, NullsAndMissingFilesGiveTheirDetails)
{
    expect_refused(cfg_open(&h, 0, &err), 3u);
    expect_refused(load(cfg_load_fmt, dir + "/missing.fmt"), 1u);
    sCfgHandle *quiet = nullptr; // a null detail pointer: the same answers, no detail
    const std::string missing = dir + "/missing.ini";
    sPChar path = pc(missing);
    EXPECT_TRUE(cfg_open(&quiet, 0, nullptr) && !cfg_load_ini(quiet, &path, nullptr) && cfg_close(&quiet, nullptr));
    expect_refused(load(cfg_load_fmt, file("empty.fmt", "")), 4u);
    expect_refused(load(cfg_load_ini, file("t.ini", "a=1\n/s\n")), 5u); // an item before any section
    EXPECT_EQ(h->ini, nullptr);
    expect_refused(load(cfg_load_cfg, ""), 5u);
    expect_refused(load_cfg_bytes(record(0, {{0, "abc"}}).substr(0, 10)), 1u); // a record cut short
    expect_refused(cfg_load_ini(nullptr, nullptr, &err), 2u);
    scratchcb out{};
    expect_refused(cfg_build_file_data(&out, h, h, &err), 2u);
    EXPECT_EQ(item(0, 0), "<2>");
}

} // namespace
