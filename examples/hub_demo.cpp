// Two applications talking through a hub: a subscriber with two watches and
// a publisher that also offers a service. Run it against a hub:
//
//     build/tools/zelhub --port 0 &          # prints the port it listens on
//     build/examples/hub_demo PORT
//
// Everything below happens on this one thread: each connection delivers its
// messages and status changes only inside zel_pump_messages.
#include <zel/zel.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace {

// The admin text of a message, for printing.
std::string admin(vartocb *msg)
{
    int err = 0;
    scratchcb *text = nullptr;
    zel_open_scratch(&text, 256, &err);
    varto_to_admin(msg, text, &err);
    std::string out(text->data, size_t(text->len));
    zel_close_scratch(&text, &err);
    return out;
}

// Builds one message from (tag, value) pairs into `out`.
void build(vartocb *builder, scratchcb *out, const std::vector<std::pair<int, std::string>> &fields)
{
    int err = 0;
    out->len = 0;
    zel_start_msg(builder, out, &err);
    for (const auto &[tag, value] : fields) {
        sPChar v{const_cast<char *>(value.data()), int32_t(value.size())};
        zel_add_data(builder, tag, 1, &v, &err);
    }
}

struct StatusPrinter : CZelListener {
    const char *who;
    explicit StatusPrinter(const char *name) : who(name) {}
    int statusChange(int status, int *) override
    {
        static const char *const names[] = {"?", "created", "connected", "recovering", "lost"};
        std::printf("  [%s] status %d (%s)\n", who, status, names[status >= 1 && status <= 4 ? status : 0]);
        return 1;
    }
};

// The subscriber's receiver: prints what its watches match and the replies.
struct Subscriber : CZelReceiver {
    int matches = 0, replies = 0;
    int processMsg(vartocb *msg, int, sWatchData *, void *context, int *) override
    {
        ++matches;
        std::printf("  subscriber got (%s): %s\n", static_cast<const char *>(context), admin(msg).c_str());
        return 1;
    }
    int processReply(vartocb *reply, int, void *, void *, int *) override
    {
        ++replies;
        std::printf("  subscriber got the reply: %s\n", admin(reply).c_str());
        return 1;
    }
};

// The publisher's "quote" service: answers each request with a price.
struct QuoteService : CZelReceiver {
    CZelEngine *engine = nullptr;
    vartocb *builder = nullptr;
    scratchcb *reply = nullptr;
    int processMsg(vartocb *request, int, sWatchData *, void *, int *) override
    {
        std::printf("  service got the request: %s\n", admin(request).c_str());
        int err = 0;
        sPChar symbol{}, number{};
        zel_get_data(request, 55, 0, &symbol, &err);
        zel_get_data(request, 32760, 0, &number, &err); // carried back so the reply finds its request
        build(builder, reply,
              {{32767, "1"}, {32760, std::string(number.data, size_t(number.len))},
               {55, std::string(symbol.data, size_t(symbol.len))}, {44, "1.0842"}});
        engine->sendMsg(reply, &err);
        return 1;
    }
    int processReply(vartocb *, int, void *, void *, int *) override { return 1; }
};

// Pumps this thread's messages until `done` or five seconds have passed.
bool pump_until(const std::function<bool()> &done)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    zel_pump_messages(0);
    while (!done() && std::chrono::steady_clock::now() < deadline)
        zel_pump_messages(50);
    return done();
}

int status_of(CZelEngine &engine)
{
    int status = 0, err = 0;
    engine.getConnectionStatus(&status, &err);
    return status;
}

void print_meters(const char *who, CZelEngine &engine)
{
    sZelMeters m{};
    int err = 0;
    engine.getMeters(&m, &err);
    std::printf("  [%s] watches %llu, messages handled %llu, service requests %llu, replies %llu, "
                "requests sent %llu, bytes received %llu (counted twice), bytes sent %llu\n",
                who, (unsigned long long)m.counters[0], (unsigned long long)m.counters[1],
                (unsigned long long)m.counters[2], (unsigned long long)m.counters[4],
                (unsigned long long)m.counters[7], (unsigned long long)m.counters[13],
                (unsigned long long)m.counters[14]);
}

