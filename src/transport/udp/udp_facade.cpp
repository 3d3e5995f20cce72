// The UDP facade: a worker thread takes datagrams from a bound socket and
// posts each, its first 8 bytes carried in the message itself, to the thread
// that called init, where the receiver gets it.
#include <zel/engine.h>
#include <zel/udp.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "api/message_queue.h"
#include "api/worker.h"
#include "platform/wake_event.h"

namespace zel {

namespace {

constexpr size_t taken_bytes = 8;   // of each datagram; the rest is lost
constexpr int64_t most_waiting = 65536;

uint32_t on_datagram()
{
    static const uint32_t id = register_message("zel UDP datagram");
    return id;
}

} // namespace

// The socket, its worker thread and the target on the application thread.
class UdpReceiving : public MessageTarget, public CVartoWorker {
public:
    UdpReceiving(const std::string &address, CZelReceiver *receiver) : receiver_(receiver)
    {
        size_t colon = address.find(':');
        host_ = colon == std::string::npos ? std::string() : address.substr(0, colon);
        port_ = colon == std::string::npos ? 0 : std::atoi(address.c_str() + colon + 1);
        thread_ = std::thread([this] { serve(); });
        while (connection_state() == first_attempt)
            std::this_thread::yield();
    }
    ~UdpReceiving() override
    {
        stop_.store(true, std::memory_order_release);
        wake();
        thread_.join();
        if (socket_ >= 0)
            ::close(socket_);
    }

    int serve() override
    {
        socket_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in local{};
        local.sin_family = AF_INET;
        local.sin_addr.s_addr = ::inet_addr(host_.c_str());
        local.sin_port = htons(uint16_t(port_));
        if (socket_ < 0 || ::bind(socket_, reinterpret_cast<sockaddr *>(&local), sizeof local) != 0) {
            if (socket_ >= 0)
                ::close(socket_);
            socket_ = -1;
            end_first_attempt(first_attempt_failed);
            return 0;
        }
        end_first_attempt(connected_once);
        return receive();
    }

    // Waits on the socket and the stop's wake-up together, so that a stop
    // needs no datagram to be noticed.
    int receive() override
    {
        while (!stop_.load(std::memory_order_acquire)) {
            pollfd waits[2] = {{socket_, POLLIN, 0}, {wake_.fd(), POLLIN, 0}};
            if (::poll(waits, 2, -1) < 0 || !(waits[0].revents & POLLIN))
                continue;
            uintptr_t bytes = 0;
            ssize_t n = ::recvfrom(socket_, &bytes, taken_bytes, MSG_DONTWAIT, nullptr, nullptr);
            if (n <= 0)
                continue;
            if (waiting_.fetch_add(1, std::memory_order_acq_rel) >= most_waiting) {
                waiting_.fetch_sub(1, std::memory_order_acq_rel);
                dropped_.fetch_add(1, std::memory_order_relaxed);
                continue;
            }
            queue()->post(target_id(), on_datagram(), bytes, intptr_t(n));
        }
        return 0;
    }

    void handle(uint32_t message, uintptr_t bytes, intptr_t length) override
    {
        if (message != on_datagram())
            return;
        waiting_.fetch_sub(1, std::memory_order_acq_rel);
        if (!CZelReceiver::isRegistered(receiver_))
            return;
        sPChar datagram{reinterpret_cast<char *>(&bytes), int32_t(length)};
        int err = 0;
        receiver_->processMsg(reinterpret_cast<vartocb *>(&datagram), 0, nullptr, nullptr, &err);
    }

    int recover() override { return 1; }
    int sendHeartbeat() override { return 1; }
    int wake() override
    {
        wake_.raise();
        return 1;
    }
    uint64_t dropped() const { return dropped_.load(std::memory_order_relaxed); }

private:
    CZelReceiver *receiver_;
    std::string host_;
    int port_ = 0;
    int socket_ = -1;
    std::atomic<bool> stop_{false};
    std::atomic<int64_t> waiting_{0};
    std::atomic<uint64_t> dropped_{0};
    WakeEvent wake_;
    std::thread thread_;
};

} // namespace zel

CUdpFacade &CUdpFacade::getInstance()
{
    static CUdpFacade instance;
    return instance;
}

CUdpFacade::CUdpFacade() = default;
CUdpFacade::~CUdpFacade() = default;

int CUdpFacade::init(std::string, std::string, std::string address, CZelReceiver *receiver)
{
    receiving_.reset();
    receiving_ = std::make_unique<zel::UdpReceiving>(address, receiver);
    receiver_ = receiver;
    return 1;
}

int CUdpFacade::notify(void *data, int *err)
{
    if (receiver_)
        receiver_->processMsg(static_cast<vartocb *>(data), 0, nullptr, nullptr, err);
    if (err)
        *err = 0;
    return 1;
}

void CUdpFacade::Get_LastMsg_Received_Time_for_UDP() {}

uint64_t CUdpFacade::dropped() const
{
    return receiving_ ? receiving_->dropped() : 0;
}
