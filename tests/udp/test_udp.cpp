// The UDP facade: real datagrams on a loopback port, delivered on the thread
// that called init.
#include <gtest/gtest.h>
#include <zel/engine.h>
#include <zel/udp.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "support/clients.h"

namespace {

struct Datagrams : CZelReceiver {
    std::vector<std::string> seen;
    std::vector<std::thread::id> threads;
    int processMsg(vartocb *msg, int, sWatchData *, void *, int *) override
    {
        const sPChar *datagram = reinterpret_cast<const sPChar *>(msg);
        seen.emplace_back(datagram->data, size_t(datagram->len));
        threads.push_back(std::this_thread::get_id());
        return 1;
    }
    int processReply(vartocb *, int, void *, void *, int *) override { return 1; }
};

// A loopback port nobody uses now.
int free_udp_port()
{
    int s = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof a;
    ::bind(s, reinterpret_cast<sockaddr *>(&a), sizeof a);
    ::getsockname(s, reinterpret_cast<sockaddr *>(&a), &size);
    ::close(s);
    return ntohs(a.sin_port);
}

void send_datagram(int port, const std::string &bytes)
{
    int s = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    to.sin_port = htons(uint16_t(port));
    ::sendto(s, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
    ::close(s);
}

TEST(Udp, DatagramsReachTheReceiverOnTheInitThreadAsTheirFirstEightBytes)
{
    Datagrams receiver;
    int port = free_udp_port();
    CUdpFacade &udp = CUdpFacade::getInstance();
    ASSERT_EQ(udp.init("", "", "127.0.0.1:" + std::to_string(port), &receiver), 1);
    send_datagram(port, "0123456789abcdefghij"); // 20 bytes
    send_datagram(port, "short");
    ASSERT_TRUE(zel::test::pump_until([&] { return receiver.seen.size() == 2; }));
    EXPECT_EQ(receiver.seen, (std::vector<std::string>{"01234567", "short"}));
    EXPECT_EQ(receiver.threads, std::vector<std::thread::id>(2, std::this_thread::get_id()));

    // notify hands the application's own data to the same receiver.
    sPChar own{const_cast<char *>("own"), 3};
    int err = -1;
    EXPECT_EQ(udp.notify(&own, &err), 1);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(receiver.seen.back(), "own");
    EXPECT_EQ(udp.dropped(), 0u);
}

} // namespace
