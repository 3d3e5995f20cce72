// Compression of one 200,000-byte message of order-flow fields (symbols,
// prices, quantities, times, ids, notes): LZMA and the block codec, each way,
// beside the xz tool compressing the same bytes to the same stand-alone
// format at -6 (and expanding them again), timed by the CPU time of its
// process, start included. Compare the MB counter (MB per CPU second, of the
// original message) and the ratio (original bytes over compressed bytes).
#include <benchmark/benchmark.h>
#include <zel/zel.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include <sys/resource.h>

namespace {

constexpr int kMessageSize = 200000;

std::string order_flow_message()
{
    const char *symbols[] = {"EURUSD", "GBPUSD", "USDJPY", "AUDUSD", "USDCHF", "EURGBP", "XAUUSD"};
    const char *notes[] = {"client requested partial fill", "amended by desk", "routed to venue LDN-2",
                           "price improvement on rest", "cancel on disconnect"};
    std::mt19937 rng(2024);
    vartocb *m = nullptr;
    scratchcb *wire = nullptr;
    int err;
    zel_ctor_vartocb(&m, &err);
    zel_open_scratch(&wire, kMessageSize, &err);
    zel_start_msg(m, wire, &err);
    auto add = [&](int tag, const std::string &value) {
        sPChar v{const_cast<char *>(value.data()), int32_t(value.size())};
        zel_add_data(m, tag, 1, &v, &err);
    };
    // Leaves room for one more round of fields and the padding field that
    // brings the message to its exact size.
    for (int i = 0; wire->len < kMessageSize - 256; ++i) {
        char price[16], time[32];
        std::snprintf(price, sizeof price, "1.%05u", 8000 + unsigned(rng() % 900));
        std::snprintf(time, sizeof time, "20261121-07:%02d:%02d.%03u", i / 3600 % 60, i / 60 % 60,
                      unsigned(rng() % 1000));
        add(55, symbols[rng() % 7]);
        add(44, price);
        add(38, std::to_string((rng() % 500 + 1) * 1000));
        add(60, time);
        add(11, "ORD-" + std::to_string(1000000 + i));
        add(1, "ACCT-" + std::to_string(rng() % 40));
        if (rng() % 4 == 0)
            add(58, notes[rng() % 5]);
    }
    add(58, std::string(size_t(kMessageSize - wire->len - ZEL_ITEM_HEADER_SIZE), ' '));
    std::string bytes(wire->data, size_t(wire->len));
    zel_close_scratch(&wire, &err);
    zel_dtor_vartocb(&m, &err);
    return bytes;
}

const std::string &message()
{
    static const std::string bytes = order_flow_message();
    return bytes;
}

// A caller-owned scratch, released with the benchmark.
struct Scratch {
    scratchcb s{};
    explicit Scratch(int size)
    {
        int err;
        zel_open_scratchcb(&s, size, &err);
    }
    explicit Scratch(const std::string &bytes) : Scratch(int(bytes.size()))
    {
        std::copy(bytes.begin(), bytes.end(), s.data);
        s.len = int32_t(bytes.size());
    }
    ~Scratch()
    {
        int err;
        punset_buffer_size(&s, &err);
    }
};

struct Codec {
    void *h = nullptr;
    explicit Codec(int type)
    {
        int err;
        zel_compress_open(&h, &type, &err);
    }
    ~Codec()
    {
        int err;
        zel_compress_close(&h, &err);
    }
};

void report(benchmark::State &state, int64_t compressed, const char *label)
{
    state.counters["MB"] =
        benchmark::Counter(double(kMessageSize) * double(state.iterations()) / 1e6, benchmark::Counter::kIsRate);
    state.counters["ratio"] = double(kMessageSize) / double(compressed);
    state.counters["bytes"] = double(compressed);
    state.SetLabel(label);
}

const char *codec_name(int type)
{
    return type == ZEL_COMPRESS_LZMA ? "lzma" : "block (lz4)";
}

// The block codec needs room for a result that may grow a little.
int room_for(int type)
{
    return type == ZEL_COMPRESS_BLOCK ? kMessageSize + kMessageSize / 255 + 16 : kMessageSize;
}

void BM_compress(benchmark::State &state)
{
    const int type = int(state.range(0));
    Codec codec(type);
    Scratch src(message()), packed(room_for(type));
    int err = 0;
    for (auto _ : state) {
        zel_compress(codec.h, &src.s, &packed.s, &err);
        benchmark::DoNotOptimize(packed.s.len);
    }
    if (err != 0)
        state.SkipWithError("compress failed");
    report(state, packed.s.len, codec_name(type));
}

void BM_decompress(benchmark::State &state)
{
    const int type = int(state.range(0));
    Codec codec(type);
    Scratch src(message()), packed(room_for(type)), out(kMessageSize);
    int err = 0;
    zel_compress(codec.h, &src.s, &packed.s, &err);
    for (auto _ : state) {
        zel_decompress(codec.h, &packed.s, &out.s, &err);
        benchmark::DoNotOptimize(out.s.len);
    }
    if (err != 0 || out.s.len != kMessageSize)
        state.SkipWithError("decompress failed");
    report(state, packed.s.len, codec_name(type));
}

// The message and its xz -6 form in a private temporary folder, removed at exit.
struct XzFiles {
    std::filesystem::path dir, plain, packed, restored;
    XzFiles()
    {
        char name[] = "/tmp/zel-bench-XXXXXX";
        dir = mkdtemp(name) ? name : "";
        plain = dir / "message", packed = dir / "message.lzma", restored = dir / "restored";
        std::ofstream(plain, std::ios::binary) << message();
    }
    ~XzFiles() { std::filesystem::remove_all(dir); }
};

const XzFiles &xz_files()
{
    static const XzFiles files;
    return files;
}

// The CPU time (user + system) that finished child processes have used.
double children_cpu_seconds()
{
    rusage usage{};
    getrusage(RUSAGE_CHILDREN, &usage);
    auto seconds = [](const timeval &t) { return double(t.tv_sec) + double(t.tv_usec) / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// Runs `command` once per iteration and counts the child's CPU time, process
// start included, so that a busy machine skews it no more than it skews the
// library's own figures.
void time_command(benchmark::State &state, const std::string &command)
{
    for (auto _ : state) {
        double before = children_cpu_seconds();
        if (std::system(command.c_str()) != 0) {
            state.SkipWithError("xz failed or is not installed");
            break;
        }
        state.SetIterationTime(children_cpu_seconds() - before);
    }
}

std::string xz_compress_command(const XzFiles &f)
{
    return "xz --format=lzma -6 --stdout " + f.plain.string() + " > " + f.packed.string();
}

void BM_xz_lzma6_compress(benchmark::State &state)
{
    const XzFiles &f = xz_files();
    time_command(state, xz_compress_command(f));
    if (!state.error_occurred())
        report(state, int64_t(std::filesystem::file_size(f.packed)), "reference");
}

void BM_xz_lzma6_decompress(benchmark::State &state)
{
    const XzFiles &f = xz_files();
    if (std::system(xz_compress_command(f).c_str()) != 0) {
        state.SkipWithError("xz failed or is not installed");
        return;
    }
    time_command(state, "xz --format=lzma --decompress --stdout " + f.packed.string() + " > " + f.restored.string());
    if (!state.error_occurred())
        report(state, int64_t(std::filesystem::file_size(f.packed)), "reference");
}

} // namespace

BENCHMARK(BM_compress)->Arg(ZEL_COMPRESS_LZMA)->Arg(ZEL_COMPRESS_BLOCK)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_decompress)->Arg(ZEL_COMPRESS_LZMA)->Arg(ZEL_COMPRESS_BLOCK)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_xz_lzma6_compress)->UseManualTime()->Iterations(20)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_xz_lzma6_decompress)->UseManualTime()->Iterations(20)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
