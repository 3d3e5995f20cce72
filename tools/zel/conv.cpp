// zel conv: admin text (one message per line) to binary records and back.
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sstream>

#include "cli.h"
#include "message_text.h"

namespace zelcli {

namespace {

struct ConvOptions {
    std::string to;
    std::string input = "-", output = "-";
};

std::string read_all(const std::string &path)
{
    FILE *in = path == "-" ? stdin : std::fopen(path.c_str(), "rb");
    if (!in)
        throw Failure("cannot read " + path + ": " + std::strerror(errno));
    std::string data;
    char chunk[65536];
    for (size_t n; (n = std::fread(chunk, 1, sizeof chunk, in)) > 0;)
        data.append(chunk, n);
    bool failed = std::ferror(in);
    if (in != stdin)
        std::fclose(in);
    if (failed)
        throw Failure("cannot read " + path);
    return data;
}

class Output {
public:
    explicit Output(const std::string &path) : path_(path), file_(path == "-" ? stdout : std::fopen(path.c_str(), "wb"))
    {
        if (!file_)
            throw Failure("cannot write " + path + ": " + std::strerror(errno));
    }
    ~Output()
    {
        if (file_ != stdout)
            std::fclose(file_);
    }
    void write(const char *data, size_t size)
    {
        if (std::fwrite(data, 1, size, file_) != size)
            throw Failure("cannot write " + path_ + ": " + std::strerror(errno));
    }
    void close()
    {
        if (std::fflush(file_) != 0)
            throw Failure("cannot write " + path_ + ": " + std::strerror(errno));
    }

private:
    std::string path_;
    FILE *file_;
};

// Binary records start with the message magic, 0x4242 ("BB"); admin text
// never does.
bool looks_binary(const std::string &data)
{
    return data.size() >= 2 && data[0] == 'B' && data[1] == 'B';
}

void to_text(std::string &data, Output &out)
{
    if (data.empty())
        return;
    if (data.size() > INT_MAX)
        throw Failure("the input is over 2 GiB");
    scratchcb in{int32_t(data.size()), int32_t(data.size()), int32_t(data.size()), data.data()};
    MessageText text;
    vartocb *reader = nullptr;
    zel_ctor_vartocb(&reader, nullptr);
    std::unique_ptr<vartocb *, void (*)(vartocb **)> owner(&reader, [](vartocb **m) { zel_dtor_vartocb(m, nullptr); });
    int err = 0;
    uint64_t converted = 0;
    int32_t good_end = 0;
    for (bool ok = zel_parse_first_msg(reader, nullptr, &in, &err); ok;
         ok = zel_parse_next_msg(reader, nullptr, &err)) {
        std::string line = text.admin(reader) + "\n";
        out.write(line.data(), line.size());
        ++converted;
        good_end = reader->next_offset;
    }
    if (err != 6)
        throw Failure("the input is not well formed from byte " + std::to_string(good_end) + ", after " +
                      std::to_string(converted) + " messages");
}

void to_binary(const std::string &data, Output &out)
{
    MessageText text;
    std::istringstream lines(data);
    uint64_t bad_line = for_each_admin_line(
        lines, text, [] { return true; }, [&](scratchcb *message) { out.write(message->data, size_t(message->len)); });
    if (bad_line)
        throw Failure("line " + std::to_string(bad_line) + " is not admin text ('tag count value ...'); "
                      "the lines before it are converted");
}

int run_conv(const ConvOptions &o)
{
    std::string data = read_all(o.input);
    Output out(o.output);
    bool binary = o.to.empty() ? !looks_binary(data) : o.to == "binary";
    try {
        binary ? to_binary(data, out) : to_text(data, out);
    } catch (const Failure &) {
        out.close();
        throw;
    }
    out.close();
    return 0;
}

} // namespace

Command add_conv(CLI::App &zel)
{
    auto o = std::make_shared<ConvOptions>();
    CLI::App *app = zel.add_subcommand(
        "conv", "Convert admin text (one message per line) to binary records, or binary records to admin text.");
    app->add_option("input", o->input, "input file, - for standard input")->capture_default_str();
    app->add_option("output", o->output, "output file, - for standard output")->capture_default_str();
    app->add_option("--to", o->to, "text or binary (default: the other form than the input's)")
        ->check(CLI::IsMember({"text", "binary"}));
    return {app, [o] { return run_conv(*o); }};
}

} // namespace zelcli
