// The log through its public interface: the line layout, the choice of
// destination by environment, cuts of over-long lines, records read back with
// the message parser, and the remote logger reached over UDP on 127.0.0.1.
#include <zel/zel.h>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <optional>

#include "message/message_test_util.h"

namespace {

namespace fs = std::filesystem;
using Fields = std::vector<zt::Item>;

constexpr size_t time_width = 24;

// Sets (null: unsets) a variable and restores its old state on scope exit.
struct ScopedEnv {
    const char *name;
    std::optional<std::string> saved;
    ScopedEnv(const char *n, const char *value) : name(n)
    {
        if (const char *old = std::getenv(n))
            saved = old;
        apply(value);
    }
    ~ScopedEnv() { apply(saved ? saved->c_str() : nullptr); }
    void apply(const char *value) { value ? setenv(name, value, 1) : unsetenv(name), tzset(); }
};

// The detail a failed call wrote, read after the call; -1 when it succeeded.
int64_t failure_detail(uint64_t result, const uint32_t &err) { return result == 0 ? int64_t{err} : -1; }

std::vector<std::string> lines_of(const fs::path &path)
{
    std::ifstream in(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

// Every (tag, value) of the one message in `record`, as the library parses it.
Fields fields_of(const std::string &record)
{
    zt::Varto m;
    zt::Scratch in(static_cast<int>(record.size()));
    in.assign(record);
    int err = 0;
    EXPECT_EQ(zel_parse_msg(m, &in.s, &err), 1) << "detail " << err;
    Fields fields;
    for (int tag : zt::field_order(m))
        for (const std::string &value : zt::values(m, tag))
            fields.emplace_back(tag, value);
    return fields;
}

// The records of a length-prefixed file, without their lengths.
std::vector<std::string> records_of(const fs::path &path)
{
    std::ifstream in(path, std::ios::binary);
    std::vector<std::string> records;
    for (uint32_t length = 0; in.read(reinterpret_cast<char *>(&length), sizeof length);)
        in.read(records.emplace_back(length, '\0').data(), length);
    return records;
}

std::string utc_c_time(time_t t)
{
    tm broken_down{};
    char text[64];
    return std::string(text, std::strftime(text, sizeof text, "%c", gmtime_r(&t, &broken_down)));
}

// A UDP socket on 127.0.0.1 at a port the system picks.
class DatagramListener {
public:
    DatagramListener()
    {
        sockaddr_in at{AF_INET, 0, {htonl(INADDR_LOOPBACK)}};
        socklen_t size = sizeof at;
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&at), size), 0);
        EXPECT_EQ(getsockname(fd_, reinterpret_cast<sockaddr *>(&at), &size), 0);
        address = "127.0.0.1:" + std::to_string(ntohs(at.sin_port));
        timeval lost_datagram_limit{5, 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &lost_datagram_limit, sizeof lost_datagram_limit);
    }
    ~DatagramListener() { close(fd_); }
    std::string receive()
    {
        std::string datagram(65536, '\0');
        return datagram.substr(0, size_t(std::max<ssize_t>(recv(fd_, datagram.data(), datagram.size(), 0), 0)));
    }
    std::string address;

private:
    int fd_ = socket(AF_INET, SOCK_DGRAM, 0);
};

