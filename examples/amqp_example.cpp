// One connection to an AMQP broker: it watches a symbol, publishes two
// prices through a topic exchange, and receives the one its watch matches.
// The password comes from the environment, not from the command line:
//
//     ZEL_AMQP_PASSWORD=guest build/examples/amqp_example 127.0.0.1 5672 guest amq.topic
//
// Arguments: the broker's host, its plain (non-TLS) port, the user and the
// exchange, which must exist already (the engine never declares one).
#include <zel/zel.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

struct Prices : CZelReceiver {
    std::string last_price;
    int processMsg(vartocb *msg, int, sWatchData *, void *, int *) override
    {
        int err = 0;
        scratchcb *text = nullptr;
        zel_open_scratch(&text, 256, &err);
        varto_to_admin(msg, text, &err);
        std::printf("received: %.*s\n", text->len, text->data);
        zel_close_scratch(&text, &err);
        sPChar price{};
        zel_get_data(msg, 270, 0, &price, &err);
        last_price.assign(price.data, size_t(price.len));
        return 1;
    }
    int processReply(vartocb *, int, void *, void *, int *) override { return 1; }
};

// Publishes one message of a symbol (field 55) and a price (field 270).
void publish(CZelEngine &engine, vartocb *builder, scratchcb *message, std::string symbol, std::string price)
{
    int err = 0;
    sPChar fields[] = {{symbol.data(), int32_t(symbol.size())}, {price.data(), int32_t(price.size())}};
    message->len = 0;
    zel_start_msg(builder, message, &err);
    zel_add_data(builder, 55, 1, &fields[0], &err);
    zel_add_data(builder, 270, 1, &fields[1], &err);
    if (!engine.sendMsg(message, &err))
        std::fprintf(stderr, "could not publish %s, detail %d\n", symbol.c_str(), err);
}

} // namespace

int main(int argc, char **argv)
{
    const char *password = std::getenv("ZEL_AMQP_PASSWORD");
    if (argc != 5 || !password) {
        std::fprintf(stderr, "usage: ZEL_AMQP_PASSWORD=... %s HOST PORT USER EXCHANGE\n", argv[0]);
        return 2;
    }
    // Data messages reach watches only when their routing key is made of
    // their fields; by default it is that of the last request sent.
    setenv("ZEL_AMQP_ROUTE_BY_FIELDS", "1", 1);

    CZelEngine engine;
    engine.create_connection(std::atoi(argv[2]), argv[1], "/", argv[3], password, argv[4], "amqp-example", 0, "", "",
                             "", nullptr);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    auto in_time = [&] { return std::chrono::steady_clock::now() < deadline; };
    int status = 0, err = 0;
    engine.getConnectionStatus(&status, &err);
    while (status != ZEL_STATUS_CONNECTED && in_time()) {
        zel_pump_messages(100);
        engine.getConnectionStatus(&status, &err);
    }
    if (status != ZEL_STATUS_CONNECTED) {
        std::fprintf(stderr, "could not connect to the broker at %s:%s as %s\n", argv[1], argv[2], argv[3]);
        return 1;
    }
    std::printf("connected to %s:%s, exchange %s\n", argv[1], argv[2], argv[4]);

    // The watch binds this connection's queue with "#.^55.EURUSD.#"; the
    // binding is in place before anything published after it leaves.
    Prices prices;
    int tags[] = {55};
    sPChar eurusd{const_cast<char *>("EURUSD"), 6};
    void *watch = nullptr;
    engine.addWatch(&watch, tags, &eurusd, 1, &prices, nullptr, false, 0, false, false, &err);

    vartocb *builder = nullptr;
    scratchcb *message = nullptr;
    zel_ctor_vartocb(&builder, &err);
    zel_open_scratch(&message, 256, &err);
    publish(engine, builder, message, "USDJPY", "151.20");
    publish(engine, builder, message, "EURUSD", "1.0841");
    while (prices.last_price.empty() && in_time())
        zel_pump_messages(100);

    zel_close_scratch(&message, &err);
    zel_dtor_vartocb(&builder, &err);
    if (prices.last_price != "1.0841") {
        std::fprintf(stderr, "the EURUSD price did not come back\n");
        return 1;
    }
    return 0;
}
