// zelproxy: where ZeroMQ connections meet. Publishers (ZMQ_PUB connections)
// connect to its XSUB side, subscribers (ZMQ_SUB connections) to its XPUB
// side; it forwards every message, and every subscription back upstream.
//
//     zelproxy [--host ADDRESS] [--publishers PORT] [--subscribers PORT]
//
// Port 0 (the default) lets the system pick; once both sides listen it
// prints "zelproxy listening on HOST:PUBLISHERS HOST:SUBSCRIBERS".
#include <zmq.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

// Binds `socket` to host:port and answers the endpoint it got.
std::string bind_to(void *socket, const std::string &host, const char *port)
{
    std::string endpoint = "tcp://" + host + ":" + (std::strcmp(port, "0") == 0 ? "*" : port);
    if (zmq_bind(socket, endpoint.c_str()) != 0) {
        std::fprintf(stderr, "zelproxy: cannot listen on %s: %s\n", endpoint.c_str(), zmq_strerror(errno));
        std::exit(1);
    }
    char bound[256];
    size_t size = sizeof bound;
    zmq_getsockopt(socket, ZMQ_LAST_ENDPOINT, bound, &size);
    return std::string(bound).substr(std::strlen("tcp://"));
}

[[noreturn]] void usage()
{
    std::fprintf(stderr, "usage: zelproxy [--host ADDRESS] [--publishers PORT] [--subscribers PORT]\n");
    std::exit(2);
}

} // namespace

int main(int argc, char **argv)
{
    std::string host = "127.0.0.1";
    const char *publishers = "0";
    const char *subscribers = "0";
    for (int i = 1; i < argc; ++i) {
        if (i + 1 >= argc)
            usage();
        if (std::strcmp(argv[i], "--host") == 0)
            host = argv[++i];
        else if (std::strcmp(argv[i], "--publishers") == 0)
            publishers = argv[++i];
        else if (std::strcmp(argv[i], "--subscribers") == 0)
            subscribers = argv[++i];
        else
            usage();
    }
    void *context = zmq_ctx_new();
    void *from_publishers = zmq_socket(context, ZMQ_XSUB);
    void *to_subscribers = zmq_socket(context, ZMQ_XPUB);
    int no_limit = 0;
    zmq_setsockopt(from_publishers, ZMQ_RCVHWM, &no_limit, sizeof no_limit);
    zmq_setsockopt(to_subscribers, ZMQ_SNDHWM, &no_limit, sizeof no_limit);
    std::string in = bind_to(from_publishers, host, publishers);
    std::string out = bind_to(to_subscribers, host, subscribers);
    std::printf("zelproxy listening on %s %s\n", in.c_str(), out.c_str());
    std::fflush(stdout);
    // SIGTERM ends the process; the kernel closes the sockets.
    zmq_proxy(from_publishers, to_subscribers, nullptr);
    return 0;
}
