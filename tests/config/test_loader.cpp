// Loading format, ini and cfg files, compiling ini sections into cfg records,
// reading cells back, and the refusals of input beyond the limits.
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

using zt::pc;
using zt::str;
using Cells = std::vector<std::pair<uint32_t, std::string>>;

template <typename T> void put(std::string &b, T v) { b.append(reinterpret_cast<const char *>(&v), sizeof v); }

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
    void expect_refused(uint64_t result, uint32_t detail) { EXPECT_EQ(std::make_pair(result, err), std::make_pair(uint64_t{0}, detail)); }
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
