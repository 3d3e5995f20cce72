// The UDP facade: real datagrams on a loopback port, delivered on the thread
// that called init.
#include <gtest/gtest.h>
#include <zel/engine.h>
#include <zel/udp.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "support/clients.h"
#include "support/ports.h"

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

// First in the program: the facade is process-wide, and nothing has called
// init yet.
TEST(Udp, NotifyWithoutInitCallsNothing)
{
    int err = -1;
    EXPECT_EQ(CUdpFacade::getInstance().notify(nullptr, &err), 1);
    EXPECT_EQ(err, 0);
}

TEST(Udp, DatagramsReachTheReceiverOnTheInitThreadAsTheirFirstEightBytes)
{
    Datagrams receiver;
    int port = zel::test::free_loopback_port(SOCK_DGRAM);
    CUdpFacade &udp = CUdpFacade::getInstance();
    ASSERT_EQ(udp.init("", "", "127.0.0.1:" + std::to_string(port), &receiver), 1);
    send_datagram(port, "0123456789abcdefghij"); // 20 bytes
    std::vector<std::string> expected = {"01234567"};
    for (int i = 0; i < 200; ++i) {
        expected.push_back("n" + std::to_string(i));
        send_datagram(port, expected.back());
    }
    ASSERT_TRUE(zel::test::pump_until([&] { return receiver.seen.size() == expected.size(); }));
    EXPECT_EQ(receiver.seen, expected);
    EXPECT_EQ(receiver.threads, std::vector<std::thread::id>(expected.size(), std::this_thread::get_id()));

    // notify hands the application's own data to the same receiver.
    sPChar own{const_cast<char *>("own"), 3};
    int err = -1;
    EXPECT_EQ(udp.notify(&own, &err), 1);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(receiver.seen.back(), "own");
    EXPECT_EQ(udp.dropped(), 0u);
}

} // namespace

namespace {

// A process that used the facade ends at once: the worker does not wait for
// one more datagram.
TEST(Udp, AProcessThatUsedTheFacadeExitsPromptly)
{
    int port = zel::test::free_loopback_port(SOCK_DGRAM);
    pid_t child = ::fork();
    if (child == 0) {
        Datagrams receiver;
        CUdpFacade::getInstance().init("", "", "127.0.0.1:" + std::to_string(port), &receiver);
        std::exit(0);
    }
    int gone = int(::syscall(SYS_pidfd_open, child, 0));
    pollfd ended{gone, POLLIN, 0};
    EXPECT_EQ(::poll(&ended, 1, int(zel::test::patience().count())), 1);
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    ::close(gone);
}

} // namespace
