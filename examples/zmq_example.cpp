// A ZeroMQ publisher and subscriber meeting at the forwarder zelproxy: the
// subscriber watches a symbol, the publisher sends prices. Start the
// forwarder, then the example with the two ports it prints:
//
//     build/tools/zelproxy --pub-port 0 --sub-port 0 &   # zelproxy listening on 127.0.0.1:P 127.0.0.1:S
//     build/examples/zmq_example 127.0.0.1 P S
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

// Sends one message of a symbol (field 55) and a price (field 270). Its
// topic lists the fields in ascending tag order: "^55.EURUSD.^270.1.0841.".
void publish(CZelEngine &publisher, vartocb *builder, scratchcb *message, std::string symbol, std::string price)
{
    int err = 0;
    sPChar fields[] = {{symbol.data(), int32_t(symbol.size())}, {price.data(), int32_t(price.size())}};
    message->len = 0;
    zel_start_msg(builder, message, &err);
    zel_add_data(builder, 55, 1, &fields[0], &err);
    zel_add_data(builder, 270, 1, &fields[1], &err);
    publisher.sendMsg(message, &err);
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s HOST PUB_PORT SUB_PORT\n", argv[0]);
        return 2;
    }
    std::string host = argv[1];
    CZelEngine publisher, subscriber;
    publisher.create_connection(std::atoi(argv[2]), host, "ZMQ_PUB", "", "", "prices", "zmq-example-pub", 0, "", "",
                                "", nullptr);
    subscriber.create_connection(std::atoi(argv[3]), host, "ZMQ_SUB", "", "", "prices", "zmq-example-sub", 0, "", "",
                                 "", nullptr);

    // The watch subscribes the filter "^55.EURUSD.", which ZeroMQ matches as
    // a prefix of the topic: it works because the symbol has the message's
    // lowest tag.
    Prices prices;
    int tags[] = {55};
    sPChar eurusd{const_cast<char *>("EURUSD"), 6};
    void *watch = nullptr;
    int err = 0;
    subscriber.addWatch(&watch, tags, &eurusd, 1, &prices, nullptr, false, 0, false, false, &err);

    vartocb *builder = nullptr;
    scratchcb *message = nullptr;
    zel_ctor_vartocb(&builder, &err);
    zel_open_scratch(&message, 256, &err);

    // The subscription reaches the publisher through the forwarder a moment
    // later, and until then ZeroMQ drops what is published: repeat the first
    // price until it comes through. After that only EURUSD passes the filter.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    auto in_time = [&] { return std::chrono::steady_clock::now() < deadline; };
    while (prices.last_price.empty() && in_time()) {
        publish(publisher, builder, message, "EURUSD", "1.0841");
        zel_pump_messages(100);
    }
    publish(publisher, builder, message, "USDJPY", "151.20");
    publish(publisher, builder, message, "EURUSD", "1.0843");
    while (prices.last_price != "1.0843" && in_time())
        zel_pump_messages(100);

    zel_close_scratch(&message, &err);
    zel_dtor_vartocb(&builder, &err);
    if (prices.last_price != "1.0843") {
        std::fprintf(stderr, "nothing came through the forwarder at %s, ports %s and %s\n", host.c_str(), argv[2],
                     argv[3]);
        return 1;
    }
    return 0;
}
