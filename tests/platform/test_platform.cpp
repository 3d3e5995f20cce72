// The platform layer through its public interface: allocator, clock and time
// layouts, environment, address text, local addresses, commands and files.
#include <zel/zel.h>

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>

#include "descriptors/descriptor_test_util.h" // EXPECT_FAILURE, Scratch

namespace {

using zt::str;

constexpr uint32_t fixed_seconds = 1709622489; // 2024-03-05 07:08:09 UTC, a Tuesday

// Layout `code` of the time, alone in a new buffer.
std::string format(uint32_t sec, uint32_t usec, uint32_t code)
{
    sTimeRecord t{sec, usec};
    uint32_t err = 99;
    Scratch out;
    EXPECT_TRUE(sys_time_format(&t, &out.s, code, &err) == 1u && err == 0u) << "code " << code;
    return out.bytes();
}

} // namespace

TEST(Memory, AllocResizeAndFreeKeepTheCallersPointerConsistent)
{
    void *block = nullptr;
    uint32_t size = 77, err = 0;
    EXPECT_FAILURE(sys_mem_alloc(0, &block, &size, 0, &err), err, 5u);
    ASSERT_EQ(sys_mem_alloc(0, &block, &size, 64, &err), 1u);
    EXPECT_EQ(std::string(static_cast<char *>(block), size), std::string(64, '\0'));
    std::memset(block, 'x', 64);
    ASSERT_EQ(sys_mem_realloc(0, &block, &size, 4096, &err), 1u);
    EXPECT_EQ(std::string(static_cast<char *>(block), 64) + std::to_string(size), std::string(64, 'x') + "4096");
    EXPECT_EQ(sys_mem_free(0, &block, &err), 1u);
    EXPECT_EQ(block, nullptr);
    EXPECT_FAILURE(sys_mem_free(0, &block, &err), err, 5u);
}

TEST(Time, RecordsSetAndGetAndHandlesOpenOnceAndCloseToNull)
{
    sTimeRecord t{}, *handle = nullptr;
    uint32_t sec = 0, usec = 0, err = 0;
    ASSERT_EQ(sys_time_set(&t, 100, 250000, &err), 1u);
    EXPECT_FAILURE(sys_time_set(&t, 5, -1, &err), err, 5u);
    ASSERT_EQ(sys_time_get(&t, &sec, &usec, &err), 1u);
    EXPECT_EQ(std::make_pair(sec, usec), std::make_pair(100u, 250000u)); // the refused sets changed nothing
    ASSERT_EQ(sys_open_time_hndl(&handle, &err), 1u);
    EXPECT_FAILURE(sys_open_time_hndl(&handle, &err), err, 3u);
    ASSERT_EQ(sys_record_time(handle, &err), 1u);
    EXPECT_LE(std::abs(static_cast<long>(handle->sec) - static_cast<long>(time(nullptr))), 1);
    EXPECT_TRUE(handle->usec % 1000 == 0 && handle->usec < 1000000u) << "millisecond resolution";
    ASSERT_EQ(sys_close_time_hndl(&handle, &err), 1u);
    EXPECT_EQ(handle, nullptr);
    EXPECT_FAILURE(sys_close_time_hndl(&handle, &err), err, 2u);
}

TEST(TimeLayouts, EveryLayoutAppendsItsTextInAFixedWidth)
{
    setenv("TZ", "UTC", 1);
    tzset();
    const char *expected[] = {
        nullptr, "03-05-24", "20240305", "030524", "Tue Mar  5 07:08:09 2024", "07:08:09",
        "070809", "070809", "042000", "1709622489", "Tue Mar 05", "2024-03-05", "20240305",
        "Tue Mar 05 07:08:09 2024"};
    for (uint32_t code = 1; code <= 13; ++code)
        EXPECT_EQ(format(fixed_seconds, 42000, code), expected[code]) << "code " << code;
    // Numbers keep their width at the ends of the range: an out-of-range
    // microsecond field is cut, and seconds past 2038 are unsigned.
    EXPECT_EQ(format(0, 0, SYS_TIME_SECONDS) + format(0, 1234567, SYS_TIME_MICROS), "0000000000123456");
    EXPECT_EQ(format(UINT32_MAX, 0, SYS_TIME_SECONDS), "4294967295");
    EXPECT_EQ(format(UINT32_MAX, 0, SYS_TIME_UTC_FULL), "Sun Feb 07 06:28:15 2106");
    sTimeRecord t{fixed_seconds, 999000}; // appended at the length, growing a tiny buffer
    zt::Scratch out(1);
    out.assign(">");
    uint32_t err = 99;
    for (uint32_t code : {SYS_TIME_YYYY_MM_DD, SYS_TIME_LOCALE, SYS_TIME_HHMMSS})
        ASSERT_EQ(sys_time_format(&t, &out.s, code, &err), 1u);
    EXPECT_EQ(std::string(out.s.data, 41), ">2024-03-05Tue Mar  5 07:08:09 2024070809");
    EXPECT_FAILURE(sys_time_format(&t, &out.s, 0, &err), err, 5u);
    EXPECT_FAILURE(sys_time_format(&t, &out.s, 14, &err), err, 5u);
    EXPECT_EQ(sys_time_format(&t, &out.s, 99, nullptr), 0u); // a null detail pointer: no detail
    EXPECT_FAILURE(sys_time_format(&t, nullptr, 1, &err), err, 2u);
    EXPECT_EQ(out.s.len, 41);
}

