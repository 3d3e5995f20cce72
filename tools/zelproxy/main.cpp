// zelproxy: where ZeroMQ connections meet. ZMQ_PUB connections connect to its
// XSUB side, ZMQ_SUB connections to its XPUB side; it forwards every
// message downstream and every subscription upstream.
//
//     zelproxy --pub-port P --sub-port Q [--bind ADDRESS]
//
// Port 0 lets the system pick. Once both sides listen it prints
// "zelproxy listening on ADDRESS:P ADDRESS:Q"; SIGINT or SIGTERM ends it
// with status 0.
#include <zmq.h>

#include <pthread.h>
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

namespace {

// Binds `socket` to address:port and answers the port it got.
std::string bind_to(void *socket, const std::string &address, const std::string &port)
{
    std::string endpoint = "tcp://" + address + ":" + (port == "0" ? "*" : port);
    if (zmq_bind(socket, endpoint.c_str()) != 0) {
        std::fprintf(stderr, "zelproxy: cannot listen on %s: %s\n", endpoint.c_str(), zmq_strerror(errno));
        std::exit(1);
    }
    char bound[256];
    size_t size = sizeof bound;
    zmq_getsockopt(socket, ZMQ_LAST_ENDPOINT, bound, &size);
    std::string text = bound;
    return text.substr(text.rfind(':') + 1);
}

[[noreturn]] void usage()
{
    std::fprintf(stderr, "usage: zelproxy --pub-port P --sub-port Q [--bind ADDRESS]\n");
    std::exit(2);
}

} // namespace

int main(int argc, char **argv)
{
    std::string address = "127.0.0.1";
    std::string pub_port, sub_port;
    for (int i = 1; i < argc; ++i) {
        if (i + 1 >= argc)
            usage();
        std::string option = argv[i];
        if (option == "--bind")
            address = argv[++i];
        else if (option == "--pub-port")
            pub_port = argv[++i];
        else if (option == "--sub-port")
            sub_port = argv[++i];
        else
            usage();
    }
    if (pub_port.empty() || sub_port.empty())
        usage();

    // The signals are taken by a thread of their own, which asks the proxy
    // to end through its control socket.
    sigset_t stops;
    sigemptyset(&stops);
    sigaddset(&stops, SIGINT);
    sigaddset(&stops, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stops, nullptr);

    void *context = zmq_ctx_new();
    void *from_publishers = zmq_socket(context, ZMQ_XSUB);
    void *to_subscribers = zmq_socket(context, ZMQ_XPUB);
    void *control = zmq_socket(context, ZMQ_PAIR);
    int no_limit = 0;
    zmq_setsockopt(from_publishers, ZMQ_RCVHWM, &no_limit, sizeof no_limit);
    zmq_setsockopt(to_subscribers, ZMQ_SNDHWM, &no_limit, sizeof no_limit);
    zmq_bind(control, "inproc://zelproxy-control");
    std::string in = bind_to(from_publishers, address, pub_port);
    std::string out = bind_to(to_subscribers, address, sub_port);
    std::printf("zelproxy listening on %s:%s %s:%s\n", address.c_str(), in.c_str(), address.c_str(), out.c_str());
    std::fflush(stdout);

    std::thread stopper([&] {
        int signal = 0;
        sigwait(&stops, &signal);
        void *ask = zmq_socket(context, ZMQ_PAIR);
        zmq_connect(ask, "inproc://zelproxy-control");
        zmq_send(ask, "TERMINATE", 9, 0);
        zmq_close(ask);
    });
    zmq_proxy_steerable(from_publishers, to_subscribers, nullptr, control);
    stopper.join();
    int linger = 0;
    for (void *socket : {from_publishers, to_subscribers, control}) {
        zmq_setsockopt(socket, ZMQ_LINGER, &linger, sizeof linger);
        zmq_close(socket);
    }
    zmq_ctx_term(context);
    return 0;
}
