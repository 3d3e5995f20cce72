// Record sockets against peers the test runs itself on 127.0.0.1, on ports
// the system picks.
#include <zel/zel.h>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <future>
#include <string>
#include <thread>

#include "descriptors/descriptor_test_util.h"

namespace {

// A socket bound to 127.0.0.1 on a port the system picked; closed on scope exit.
struct LoopbackSocket {
    int fd;
    uint16_t port = 0;
    explicit LoopbackSocket(int type) : fd(socket(AF_INET, type, 0))
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        bind(fd, reinterpret_cast<sockaddr *>(&address), size);
        getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size);
        port = ntohs(address.sin_port);
    }
    ~LoopbackSocket() { close(fd); }
    std::string address() const { return "127.0.0.1:" + std::to_string(port); }
};

// Accepts one connection and runs `script` on it on the peer's own thread,
// without delay between pieces it sends; joined on scope exit.
class Peer {
public:
    explicit Peer(std::function<void(int)> script) : listener_(SOCK_STREAM)
    {
        listen(listener_.fd, 1);
        thread_ = std::thread([this, script] {
            const int fd = accept(listener_.fd, nullptr, nullptr);
            if (fd < 0)
                return;
            const int on = 1;
            setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            script(fd);
            close(fd);
        });
    }
    ~Peer()
    {
        shutdown(listener_.fd, SHUT_RDWR); // ends an accept that a failed test left waiting
        thread_.join();
    }
    std::string address() const { return listener_.address(); }

private:
    LoopbackSocket listener_;
    std::thread thread_;
};

// Blocking, so that each waits until all bytes have gone or come (or the
// connection has ended).
std::string receive_exactly(int fd, size_t size)
{
    std::string bytes(size, '\0');
    const ssize_t got = size ? recv(fd, bytes.data(), size, MSG_WAITALL) : 0;
    return bytes.substr(0, size_t(std::max<ssize_t>(got, 0)));
}

std::string receive_record(int fd)
{
    uint32_t length = 0;
    if (recv(fd, &length, sizeof length, MSG_WAITALL) != ssize_t(sizeof length))
        return {};
    return receive_exactly(fd, length);
}

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
        return sys_sd_read(sd, 0, &dst.s, &err) ? dst.str() : "<" + std::to_string(err) + ">";
    }
};

} // namespace

TEST(TcpRecords, RecordsOfNoOneAndManyBytesCrossWholeBothWaysWhateverThePieces)
{
    Peer echo([](int fd) {
        for (int i = 0; i < 3; ++i) {
            const std::string bytes = framed(receive_record(fd));
            send_bytes(fd, bytes.substr(0, 2)); // the length itself split in two
            send_bytes(fd, bytes.substr(2));
        }
    });
    Client client;
    ASSERT_EQ(client.open(echo.address()), 1u) << client.err;
    for (const std::string &record : {std::string(), std::string("1"), std::string(3 << 20, 'm')}) {
        EXPECT_TRUE(client.write(record)) << client.err;
        const std::string back = client.read();
        EXPECT_TRUE(back == record) << back.size() << " bytes back for " << record.size();
    }
}

TEST(TcpRecords, ANonBlockingReadAnswers4UntilTheWholeRecordHasArrived)
{
    std::promise<void> send_first, first_sent, send_rest, rest_sent;
    const std::string bytes = framed("split record");
    Peer peer([&](int fd) {
        send_first.get_future().wait();
        send_bytes(fd, bytes.substr(0, 7));
        first_sent.set_value();
        send_rest.get_future().wait();
        send_bytes(fd, bytes.substr(7));
        rest_sent.set_value();
    });
    Client client;
    ASSERT_EQ(client.open(peer.address(), SYS_SD_TCP, 0), 1u) << client.err;
    EXPECT_EQ(client.read(), "<4>") << "nothing there";
    send_first.set_value();
    first_sent.get_future().wait();
    EXPECT_EQ(client.read(), "<4>") << "a partial record";
    send_rest.set_value();
    rest_sent.get_future().wait(); // loopback: sent bytes are queued at the client once send returns
    EXPECT_EQ(client.read(), "split record");
}

TEST(TcpRecords, APeerThatClosesGives31AndAnImpossibleLengthDropsTheConnection)
{
    Peer closing([](int) {});
    Client early;
    EXPECT_EQ(early.open(closing.address()) ? early.read() : "not open", "<31>");

    Peer corrupt([](int fd) {
        send_bytes(fd, std::string(4, '\xff'));
        receive_exactly(fd, 1); // until the client hangs up
    });
    Client client;
    ASSERT_EQ(client.open(corrupt.address()), 1u);
    EXPECT_EQ(client.read(), "<5>");
    EXPECT_EQ(client.read(), "<31>") << "dropped";
    EXPECT_TRUE(!client.write("x") && client.err == 31u);
}

TEST(TcpRecords, ReconnectReachesTheReconnectAddress)
{
    std::promise<std::string> at_first, at_second;
    Peer first([&](int fd) { at_first.set_value(receive_record(fd)); });
    Peer second([&](int fd) { at_second.set_value(receive_record(fd)); });
    Client client;
    ASSERT_EQ(client.open(first.address(), SYS_SD_TCP, 1, second.address()), 1u);
    EXPECT_TRUE(client.write("to first"));
    EXPECT_EQ(at_first.get_future().get(), "to first");
    EXPECT_EQ(sys_sd_reconnt(client.sd, &client.err), 1u) << client.err;
    EXPECT_TRUE(client.write("to second"));
    EXPECT_EQ(at_second.get_future().get(), "to second");
}

TEST(SocketOpen, BadAddressesGive32RefusedPortsGive33AndBadRequestsSayWhy)
{
    LoopbackSocket not_listening(SOCK_STREAM);
    for (const auto &[address, detail] : {std::pair{std::string("nohost:1"), 32u}, {"no-colon", 32u},
                                          {"127.0.0.1:port", 32u}, {not_listening.address(), 33u}}) {
        Client client;
        EXPECT_FAILURE(client.open(address), client.err, detail) << address;
        EXPECT_EQ(client.sd, nullptr);
    }
    Client client;
    EXPECT_FAILURE(client.open(not_listening.address(), 3), client.err, 5u);
    EXPECT_FAILURE(sys_sd_open(&client.sd, nullptr, &client.err), client.err, 2u);
}

TEST(UdpRecords, EachRecordIsOneDatagramBothWays)
{
    LoopbackSocket server(SOCK_DGRAM);
    Client client;
    ASSERT_EQ(client.open(server.address(), SYS_SD_UDP), 1u) << client.err;
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
