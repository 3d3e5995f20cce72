// The log through its public interface: the line layout, the choice of
// destination by environment, cuts of over-long lines, records as the message
// builder makes them, and the remote logger reached over UDP on 127.0.0.1.
#include <zel/zel.h>

#include <gtest/gtest.h>

#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>

#include "descriptors/descriptor_test_util.h" // LoopbackSocket
#include "support/messages.h"
#include "support/scoped_env.h"

namespace {

namespace fs = std::filesystem;

constexpr size_t time_width = 24;

using zel::test::ScopedEnv;
using zt::Strings;

// The lines of a text file, each without its first `from` bytes.
Strings lines_of(const fs::path &path, size_t from = 0)
{
    std::ifstream in(path);
    Strings lines;
    for (std::string line; std::getline(in, line);)
        lines.push_back(line.substr(from));
    return lines;
}

// The records of a length-prefixed file, without their lengths.
Strings records_of(const fs::path &path)
{
    std::ifstream in(path, std::ios::binary);
    Strings records;
    for (uint32_t length = 0; in.read(reinterpret_cast<char *>(&length), sizeof length);)
        in.read(records.emplace_back(length, '\0').data(), length);
    return records;
}

// The log reads the fine-grained clock; time() reads a coarse one that can
// still show the last second a few milliseconds after the log moved on.
std::string utc_c_time_now()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm broken_down{};
    char text[64];
    return std::string(text, std::strftime(text, sizeof text, "%c", gmtime_r(&now.tv_sec, &broken_down)));
}

// Every test logs as alice on box1 in UTC to a file in a directory of its own.
class Log : public ::testing::Test {
protected:
    ~Log() override
    {
        sys_log_close(&log, &err); // a log already closed is refused, harmlessly
        fs::remove_all(dir_);
    }
    // Opens `log` with PL_LOG_TYPE set to `type` (null: unset) for the open only.
    uint64_t open(const char *type, const char *name = "app")
    {
        ScopedEnv log_type("PL_LOG_TYPE", type);
        sPChar app{const_cast<char *>(name), static_cast<int32_t>(std::strlen(name))};
        return sys_log_open(&log, &app, &err);
    }
    void close_log() { EXPECT_EQ(sys_log_close(&log, &err), 1u); EXPECT_EQ(log, nullptr); }

    std::string dir_pattern_ = (fs::temp_directory_path() / "zel-log-XXXXXX").string();
    fs::path dir_ = mkdtemp(dir_pattern_.data()), path_ = dir_ / "app.log";
    ScopedEnv file_{"PL_LOG_FILE", path_.c_str()}, user_{"USER", "alice"}, host_{"HOSTNAME", "box1"}, tz_{"TZ", "UTC"};
    sLogHandle *log = nullptr;
    uint32_t err = 99;
};

} // namespace

TEST_F(Log, ALineIsTimeHostUserNameAndMessageByteForByte)
{
    ASSERT_EQ(open("log_file"), 1u) << "detail " << err;
    const std::string before = utc_c_time_now();
    ASSERT_EQ(sys_log(log, 3, &err, 0, "filled %d at %s", 42, "1.08415"), 1u) << "detail " << err;
    const std::string after = utc_c_time_now();
    ASSERT_EQ(sys_log(log, 0, &err, 0, "%s", ""), 1u);
    close_log();
    const std::string stamp = lines_of(path_).at(0).substr(0, time_width);
    EXPECT_TRUE(stamp == before || stamp == after) << stamp;
    // An empty message still ends in ': '.
    EXPECT_EQ(lines_of(path_, time_width), (Strings{" box1 alice app : filled 42 at 1.08415", " box1 alice app : "}));

    ScopedEnv no_user("USER", nullptr);
    ASSERT_EQ(open("log_file", ""), 1u);
    ASSERT_EQ(sys_log(log, 0, &err, 0, "x"), 1u);
    close_log();
    // Every open empties the file; an unset user and an empty name leave empty fields.
    EXPECT_EQ(lines_of(path_, time_width), Strings{" box1   : x"});
}

