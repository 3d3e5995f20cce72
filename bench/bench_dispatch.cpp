// The receive window end to end on one machine: a worker thread posts
// 1,000,000 batches of one 100-byte message, the application thread pumps and
// dispatches them to one watch. Then the dispatch cost of one message against
// 1, 100 and 10,000 watches, the matching one being the oldest (every watch
// is compared).
#include <zel/engine.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <time.h>

#include "api/receive_window.h"
#include "support/batches.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Counter : CZelReceiver {
    uint64_t calls = 0;
    int processMsg(vartocb *, int, sWatchData *, void *, int *) override { return int(++calls); }
    int processReply(vartocb *, int, void *, void *, int *) override { return 1; }
};

// A message of about 100 bytes whose field 55 is `symbol`.
std::string message(const std::string &symbol)
{
    vartocb *m = nullptr;
    scratchcb *out = nullptr;
    int err;
    zel_ctor_vartocb(&m, &err);
    zel_open_scratch(&out, 256, &err);
    zel_start_msg(m, out, &err);
    const char *fields[] = {"ORDER-0000012345", "1.08415", "1000000", "20261121-07:30:00.123", "LDN-DESK-7"};
    sPChar key{const_cast<char *>(symbol.data()), int32_t(symbol.size())};
    zel_add_data(m, 55, 1, &key, &err);
    for (int i = 0; i < 5; ++i) {
        sPChar v{const_cast<char *>(fields[i]), int32_t(std::strlen(fields[i]))};
        zel_add_data(m, 100 + i, 1, &v, &err);
    }
    std::string bytes(out->data, size_t(out->len));
    zel_dtor_vartocb(&m, &err);
    zel_close_scratch(&out, &err);
    return bytes;
}

sWatchData *watch_on(const std::string &symbol, CZelReceiver *r)
{
    return new sWatchData{{55}, {symbol}, r, nullptr, "", ""};
}

void throughput()
{
    const int count = 1000000;
    CIntRxWnd window;
    Counter receiver;
    window.add_watch(watch_on("EURUSD", &receiver));
    std::string bytes = message("EURUSD");
    auto start = Clock::now();
    std::thread worker([&] {
        for (int i = 0; i < count; ++i)
            zel::test::post_block(window, bytes.data(), int32_t(bytes.size()));
    });
    timespec cpu_start{}, cpu_end{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &cpu_start);
    while (receiver.calls < uint64_t(count))
        zel_pump_messages(-1);
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &cpu_end);
    worker.join();
    double secs = std::chrono::duration<double>(Clock::now() - start).count();
    double busy = double(cpu_end.tv_sec - cpu_start.tv_sec) + double(cpu_end.tv_nsec - cpu_start.tv_nsec) / 1e9;
    std::printf("batches of one %zu-byte message, worker -> window -> one watch\n", bytes.size());
    std::printf("  %d messages in %.2f s: %.0f messages/s (target >= 1000000)\n", count, secs, count / secs);
    std::printf("  application thread busy %.2f s: %.0f ns per message handled\n\n", busy, busy * 1e9 / count);
}

void dispatch_cost(int watches)
{
    CIntRxWnd window;
    Counter receiver, others;
    window.add_watch(watch_on("EURUSD", &receiver)); // the oldest: found last
    for (int i = 1; i < watches; ++i)
        window.add_watch(watch_on("SYM" + std::to_string(i), &others));
    std::string bytes = message("EURUSD");
    const int rounds = watches >= 10000 ? 2000 : 200000;
    auto start = Clock::now();
    for (int i = 0; i < rounds; ++i)
        window.dispatch(bytes.data(), int32_t(bytes.size()), 1);
    double ns = std::chrono::duration<double, std::nano>(Clock::now() - start).count() / rounds;
    std::printf("  %6d watches: %10.0f ns per message (%llu deliveries)\n", watches, ns,
                (unsigned long long)receiver.calls);
}

} // namespace

int main()
{
    throughput();
    std::printf("dispatch cost of one message, the matching watch being the oldest\n");
    for (int watches : {1, 100, 10000})
        dispatch_cost(watches);
}
