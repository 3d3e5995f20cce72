// The UDP facade: real datagrams on a loopback port, delivered on the thread
// that called init.
#include <gtest/gtest.h>
#include <zel/engine.h>
#include <zel/udp.h>

#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "message/message_test_util.h" // EXPECT_RESULT
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

// Sends from a socket of its own on another loopback port.
void send_datagram(int port, const std::string &bytes)
{
    int from_port, s = zel::test::bound_loopback_socket(SOCK_DGRAM, &from_port);
    sockaddr_in to{AF_INET, htons(uint16_t(port)), {htonl(INADDR_LOOPBACK)}, {}};
    ::sendto(s, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
    ::close(s);
}

// The only test here that calls init in the test's own process: the facade
// is process-wide.
TEST(Udp, NotifyCallsNothingBeforeInitAndDatagramsReachTheReceiverOnTheInitThreadAsTheirFirstEightBytes)
{
    Datagrams receiver;
    int port = zel::test::free_loopback_port(SOCK_DGRAM);
    CUdpFacade &udp = CUdpFacade::getInstance();
    int err = 0;
    EXPECT_RESULT(udp.notify(nullptr, &err), 1, 0);
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
    EXPECT_RESULT(udp.notify(&own, &err), 1, 0);
    EXPECT_EQ(receiver.seen.back(), "own");
    EXPECT_EQ(udp.dropped(), 0u);
}

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