TEST_F(Log, TheDestinationIsChosenByTheExactValueOfPlLogTypeAndMisuseOrAnUnreachableOneIsRefused)
{
    for (const char *unknown : {static_cast<const char *>(nullptr), "", "LOG_FILE", "log_file ", "log"})
        EXPECT_FAILURE(open(unknown), err, 2) << (unknown ? unknown : "unset"); // and no handle: the next open works
    ASSERT_EQ(open("log_text_file"), 1u);
    EXPECT_FAILURE(sys_log(log, 0, &err, 0, "dropped"), err, 2);
    close_log();
    EXPECT_EQ(fs::file_size(path_), 0u) << "a text-file log opens its file but takes no lines";
    ASSERT_EQ(open("log_file"), 1u);
    sLogHandle *open_log = log;
    EXPECT_FAILURE(open("log_file"), err, 7);
    EXPECT_EQ(log, open_log);
    close_log();
    EXPECT_FAILURE(sys_log_open(&log, nullptr, &err), err, 2);
    EXPECT_FAILURE(sys_log(nullptr, 0, &err, 0, "x"), err, 2);
    EXPECT_FAILURE(sys_log_pm(nullptr, 0, 0, nullptr, nullptr, &err), err, 2);
    EXPECT_FAILURE(sys_log_close(&log, &err), err, 2);
    // An unreachable destination gives a detail and no handle.
    ScopedEnv missing_dir("PL_LOG_FILE", (dir_ / "no" / "such" / "app.log").c_str());
    EXPECT_FAILURE(open("log_file"), err, 1);
    ScopedEnv no_file("PL_LOG_FILE", nullptr), no_address("PL_LOGGER_ADDR", nullptr);
    EXPECT_FAILURE(open("log_mnm_file"), err, 1);
    EXPECT_FAILURE(open("log_net"), err, 32) << "the address cannot be resolved";
    EXPECT_EQ(log, nullptr);
}

TEST_F(Log, AnOverlongLineIsCutAtTheBufferBeforeACharacterThatDoesNotFitWhole)
{
    const size_t room = SYS_LOG_LINE_MAX - time_width - std::strlen(" box1 alice app : ");
    ASSERT_EQ(open("log_file"), 1u);
    ASSERT_EQ(sys_log(log, 0, &err, 0, "%s", std::string(5000, 'x').c_str()), 1u);
    Strings expected = {std::string(room, 'x')};
    // Characters of two, three and four bytes, with room left for none to all of their bytes.
    for (const std::string c : {"\u00e9", "\u20ac", "\U0001F600"})
        for (size_t fit = 0; fit <= c.size(); ++fit) {
            const std::string head(room - fit, 'y');
            ASSERT_EQ(sys_log(log, 0, &err, 0, "%s%s%s", head.c_str(), c.c_str(), c.c_str()), 1u);
            expected.push_back(fit == c.size() ? head + c : head);
        }
    close_log();
    EXPECT_EQ(lines_of(path_, SYS_LOG_LINE_MAX - room), expected);
}

// The same records go to a record file and, as one datagram each, to the
// logger at PL_LOGGER_ADDR.
TEST_F(Log, RecordFilesAndNetLogsHoldTheMessagesTheBuilderMakes)
{
    LoopbackSocket logger(SOCK_DGRAM, false);
    timeval lost_datagram_limit{5, 0};
    setsockopt(logger.fd, SOL_SOCKET, SO_RCVTIMEO, &lost_datagram_limit, sizeof lost_datagram_limit);
    ScopedEnv address("PL_LOGGER_ADDR", logger.address.c_str());
    sPChar a = zt::pc("a"), bc = zt::pc("bc");
    sPChar *values[] = {&a, &bc};
    uint32_t tags[] = {1, 2}, bad_tags[] = {70000};
    constexpr auto message = zel::test::build_message;
    const Strings expected = {message({{SYS_LOG_TEXT_TAG, "hello 7"}}), message({{SYS_LOG_TEXT_TAG, ""}}),
                              message({{SYS_LOG_TEXT_TAG, std::string(SYS_LOG_MESSAGE_MAX, 'z')}}),
                              message({{1, "a"}, {2, "bc"}})};
    for (bool net : {false, true}) {
        ASSERT_EQ(open(net ? "log_net" : "log_mnm_file"), 1u) << "detail " << err;
        auto *record = net ? sys_log_pm_net : sys_log_pm, *other = net ? sys_log_pm : sys_log_pm_net;
        ASSERT_EQ(sys_log(log, 0, &err, 0, "hello %d", 7), 1u) << "detail " << err;
        ASSERT_EQ(sys_log(log, 0, &err, 0, "%s", ""), 1u);
        ASSERT_EQ(sys_log(log, 0, &err, 0, "%s", std::string(SYS_LOG_MESSAGE_MAX + 100, 'z').c_str()), 1u);
        ASSERT_EQ(record(log, 0, 2, tags, values, &err), 1u);
        EXPECT_FAILURE(record(log, 0, 1, bad_tags, values, &err), err, 15);
        EXPECT_FAILURE(other(log, 0, 1, tags, values, &err), err, 2)
            << "a file log has no socket, a net log no file";
        close_log();
        Strings records = net ? Strings() : records_of(path_);
        for (std::string datagram(65536, '\0'); net && records.size() < expected.size();) {
            const ssize_t size = recv(logger.fd, datagram.data(), datagram.size(), 0);
            records.push_back(datagram.substr(0, size_t(std::max<ssize_t>(size, 0))));
        }
        EXPECT_TRUE(records == expected) << records.size() << (net ? " records received" : " records in the file");
    }
}
