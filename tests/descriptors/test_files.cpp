// File and timer descriptors through the public interface, against real
// files in a private temporary folder.
#include <zel/zel.h>

#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>

#include "descriptors/descriptor_test_util.h"

namespace {

class Files : public ::testing::Test {
protected:
    std::string dir = (std::filesystem::temp_directory_path() / "zel_descriptors_XXXXXX").string();
    std::string path = std::string(mkdtemp(dir.data())) + "/file";
    uint32_t err = 99;

    ~Files() override { std::filesystem::remove_all(dir); }

    sFileDescriptor *open(uint32_t access, uint32_t format)
    {
        sFdOpenRequest req{{path.data(), int32_t(path.size())}, access, format, 0, 1};
        sFileDescriptor *fd = nullptr;
        EXPECT_EQ(sys_fd_open(&fd, &req, &err), 1u) << "detail " << err;
        return fd;
    }
    void write_records(uint32_t access, uint32_t format, std::initializer_list<std::string> records)
    {
        sFileDescriptor *fd = open(access, format);
        for (const std::string &record : records) {
            Scratch src(record);
            EXPECT_GT(sys_fd_write(fd, 0, &src.s, &err), 0u);
        }
        sys_fd_close(&fd, &err);
    }
    void append_raw(const std::string &bytes) { std::ofstream(path, std::ios::binary | std::ios::app) << bytes; }
    std::string contents()
    {
        std::ifstream in(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
};

} // namespace

TEST_F(Files, WriteModeEmptiesAppendModeAddsAndWritesAnswerTheLastCallCountingEach)
{
    write_records(SYS_FD_WRITE, SYS_FD_TEXT, {"old"});
    write_records(SYS_FD_APPEND, SYS_FD_TEXT, {"more"});
    EXPECT_EQ(contents(), "old\nmore\n");
    write_records(SYS_FD_WRITE, SYS_FD_TEXT, {"new"});
    EXPECT_EQ(contents(), "new\n");
    EXPECT_EQ(std::filesystem::status(path).permissions() & std::filesystem::perms::all,
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    sFileDescriptor *fd = open(SYS_FD_WRITE, SYS_FD_TEXT);
    Scratch line("line");
    EXPECT_EQ(sys_fd_write(fd, 0, &line.s, &err), 1u) << "the newline comes last";
    EXPECT_EQ((std::array{fd->records_written, fd->write_calls, fd->bytes_written}), (std::array{1u, 2u, 5u}));
    sys_fd_close(&fd, &err);
    fd = open(SYS_FD_WRITE, SYS_FD_WHOLE);
    Scratch empty;
    EXPECT_FAILURE(sys_fd_write(fd, 0, &empty.s, &err), err, 5u);
    EXPECT_EQ(sys_fd_write(fd, 0, &line.s, &err), 4u);
    sys_fd_close(&fd, &err);
}

TEST_F(Files, TextLinesLoseTheirNewlineAndFollowingBlanksAndAnEmptyLineEndsTheFile)
{
    append_raw("first  \n\t  second\n" + std::string(1 << 20, 'x') + "\nthird\n\nhidden\n");
    sFileDescriptor *fd = open(SYS_FD_READ, SYS_FD_TEXT);
    Scratch line;
    EXPECT_EQ(sys_fd_read(fd, 0, &line.s, &err), 7u);
    EXPECT_EQ(std::string(line.s.data), "first  ") << "terminated, trailing blanks kept";
    EXPECT_TRUE(sys_fd_read(fd, 0, &line.s, &err) == 6u && line.bytes() == "second");
    EXPECT_FAILURE(sys_fd_read(fd, 0, &line.s, &err), err, 9u) << "a line of 1 MiB is refused, and skipped";
    EXPECT_TRUE(sys_fd_read(fd, 0, &line.s, &err) == 5u && line.bytes() == "third");
    EXPECT_FAILURE(sys_fd_read(fd, 0, &line.s, &err), err, 0u);
    EXPECT_FAILURE(sys_fd_read(fd, 0, &line.s, &err), err, 0u) << "the empty line stays the end";
    EXPECT_EQ(std::make_pair(fd->records_read, fd->bytes_read), std::make_pair(3u, 18u));
    EXPECT_EQ(sys_fd_close(&fd, &err), 1u);
    EXPECT_EQ(fd, nullptr);
}

TEST_F(Files, LengthPrefixedRecordsReadBackOneByOneAsWrittenAndAreMetered)
{
    const std::string binary = std::string("\0\n\xff", 3) + std::string(9000, 'b');
    write_records(SYS_FD_WRITE, SYS_FD_RECORDS, {"a", binary});
    sFileDescriptor *fd = open(SYS_FD_APPEND, SYS_FD_RECORDS);
    Scratch empty;
    EXPECT_FAILURE(sys_fd_write(fd, 0, &empty.s, &err), err, 2u);
    sys_fd_close(&fd, &err);
    EXPECT_EQ(contents(), framed("a") + framed(binary)) << "the refused record left nothing behind";

    fd = open(SYS_FD_READ, SYS_FD_RECORDS);
    Scratch record;
    for (const std::string &expected : {std::string("a"), binary})
        EXPECT_TRUE(sys_fd_read(fd, 0, &record.s, &err) == expected.size() && record.bytes() == expected);
    EXPECT_FAILURE(sys_fd_read(fd, 0, &record.s, &err), err, 0u);
    EXPECT_EQ(record.s.len, 0);
    EXPECT_EQ((std::array{fd->records_read, fd->read_calls, fd->bytes_read}),
              (std::array{2u, 5u, uint32_t(8 + 1 + binary.size())}));
    sys_fd_close(&fd, &err);
}

TEST_F(Files, BatchedReadsKeepAPartialRecordUntilTheFileHoldsItAll)
{
    const std::string large(10000, 'L'), whole = framed("one") + framed(large) + framed("three");
    append_raw(whole.substr(0, 7 + 5000));
    sFileDescriptor *fd = open(SYS_FD_READ, SYS_FD_RECORDS);
    Scratch batch;
    EXPECT_TRUE(sys_fd_read_buffer(fd, 0, &batch.s, &err) == 1u && batch.bytes() == "one");
    EXPECT_FAILURE(sys_fd_read_buffer(fd, 0, &batch.s, &err), err, 0u) << "the large record is partial";
    append_raw(whole.substr(7 + 5000));
    EXPECT_EQ(sys_fd_read_buffer(fd, 0, &batch.s, &err), 1u);
    EXPECT_EQ(batch.bytes(), "one" + large + "three");
    EXPECT_FAILURE(sys_fd_read_buffer(fd, 0, &batch.s, &err), err, 4u);
    EXPECT_EQ(fd->records_read, 3u);
    sys_fd_close(&fd, &err);
}

// A length above 64 MiB cannot be a record's: refused at once, where one of
// 64 MiB is taken on trust and found short.
TEST_F(Files, ARecordLengthAbove64MiBIsRefusedWithDetail5)
{
    for (const auto &[length, detail, batched_detail] : {std::tuple{(64u << 20) + 1, 5u, 5u}, {64u << 20, 1u, 4u}}) {
        std::filesystem::remove(path);
        append_raw(length_prefix(length) + "x");
        sFileDescriptor *fd = open(SYS_FD_READ, SYS_FD_RECORDS), *batched = open(SYS_FD_READ, SYS_FD_RECORDS);
        Scratch record;
        EXPECT_FAILURE(sys_fd_read(fd, 0, &record.s, &err), err, detail) << length;
        EXPECT_FAILURE(sys_fd_read_buffer(batched, 0, &record.s, &err), err, 0u) << "only the length is whole";
        EXPECT_FAILURE(sys_fd_read_buffer(batched, 0, &record.s, &err), err, batched_detail) << length;
        sys_fd_close(&fd, &err);
        sys_fd_close(&batched, &err);
    }
}

TEST_F(Files, RawFilesReadWholeAndRefusalsNameTheirCause)
{
    write_records(SYS_FD_WRITE, SYS_FD_RAW, {std::string(5000, 'r'), "end"});
    sFileDescriptor *fd = open(SYS_FD_READ, SYS_FD_RAW), *other = nullptr;
    Scratch all;
    EXPECT_EQ(sys_fd_read(fd, 0, &all.s, &err), 5003u);
    EXPECT_FAILURE(sys_fd_read_buffer(fd, 0, &all.s, &err), err, 5u);
    sFdOpenRequest req{{path.data(), int32_t(path.size())}, SYS_FD_READ, SYS_FD_RAW, 0, 0};
    EXPECT_FAILURE(sys_fd_open(&fd, &req, &err), err, 3u);
    req.access = 5;
    EXPECT_FAILURE(sys_fd_open(&other, &req, &err), err, 5u);
    req.access = SYS_FD_READ;
    req.path.len = 0;
    EXPECT_FAILURE(sys_fd_open(&other, &req, &err), err, 1u) << "an empty path cannot be opened";
    sys_fd_close(&fd, &err);
    EXPECT_FAILURE(sys_fd_close(&fd, &err), err, 2u);
}

TEST(Timers, AnIntervalSplitsIntoSecondsAndMicrosecondsAndZeroIsRefused)
{
    double interval = 1.5;
    sTimerDescriptor *td = nullptr, *other = nullptr;
    uint32_t err = 99;
    ASSERT_EQ(sys_td_open(&td, &interval, &err), 1u);
    EXPECT_EQ(std::make_pair(td->record->sec, td->record->usec), std::make_pair(1u, 500000u));
    EXPECT_EQ(sys_td_close(td, &err), 1u);
    interval = 0.0;
    EXPECT_FAILURE(sys_td_open(&other, &interval, &err), err, 2u);
}