// The hub also keeps the address book: the publisher files where its quote
// service runs, anyone looks the name up, and the entry goes again.
bool address_book_round(int port)
{
    std::string hub = "127.0.0.1:" + std::to_string(port), name = "quote-service", where = "127.0.0.1:9100";
    sPChar service{hub.data(), int32_t(hub.size())}, key{name.data(), int32_t(name.size())},
        address{where.data(), int32_t(where.size())};
    uint32_t err = 0;
    std::printf("the address book: \"%s\" is filed as %s\n", name.c_str(), where.c_str());
    p_addr_update_addrbk(&key, nullptr, &service, &address, nullptr, &err);
    setenv("PL_LOC_BROK_ADDR", hub.c_str(), 1); // where lookups find the address book
    sPChar found[2] = {};
    bool ok = p_addr_local_addrbk_lookup(&key, found, &err) == 1;
    if (ok) {
        std::printf("  looked up: %.*s\n", found[0].len, found[0].data);
        pchar_destroy_mem(&found[0], nullptr);
    }
    p_addr_remove_addrbk(&key, nullptr, &service, &err);
    ok = ok && p_addr_local_addrbk_lookup(&key, found, &err) == 0 && err == 3;
    std::printf("  removed: a lookup now answers detail %u (no such key)\n", err);
    return ok;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s HUB_PORT\n", argv[0]);
        return 2;
    }
    int port = std::atoi(argv[1]);
    int err = 0;
    vartocb *builder = nullptr;
    scratchcb *message = nullptr;
    zel_ctor_vartocb(&builder, &err);
    zel_open_scratch(&message, 256, &err);

    std::printf("connecting a subscriber and a publisher to the hub on 127.0.0.1:%d\n", port);
    CZelEngine subscriber, publisher;
    StatusPrinter subscriber_status("subscriber"), publisher_status("publisher");
    subscriber.create_connection(port, "127.0.0.1", "hub", "", "", "", "demo-subscriber", 0, "", "", "", nullptr);
    subscriber.setConnectionListener(&subscriber_status, &err);
    publisher.create_connection(port, "127.0.0.1", "hub", "", "", "", "demo-publisher", 0, "", "", "", nullptr);
    publisher.setConnectionListener(&publisher_status, &err);
    if (!pump_until([&] { return status_of(subscriber) == 2 && status_of(publisher) == 2; })) {
        std::fprintf(stderr, "could not connect to the hub\n");
        return 1;
    }

    std::printf("the publisher offers the service \"quote\"\n");
    QuoteService quotes;
    quotes.engine = &publisher;
    quotes.builder = builder;
    zel_open_scratch(&quotes.reply, 256, &err);
    sPChar quote{const_cast<char *>("quote"), 5};
    publisher.registerSrvc(&quote, &quotes, 0, &err);

    std::printf("the subscriber watches symbol EURUSD (field 55), and any message with a venue (field 30)\n");
    Subscriber receiver;
    int symbol_tag[] = {55}, venue_tag[] = {30};
    sPChar eurusd{const_cast<char *>("EURUSD"), 6}, any{nullptr, 0};
    void *watch = nullptr;
    subscriber.addWatch(&watch, symbol_tag, &eurusd, 1, &receiver, (void *)"EURUSD watch", false, 0, false, false,
                        &err);
    subscriber.addWatch(&watch, venue_tag, &any, 1, &receiver, (void *)"venue watch", false, 0, false, false, &err);

    std::printf("the subscriber asks the service for a quote\n");
    build(builder, message, {{0, "quote"}, {55, "EURUSD"}});
    void *request = nullptr;
    subscriber.addRqDontStore(&request, message, &receiver, nullptr, &err);
    bool replied = pump_until([&] { return receiver.replies == 1; });

    // The reply came through the hub after the subscriber's watches did, so
    // the hub now knows them.
    std::printf("the publisher sends four messages; three match a watch\n");
    const std::vector<std::vector<std::pair<int, std::string>>> prices = {
        {{55, "EURUSD"}, {44, "1.0841"}, {30, "LDN"}},
        {{55, "USDJPY"}, {44, "151.20"}},
        {{55, "EURUSD"}, {44, "1.0843"}},
        {{55, "GBPUSD"}, {44, "1.2710"}, {30, "NYC"}}};
    for (const auto &fields : prices) {
        build(builder, message, fields);
        publisher.sendMsg(message, &err);
    }
    bool delivered = pump_until([&] { return receiver.matches == 3; });

    std::printf("meters\n");
    print_meters("subscriber", subscriber);
    print_meters("publisher", publisher);

    bool looked_up = address_book_round(port);

    zel_close_scratch(&quotes.reply, &err);
    zel_close_scratch(&message, &err);
    zel_dtor_vartocb(&builder, &err);
    if (!replied || !delivered || !looked_up) {
        std::fprintf(stderr, "the demo did not see everything it expected\n");
        return 1;
    }
    std::printf("done\n");
    return 0;
}
