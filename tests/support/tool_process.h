// The command-line tool driven as a user drives it: spawned with arguments
// and standard input, its two outputs read as they come, its exit status
// taken, and never left running after the test.
#pragma once

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/time_factor.h"
#include "support/child_process.h"

namespace zel::test {

class ToolProcess : public ChildProcess {
public:
    explicit ToolProcess(std::vector<std::string> args, const std::string &input = "")
    {
        args.insert(args.begin(), ZEL_TOOL_PATH);
        int in;
        pid_ = spawn_program(std::move(args), out_fd_, false, &in, &err_fd_);
        // The inputs the tests give fit in the pipe.
        if (!input.empty() && ::write(in, input.data(), input.size()) != ssize_t(input.size()))
            throw std::runtime_error("stdin");
        ::close(in);
    }
    // The base kills the tool after its outputs are closed.
    ~ToolProcess()
    {
        ::close(out_fd_);
        ::close(err_fd_);
    }

    // Reads until standard error holds `text`: false when the tool ended or
    // fell silent for longer than patience first.
    bool wait_for_error_text(const std::string &text)
    {
        while (err.find(text) == std::string::npos)
            if (!read_some(patience()))
                return false;
        return true;
    }
    // Reads both outputs to their end and answers the exit status (-1 when
    // the tool did not end within patience, or ended by a signal).
    int finish()
    {
        auto deadline = std::chrono::steady_clock::now() + patience(20000);
        while (out_fd_ >= 0 || err_fd_ >= 0)
            if (std::chrono::steady_clock::now() > deadline || !read_some(patience()))
                break;
        int status = stop(SIGKILL);
        return out_fd_ < 0 && err_fd_ < 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    void signal(int number) { ::kill(pid_, number); }

    std::string out, err;

private:
    // One read from whichever output has something; false on silence or
    // when both are closed.
    bool read_some(std::chrono::milliseconds wait)
    {
        pollfd p[2] = {{out_fd_, POLLIN, 0}, {err_fd_, POLLIN, 0}};
        if (::poll(p, 2, int(wait.count())) <= 0)
            return false;
        char chunk[4096];
        int *fds[2] = {&out_fd_, &err_fd_};
        std::string *texts[2] = {&out, &err};
        for (int i = 0; i < 2; ++i) {
            if (!(p[i].revents & (POLLIN | POLLHUP)))
                continue;
            ssize_t n = ::read(*fds[i], chunk, sizeof chunk);
            if (n > 0) {
                texts[i]->append(chunk, size_t(n));
            } else {
                ::close(*fds[i]);
                *fds[i] = -1;
            }
        }
        return out_fd_ >= 0 || err_fd_ >= 0;
    }

    int out_fd_ = -1, err_fd_ = -1;
};

// Runs the tool to its end: the exit status, with `out` and `err` filled.
struct ToolRun {
    int status;
    std::string out, err;
};
inline ToolRun run_tool(std::vector<std::string> args, const std::string &input = "")
{
    ToolProcess tool(std::move(args), input);
    int status = tool.finish();
    return {status, tool.out, tool.err};
}

} // namespace zel::test
