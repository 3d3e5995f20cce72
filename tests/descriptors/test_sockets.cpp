// Record sockets against peers the test plays itself on 127.0.0.1, on ports
// the system picks.
#include <zel/zel.h>

#include <gtest/gtest.h>
#include <netinet/tcp.h>

#include <algorithm>
#include <string>
#include <thread>

#include "descriptors/descriptor_test_util.h"

namespace {

// The next connection to `listener`, which sends each piece at once; the
// caller closes it.
int accept_peer(const LoopbackSocket &listener)
{
    const int peer = accept(listener.fd, nullptr, nullptr);
    const int on = 1;
    setsockopt(peer, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return peer;
}

// Blocking: waits until the whole record has come, or the connection has ended.
std::string receive_record(int fd)
{
    uint32_t length = 0;
    if (recv(fd, &length, sizeof length, MSG_WAITALL) != ssize_t(sizeof length))
        return {};
    std::string bytes(length, '\0');
    const ssize_t got = length ? recv(fd, bytes.data(), length, MSG_WAITALL) : 0;
    return bytes.substr(0, size_t(std::max<ssize_t>(got, 0)));
}

// Sends at once; on loopback the bytes are queued at the client once it returns.
void send_bytes(int fd, const std::string &bytes) { send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL); }

struct Client {
    void *sd = nullptr;
    uint32_t err = 99;
    ~Client() { sys_sd_close(&sd, &err); }

    uint64_t open(std::string address, uint32_t kind = SYS_SD_TCP, uint32_t blocking = 1, std::string later = "")
    {
        sSdOpenRequest req{{address.data(), int32_t(address.size())}, {later.data(), int32_t(later.size())},
                           kind, 2, 2, blocking};
        return sys_sd_open(&sd, &req, &err);
    }
    bool write(const std::string &record)
    {
        Scratch src(record);
        return sys_sd_write(sd, 0, &src.s, &err) == 1;
    }
    // The record read, or the detail of the failure in angle brackets.
    std::string read()
    {
        Scratch dst;
        return sys_sd_read(sd, 0, &dst.s, &err) ? dst.bytes() : "<" + std::to_string(err) + ">";
    }
};

// A client of a listener on 127.0.0.1 and, once connected, the peer the test
// plays; all of them end with the test.
struct TcpRecords : ::testing::Test {
    LoopbackSocket listener{SOCK_STREAM, true};
    Client client;
    int peer = -1;
    ~TcpRecords() override { close(peer); }

    void connect(uint32_t blocking = 1)
    {
        ASSERT_EQ(client.open(listener.address, SYS_SD_TCP, blocking), 1u) << client.err;
        peer = accept_peer(listener);
    }
};

} // namespace

TEST_F(TcpRecords, RecordsOfNoOneAndManyBytesCrossWholeBothWaysWhateverThePieces)
{
    connect();
    std::thread echo([peer = peer] {
        for (int i = 0; i < 3; ++i) {
            const std::string bytes = framed(receive_record(peer));
            send_bytes(peer, bytes.substr(0, 2)); // the length itself split in two
            send_bytes(peer, bytes.substr(2));
        }
    });
    for (const std::string &record : {std::string(), std::string("1"), std::string(3 << 20, 'm')}) {
        EXPECT_TRUE(client.write(record)) << client.err;
        const std::string back = client.read();
        EXPECT_TRUE(back == record) << back.size() << " bytes back for " << record.size();
    }
    shutdown(peer, SHUT_RDWR); // ends an echo that a failed test left waiting
    echo.join();
}

TEST_F(TcpRecords, ANonBlockingReadAnswers4UntilTheWholeRecordHasArrived)
{
    connect(0);
    const std::string bytes = framed("split record");
    EXPECT_EQ(client.read(), "<4>") << "nothing there";
    send_bytes(peer, bytes.substr(0, 2));
    EXPECT_EQ(client.read(), "<4>") << "part of the length";
    send_bytes(peer, bytes.substr(2, 5));
    EXPECT_EQ(client.read(), "<4>") << "a partial record";
    send_bytes(peer, bytes.substr(7));
    EXPECT_EQ(client.read(), "split record");
    send_bytes(peer, length_prefix(64u << 20));
    EXPECT_EQ(client.read(), "<4>") << "a record of 64 MiB is waited for";
}

TEST_F(TcpRecords, APeerThatClosesGives31AndALengthAbove64MiBGives5AndDropsTheConnection)
{
    Client early;
    ASSERT_EQ(early.open(listener.address), 1u);
    close(accept_peer(listener));
    EXPECT_EQ(early.read(), "<31>");
    connect();
    send_bytes(peer, length_prefix((64u << 20) + 1));
    EXPECT_EQ(client.read(), "<5>");
    EXPECT_EQ(client.read(), "<31>") << "dropped";
    EXPECT_TRUE(!client.write("x") && client.err == 31u);
}

TEST_F(TcpRecords, ReconnectReachesTheReconnectAddress)
{
    LoopbackSocket second(SOCK_STREAM, true);
    ASSERT_EQ(client.open(listener.address, SYS_SD_TCP, 1, second.address), 1u);
    EXPECT_TRUE(client.write("to first"));
    peer = accept_peer(listener);
    EXPECT_EQ(receive_record(peer), "to first");
    EXPECT_EQ(sys_sd_reconnt(client.sd, &client.err), 1u) << client.err;
    EXPECT_TRUE(client.write("to second"));
    const int at_second = accept_peer(second);
    EXPECT_EQ(receive_record(at_second), "to second");
    close(at_second);
}

TEST(SocketOpen, BadAddressesGive32RefusedPortsGive33AndBadRequestsSayWhy)
{
    LoopbackSocket not_listening(SOCK_STREAM, false);
    for (const auto &[address, detail] : {std::pair{std::string("nohost:1"), 32u}, {"no-colon", 32u},
                                          {"127.0.0.1:port", 32u}, {not_listening.address, 33u}}) {
        Client client;
        EXPECT_FAILURE(client.open(address), client.err, detail) << address;
        EXPECT_EQ(client.sd, nullptr);
    }
    Client client;
    EXPECT_FAILURE(client.open(not_listening.address, 3), client.err, 5u);
    EXPECT_FAILURE(sys_sd_open(&client.sd, nullptr, &client.err), client.err, 2u);
}

TEST(UdpRecords, EachRecordIsOneDatagramBothWays)
{
    LoopbackSocket server(SOCK_DGRAM, false);
    Client client;
    ASSERT_EQ(client.open(server.address, SYS_SD_UDP), 1u) << client.err;
    EXPECT_TRUE(client.write("ping"));
    EXPECT_TRUE(client.write(""));
    char datagram[16];
    sockaddr_in from{};
    socklen_t size = sizeof from;
    auto *sender = reinterpret_cast<sockaddr *>(&from);
    EXPECT_TRUE(recvfrom(server.fd, datagram, sizeof datagram, 0, sender, &size) == 4 &&
                std::string(datagram, 4) == "ping");
    EXPECT_EQ(recvfrom(server.fd, datagram, sizeof datagram, 0, nullptr, nullptr), 0);
    sendto(server.fd, "pong", 4, 0, sender, size);
    sendto(server.fd, "", 0, 0, sender, size);
    EXPECT_EQ(client.read(), "pong");
    EXPECT_EQ(client.read() + std::to_string(client.err), "0");
}
