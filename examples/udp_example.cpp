// The UDP facade: datagrams that arrive on a local address reach a receiver
// on this thread, inside zel_pump_messages. The program sends itself three
// datagrams on loopback through the library's record socket; no peer needed:
//
//     build/examples/udp_example [PORT]       # 127.0.0.1:7100 by default
#include <zel/zel.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

struct Ticks : CZelReceiver {
    int received = 0;
    int processMsg(vartocb *msg, int, sWatchData *, void *, int *) override
    {
        // A datagram comes as a counted string in the place of a message,
        // cut to its first 8 bytes.
        const sPChar *datagram = reinterpret_cast<const sPChar *>(msg);
        std::printf("received \"%.*s\"\n", datagram->len, datagram->data);
        ++received;
        return 1;
    }
    int processReply(vartocb *, int, void *, void *, int *) override { return 1; }
};

} // namespace

int main(int argc, char **argv)
{
    std::string address = std::string("127.0.0.1:") + (argc > 1 ? argv[1] : "7100");
    Ticks ticks;
    CUdpFacade::getInstance().init("", "", address, &ticks);

    // A UDP record socket sends each record as one datagram.
    void *sender = nullptr;
    uint32_t err = 0;
    sSdOpenRequest to{{address.data(), int32_t(address.size())}, {nullptr, 0}, SYS_SD_UDP, 1, 0, 0};
    if (!sys_sd_open(&sender, &to, &err)) {
        std::fprintf(stderr, "cannot send to %s, detail %u\n", address.c_str(), err);
        return 1;
    }
    const char *const texts[] = {"tick 1", "tick 2", "a longer tick, cut"};
    for (const char *text : texts) {
        scratchcb record{int32_t(std::strlen(text)), 0, 0, const_cast<char *>(text)};
        sys_sd_write(sender, 0, &record, &err);
    }
    sys_sd_close(&sender, &err);

    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (ticks.received < 3 && std::chrono::steady_clock::now() < deadline)
        zel_pump_messages(100);
    if (ticks.received < 3) {
        std::fprintf(stderr, "only %d of 3 datagrams arrived: is %s free?\n", ticks.received, address.c_str());
        return 1;
    }
    return 0;
}
