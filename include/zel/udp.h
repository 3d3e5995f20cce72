/* The UDP facade: receiving datagrams on a local address without an engine.
 *
 *   CUdpFacade::getInstance().init("", "", "127.0.0.1:7100", &receiver);
 *   ... zel_pump_messages(...) on the same thread ...
 *
 * Each datagram reaches the receiver's processMsg on the thread that called
 * init, inside zel_pump_messages, as a counted string (sPChar) passed in the
 * place of the parsed message, with kind 0 and null watch, context and error
 * pointers:
 *
 *   int processMsg(vartocb *msg, int, sWatchData *, void *, int *) override
 *   {
 *       const sPChar *datagram = reinterpret_cast<const sPChar *>(msg);
 *       ...
 *   }
 *
 * Only the first 8 bytes of a datagram are taken; the rest is lost. While the
 * application does not pump, at most 65536 datagrams wait for it; later ones
 * are dropped and counted (dropped()). */
#ifndef ZEL_UDP_H
#define ZEL_UDP_H

#include <cstdint>
#include <memory>
#include <string>

class CZelReceiver;

namespace zel {
class UdpReceiving;
}

class CUdpFacade {
public:
    /* The one instance, made on the first call. */
    static CUdpFacade &getInstance();
    ~CUdpFacade();
    CUdpFacade(const CUdpFacade &) = delete;
    CUdpFacade &operator=(const CUdpFacade &) = delete;

    /* Binds "host:port" and delivers its datagrams to `receiver` on the
     * calling thread; the first two texts are not used. Answers 1, also when
     * the address cannot be bound (nothing arrives then). A second init
     * replaces the first. */
    int init(std::string, std::string, std::string address, CZelReceiver *receiver);
    /* Calls the receiver's processMsg with `data` in the place of the parsed
     * message, on the calling thread; without a receiver it calls nothing.
     * Sets `*err` to 0 and answers 1. */
    int notify(void *data, int *err);
    /* Does nothing. */
    void Get_LastMsg_Received_Time_for_UDP();

    /* Datagrams dropped because 65536 already waited for the application. */
    uint64_t dropped() const;

private:
    CUdpFacade();

    CZelReceiver *receiver_ = nullptr;
    std::unique_ptr<zel::UdpReceiving> receiving_;
};

#endif /* ZEL_UDP_H */