// Every test logs as alice on box1 in UTC to a file in a directory of its own.
class Log : public ::testing::Test {
protected:
    ~Log() override
    {
        if (log)
            sys_log_close(&log, &err);
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
    const time_t before = time(nullptr);
    ASSERT_EQ(sys_log(log, 3, &err, 0, "filled %d at %s", 42, "1.08415"), 1u) << "detail " << err;
    const time_t after = time(nullptr);
    ASSERT_EQ(sys_log(log, 0, &err, 0, "%s", ""), 1u);
    close_log();
    const auto lines = lines_of(path_);
    ASSERT_EQ(lines.size(), 2u);
    const std::string stamp = lines[0].substr(0, time_width);
    EXPECT_TRUE(stamp == utc_c_time(before) || stamp == utc_c_time(after)) << stamp;
    EXPECT_EQ(lines[0].substr(time_width), " box1 alice app : filled 42 at 1.08415");
    EXPECT_EQ(lines[1].substr(time_width), " box1 alice app : ") << "an empty message still ends in ': '";

    ScopedEnv no_user("USER", nullptr);
    ASSERT_EQ(open("log_file", ""), 1u);
    ASSERT_EQ(sys_log(log, 0, &err, 0, "x"), 1u);
    close_log();
    const auto reopened = lines_of(path_);
    ASSERT_EQ(reopened.size(), 1u) << "every open empties the file";
    EXPECT_EQ(reopened[0].substr(time_width), " box1   : x") << "an unset user and an empty name leave empty fields";
}

TEST_F(Log, TheDestinationIsChosenByTheExactValueOfPlLogTypeAndMisuseOrAnUnreachableOneIsRefused)
{
    for (const char *unknown : {static_cast<const char *>(nullptr), "", "LOG_FILE", "log_file ", "log"})
        EXPECT_TRUE(failure_detail(open(unknown), err) == 2 && log == nullptr) << (unknown ? unknown : "unset");
    ASSERT_EQ(open("log_text_file"), 1u);
    EXPECT_EQ(failure_detail(sys_log(log, 0, &err, 0, "dropped"), err), 2);
    close_log();
    EXPECT_EQ(fs::file_size(path_), 0u) << "a text-file log opens its file but takes no lines";
    ASSERT_EQ(open("log_file"), 1u);
    sLogHandle *open_log = log;
    EXPECT_EQ(failure_detail(open("log_file"), err), 7);
    EXPECT_EQ(log, open_log);
    EXPECT_EQ(failure_detail(sys_log_pm_net(log, 0, 0, nullptr, nullptr, &err), err), 2) << "a file log has no socket";
    close_log();
    EXPECT_EQ(failure_detail(sys_log_open(&log, nullptr, &err), err), 2);
    EXPECT_EQ(failure_detail(sys_log(nullptr, 0, &err, 0, "x"), err), 2);
    EXPECT_EQ(failure_detail(sys_log_pm(nullptr, 0, 0, nullptr, nullptr, &err), err), 2);
    EXPECT_EQ(failure_detail(sys_log_close(&log, &err), err), 2);
    { // an unreachable destination gives a detail and no handle
        ScopedEnv missing_dir("PL_LOG_FILE", (dir_ / "no" / "such" / "app.log").c_str());
        EXPECT_EQ(failure_detail(open("log_file"), err), 1);
    }
    ScopedEnv no_file("PL_LOG_FILE", nullptr), no_address("PL_LOGGER_ADDR", nullptr);
    EXPECT_EQ(failure_detail(open("log_mnm_file"), err), 1);
    EXPECT_EQ(failure_detail(open("log_net"), err), 32) << "the address cannot be resolved";
    EXPECT_EQ(log, nullptr);
}

TEST_F(Log, AnOverlongLineIsCutAtTheBufferOnACharacterBoundary)
{
    const size_t room = SYS_LOG_LINE_MAX - time_width - std::strlen(" box1 alice app : ");
    ASSERT_EQ(open("log_file"), 1u);
    ASSERT_EQ(sys_log(log, 0, &err, 0, "%s", std::string(5000, 'x').c_str()), 1u);
    // One byte of room is left for a two-byte character: it is dropped whole.
    ASSERT_EQ(sys_log(log, 0, &err, 0, "%s\u00e9\u00e9", std::string(room - 1, 'y').c_str()), 1u);
    close_log();
    const auto lines = lines_of(path_);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].substr(SYS_LOG_LINE_MAX - room), std::string(room, 'x'));
    EXPECT_EQ(lines[1].substr(SYS_LOG_LINE_MAX - room), std::string(room - 1, 'y'));
}

TEST_F(Log, RecordFilesHoldLengthPrefixedMessagesReadBackByTheParser)
{
    ASSERT_EQ(open("log_mnm_file"), 1u);
    ASSERT_EQ(sys_log(log, 0, &err, 0, "hello %d", 7), 1u);
    ASSERT_EQ(sys_log(log, 0, &err, 0, "%s", std::string(SYS_LOG_MESSAGE_MAX + 100, 'z').c_str()), 1u);
    sPChar a = zt::pc("a"), bc = zt::pc("bc");
    sPChar *values[] = {&a, &bc};
    uint32_t tags[] = {1, 2}, bad_tags[] = {70000};
    ASSERT_EQ(sys_log_pm(log, 0, 2, tags, values, &err), 1u);
    EXPECT_EQ(failure_detail(sys_log_pm(log, 0, 1, bad_tags, values, &err), err), 15);
    close_log();
    const auto records = records_of(path_);
    ASSERT_EQ(records.size(), 3u);
    const std::vector<Fields> expected = {{{SYS_LOG_TEXT_TAG, "hello 7"}},
                                          {{SYS_LOG_TEXT_TAG, std::string(SYS_LOG_MESSAGE_MAX, 'z')}}, {{1, "a"}, {2, "bc"}}};
    for (size_t i = 0; i < 3; ++i)
        EXPECT_EQ(fields_of(records[i]), expected[i]);
}

TEST_F(Log, ANetLogSendsEachRecordAsOneDatagramToPlLoggerAddr)
{
    DatagramListener logger;
    ScopedEnv address("PL_LOGGER_ADDR", logger.address.c_str());
    ASSERT_EQ(open("log_net"), 1u) << "detail " << err;
    ASSERT_EQ(sys_log(log, 0, &err, 0, "hello %s", "net"), 1u) << "detail " << err;
    ASSERT_EQ(sys_log(log, 0, &err, 0, "%s", ""), 1u);
    sPChar a = zt::pc("a");
    sPChar *values[] = {&a};
    uint32_t tags[] = {5};
    ASSERT_EQ(sys_log_pm_net(log, 0, 1, tags, values, &err), 1u);
    EXPECT_EQ(failure_detail(sys_log_pm(log, 0, 1, tags, values, &err), err), 2) << "a net log has no file";
    close_log();
    for (const Fields &fields : {Fields{{SYS_LOG_TEXT_TAG, "hello net"}}, Fields{{SYS_LOG_TEXT_TAG, ""}}, Fields{{5, "a"}}})
        EXPECT_EQ(fields_of(logger.receive()), fields);
}