TEST(Environment, ValuesNeedRoomForTheTerminatorAndHostByNameLeavesUserOnTheSharedBuffer)
{
    sPChar value{}, user{}, host{};
    uint32_t err = 99;
    for (int n : {399, 400}) { // 400 bytes leave no room for the terminator: read as unset, empty
        setenv("ZEL_TEST_LONG", std::string(size_t(n), 'a').c_str(), 1);
        ASSERT_EQ(sys_fetch_env_variable(&value, "ZEL_TEST_LONG", &err), 1u);
        EXPECT_EQ(str(value), std::string(n < 400 ? size_t(n) : 0, 'a'));
    }
    EXPECT_FAILURE(sys_fetch_env_variable(&value, nullptr, &err), err, 3u);
    setenv("USER", "alice", 1);
    setenv("HOSTNAME", "build-host.example", 1);
    ASSERT_EQ(sys_get_host_by_name(&user, &host, &err), 1u);
    EXPECT_EQ(user.data, host.data); // both on the one buffer, which now holds HOSTNAME
    EXPECT_EQ(str(host) + "|" + str(user), "build-host.example|build");
    EXPECT_FAILURE(sys_get_host_by_name(&user, &user, &err), err, 5u);
}

TEST(Address, ParseFindsTheColonWithinTheLengthConvertPrintsMemoryOrderAndLocalOnesAreQuads)
{
    std::string text = "abcd:1234";
    sPChar addr = zt::pc(text);
    uint32_t pos = 0, err = 99;
    int ignored;
    char buffer[16]; // exactly the documented room
    sPChar dst{buffer, 1};
    ASSERT_EQ(sys_addr_parse(&addr, 0, &pos, &err), 1u);
    EXPECT_EQ(pos, 4u);
    addr.len = 4; // the colon now lies just past the counted text
    EXPECT_FAILURE(sys_addr_parse(&addr, 0, &pos, &err), err, 4u);
    for (const auto &[bin, text] : {std::pair{htonl(INADDR_LOOPBACK), "127.0.0.1"}, {UINT32_MAX, "255.255.255.255"}})
        EXPECT_TRUE(sys_addr_convert_from_bin(&dst, bin, &err) == 1u && str(dst) == text) << text;
    dst.len = 0;
    EXPECT_FAILURE(sys_addr_convert_from_bin(&dst, 0, &err), err, 5u);
    char local[16] = "unchanged", *dest = local; // interfaces vary: only the shapes are checked
    in_addr parsed{};
    sPChar port{};
    ASSERT_TRUE(sys_get_local_address(&dest, &err) && sys_get_local_address_port(&port, &err));
    EXPECT_TRUE(!strcmp(local, "unchanged") || (inet_pton(AF_INET, local, &parsed) == 1 && strcmp(local, "0.0.0.0")));
    text = port.data ? str(port) : "10.0.0.1:0"; // "A.B.C.D:0", not the loopback, owned by the caller
    const std::string quad = text.substr(0, text.find(':'));
    EXPECT_TRUE(text == quad + ":0" && inet_pton(AF_INET, quad.c_str(), &parsed) == 1 && quad != "127.0.0.1") << text;
    pchar_destroy_mem(&port, &ignored);
}

TEST(Commands, ShellStatusDecidesAndFilesUseOnlyTheCountedPath)
{
    namespace fs = std::filesystem;
    uint32_t err = 99;
    std::string ok = "exit 0; exit 1", failing = "exit 3";
    sPChar counted{ok.data(), 6}, bad = zt::pc(failing); // only "exit 0" is the command
    EXPECT_TRUE(sys_system_call(&counted, &err) == 1u && err == 0u);
    EXPECT_FAILURE(sys_system_call(&bad, &err), err, 1u);
    std::string dir = (fs::temp_directory_path() / "zel_platform_XXXXXX").string();
    ASSERT_NE(mkdtemp(dir.data()), nullptr);
    std::ofstream(dir + "/a") << "x";
    std::string from = dir + "/a-tail", to = dir + "/b";
    sPChar old_path{from.data(), static_cast<int32_t>(from.size() - 5)}, new_path = zt::pc(to), empty{to.data(), 0};
    ASSERT_EQ(sys_file_rename(&old_path, &new_path, &err), 1u);
    EXPECT_TRUE(!fs::exists(dir + "/a") && fs::exists(to));
    ASSERT_EQ(sys_file_delete(&new_path, &err), 1u);
    EXPECT_FAILURE(sys_file_delete(&new_path, &err), err, 1u);
    EXPECT_FAILURE(sys_file_delete(&empty, &err), err, 5u);
    fs::remove_all(dir);
}
