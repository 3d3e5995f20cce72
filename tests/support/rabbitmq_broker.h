// A private RabbitMQ for one test program, started once on free loopback
// ports with a plain and a TLS listener (the script beside this file makes
// its certificates), stopped by its process id, and gone with the program
// however the program ends.
#pragma once

#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <string>

#include "support/ports.h"

namespace zel::test {

class RabbitBroker {
public:
    RabbitBroker()
        : dir_(std::filesystem::temp_directory_path() / ("zel-rabbitmq-" + std::to_string(::getpid()))),
          port_(free_loopback_port()), tls_port_(free_loopback_port()), dist_port_(free_loopback_port()),
          epmd_port_(free_loopback_port())
    {
        start();
    }
    ~RabbitBroker()
    {
        stop(SIGTERM);
        if (epmd_pid_ > 0)
            ::kill(epmd_pid_, SIGTERM);
        std::error_code ignored;
        std::filesystem::remove_all(dir_, ignored);
    }
    RabbitBroker(const RabbitBroker &) = delete;
    RabbitBroker &operator=(const RabbitBroker &) = delete;

    int port() const { return port_; }
    int tls_port() const { return tls_port_; }
    // ca.pem, client.pem and client.key signed by it; other_ca.pem, and
    // stranger.pem and stranger.key that it signed.
    std::string tls_file(const std::string &name) const { return (dir_ / "tls" / name).string(); }

    // Ends the broker with `signal` and waits until it is gone.
    void stop(int signal)
    {
        if (beam_pid_ <= 0)
            return;
        int gone = int(::syscall(SYS_pidfd_open, beam_pid_, 0));
        ::kill(beam_pid_, signal);
        if (gone >= 0) {
            pollfd p{gone, POLLIN, 0};
            ::poll(&p, 1, -1);
            ::close(gone);
        }
        beam_pid_ = -1;
    }
    void start()
    {
        std::ostringstream command;
        command << "bash " << ZEL_TEST_SUPPORT_DIR << "/private_rabbitmq.sh " << dir_ << ' ' << ::getpid() << ' '
                << port_ << ' ' << tls_port_ << ' ' << dist_port_ << ' ' << epmd_port_;
        std::string line = run(command.str());
        std::istringstream words(line);
        std::string ready;
        words >> ready >> beam_pid_ >> epmd_pid_;
        if (ready != "ready" || beam_pid_ <= 0)
            throw std::runtime_error("the private RabbitMQ did not start: " + line);
    }

    // What rabbitmqctl says to `arguments` about this broker. The tool gives
    // up now and then on a loaded machine: it is asked again, at most thrice.
    std::string ctl(const std::string &arguments) const
    {
        std::string said;
        for (int attempt = 0; attempt < 3; ++attempt) {
            said = run("bash -c '. " + (dir_ / "env").string() + " && /usr/lib/rabbitmq/bin/rabbitmqctl -q " +
                       arguments + "' 2>&1");
            if (said.rfind("Error", 0) != 0)
                break;
        }
        return said;
    }

private:
    static std::string run(const std::string &command)
    {
        FILE *out = ::popen(command.c_str(), "r");
        if (!out)
            throw std::runtime_error("cannot run " + command);
        std::string text;
        char chunk[4096];
        size_t n;
        while ((n = std::fread(chunk, 1, sizeof chunk, out)) > 0)
            text.append(chunk, n);
        ::pclose(out);
        return text;
    }

    std::filesystem::path dir_;
    int port_, tls_port_, dist_port_, epmd_port_;
    pid_t beam_pid_ = -1;
    pid_t epmd_pid_ = -1;
};

} // namespace zel::test
