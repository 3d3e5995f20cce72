// Message library throughput: parse (in place and into a copy), build, field
// lookup and the admin text conversions, on a typical message (10 fields,
// about 120 bytes) and a large one (1000 fields). Each family runs beside
// BM_memcpy_reference of the same bytes; compare the bytes_per_second.
#include <benchmark/benchmark.h>
#include <zel/zel.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

struct Field {
    int tag;
    std::string value;
};

std::vector<Field> typical_fields()
{
    return {{55, "EURUSD"},     {44, "1.08415"},   {38, "1000000"},    {54, "1"},       {40, "2"},
            {59, "0"},          {60, "20261121"},  {10100, "ACCT-7"},  {31003, "LDN"}, {64001, "ORD-000123"}};
}

std::vector<Field> large_fields()
{
    std::vector<Field> fields;
    for (int i = 0; i < 1000; ++i)
        fields.push_back({i * 7 % 65000, "value-" + std::to_string(i)});
    return fields;
}

// Owns a vartocb and the scratch buffers a benchmark needs.
struct Fixture {
    vartocb *m = nullptr;
    scratchcb *wire = nullptr;
    scratchcb *work = nullptr;
    std::string admin;

    explicit Fixture(const std::vector<Field> &fields)
    {
        int err;
        zel_ctor_vartocb(&m, &err);
        zel_open_scratch(&wire, 1 << 16, &err);
        zel_open_scratch(&work, 1 << 16, &err);
        build(fields);
        scratchcb *text = nullptr;
        zel_open_scratch(&text, 1 << 16, &err);
        zel_parse_msg(m, wire, &err);
        varto_to_admin(m, text, &err);
        admin.assign(text->data, size_t(text->len));
        zel_close_scratch(&text, &err);
    }
    ~Fixture()
    {
        int err;
        zel_dtor_vartocb(&m, &err);
        zel_close_scratch(&wire, &err);
        zel_close_scratch(&work, &err);
    }
    void build(const std::vector<Field> &fields)
    {
        int err;
        wire->len = 0;
        zel_start_msg(m, wire, &err);
        for (const Field &f : fields) {
            sPChar v{const_cast<char *>(f.value.data()), int32_t(f.value.size())};
            zel_add_data(m, f.tag, 1, &v, &err);
        }
    }
};

const std::vector<Field> &fields_for(const benchmark::State &state)
{
    static const std::vector<Field> typical = typical_fields(), large = large_fields();
    return state.range(0) == 0 ? typical : large;
}

void count(benchmark::State &state, int64_t bytes)
{
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(state.iterations() * bytes);
    state.SetLabel(state.range(0) == 0 ? "typical" : "large");
}

void BM_memcpy_reference(benchmark::State &state)
{
    Fixture f(fields_for(state));
    // Offset so that source and destination do not share a page offset,
    // which slows memcpy many times over on this kind of machine.
    for (auto _ : state) {
        std::memcpy(f.work->data + 64, f.wire->data, size_t(f.wire->len));
        benchmark::ClobberMemory();
    }
    count(state, f.wire->len);
}

void BM_parse_in_place(benchmark::State &state)
{
    Fixture f(fields_for(state));
    int err;
    for (auto _ : state) {
        zel_parse_msg(f.m, f.wire, &err);
        benchmark::DoNotOptimize(f.m->item_count);
    }
    count(state, f.wire->len);
}

void BM_parse_copy(benchmark::State &state)
{
    Fixture f(fields_for(state));
    int err;
    for (auto _ : state) {
        zel_parse_first_msg(f.m, f.work, f.wire, &err);
        benchmark::DoNotOptimize(f.work->len);
    }
    count(state, f.wire->len);
}

void BM_build(benchmark::State &state)
{
    Fixture f(fields_for(state));
    for (auto _ : state) {
        f.build(fields_for(state));
        benchmark::DoNotOptimize(f.wire->len);
    }
    count(state, f.wire->len);
}

void BM_lookup(benchmark::State &state)
{
    Fixture f(fields_for(state));
    int err;
    zel_parse_msg(f.m, f.wire, &err);
    int tag = fields_for(state).back().tag;
    sPChar v;
    for (auto _ : state) {
        zel_get_data(f.m, tag, 0, &v, &err);
        benchmark::DoNotOptimize(v);
    }
    state.SetItemsProcessed(state.iterations());
    state.SetLabel(state.range(0) == 0 ? "typical" : "large");
}

void BM_to_admin(benchmark::State &state)
{
    Fixture f(fields_for(state));
    int err;
    zel_parse_msg(f.m, f.wire, &err);
    for (auto _ : state) {
        f.work->len = 0;
        varto_to_admin(f.m, f.work, &err);
        benchmark::DoNotOptimize(f.work->len);
    }
    count(state, f.wire->len);
}

// Tokenising works in place, so each round copies the text first; that copy
// is part of the figure.
void BM_from_admin(benchmark::State &state)
{
    Fixture f(fields_for(state));
    std::string text = f.admin;
    std::vector<sPChar> tokens(text.size() / 2 + 2);
    int err, ntokens = 0;
    for (auto _ : state) {
        std::memcpy(text.data(), f.admin.data(), text.size());
        sPChar whole{text.data(), int32_t(text.size())};
        zel_get_data_triplets(tokens.data(), &ntokens, &whole);
        f.work->len = 0;
        varto_from_admin(f.m, ntokens, tokens.data(), f.work, &err);
        benchmark::DoNotOptimize(f.work->len);
    }
    count(state, f.wire->len);
}

} // namespace

BENCHMARK(BM_memcpy_reference)->Arg(0)->Arg(1);
BENCHMARK(BM_parse_in_place)->Arg(0)->Arg(1);
BENCHMARK(BM_parse_copy)->Arg(0)->Arg(1);
BENCHMARK(BM_build)->Arg(0)->Arg(1);
BENCHMARK(BM_lookup)->Arg(0)->Arg(1);
BENCHMARK(BM_to_admin)->Arg(0)->Arg(1);
BENCHMARK(BM_from_admin)->Arg(0)->Arg(1);

BENCHMARK_MAIN();
