// A null detail pointer: each family's calls do their work as with a real one
// and only leave the detail unreported. Failures write a detail on every
// family's path; a parse and a compression also cover success.
#include <zel/compress.h>
#include <zel/config.h>
#include <zel/containers.h>
#include <zel/platform.h>

#include <functional>

#include "message_test_util.h"

namespace {

using namespace zt;

// The detail pointers a case hands on: real ones, or null for the run under test.
struct Detail {
    bool none;
    int i = -99;
    uint32_t u = 99;
    int *in() { return none ? nullptr : &i; }
    uint32_t *un() { return none ? nullptr : &u; }
};

struct Case {
    const char *name;
    int expected;
    std::function<int(Detail &)> run;
};

// Each case opens what it needs and closes it again with the same detail pointer.
const Case kCases[] = {
    {"ScratchOpenZeroSize", 0, [](Detail &d) { scratchcb *s = nullptr; return zel_open_scratch(&s, 0, d.in()); }},
    {"ParseMessage", 1, [](Detail &d) { Varto m; Scratch in; in.assign(wire_msg({{7, "seven"}})); sPChar v{};
        return zel_parse_msg(m, &in.s, d.in()) && zel_get_data(m, 7, 0, &v, d.in()) && str(v) == "seven"; }},
    {"ParseGarbage", 0, [](Detail &d) { Varto m; Scratch in; in.assign("garbage!"); return zel_parse_msg(m, &in.s, d.in()); }},
    {"HashFindMissing", 0, [](Detail &d) { void *h = nullptr, *out; sZELHashParams p{0, pc("hash_ejb")}; sPChar k = pc("key");
        zel_hash_open(&h, &p, d.in()); int r = zel_hash_table_find(h, &k, &out, d.in()); zel_hash_close(&h, d.in()); return r; }},
    {"VectorDeleteFromEmpty", 0, [](Detail &d) { void *v = nullptr; sZELVecParams p{nullptr, 0, sizeof(int)};
        zel_vec_open(&v, &p, d.in()); int r = zel_vec_del(v, d.in()); zel_vec_close(&v, d.in()); return r; }},
    {"ConfigLoadMissingFile", 0, [](Detail &d) { sCfgHandle *h = nullptr; sPChar path = pc("/nonexistent/zel.ini");
        cfg_open(&h, 0, d.un()); int r = int(cfg_load_ini(h, &path, d.un())); cfg_close(&h, d.un()); return r; }},
    {"PlatformTimeFormatBadCode", 0, [](Detail &d) { sTimeRecord t{}; Scratch s; return int(sys_time_format(&t, &s.s, 99, d.un())); }},
    {"CompressRoundTrip", 1, [](Detail &d) { void *h = nullptr; int type = ZEL_COMPRESS_LZMA; Scratch src(4096), packed(4096), out;
        src.assign(std::string(4096, 'z')); int r = zel_compress_open(&h, &type, d.in()) && zel_compress(h, &src.s, &packed.s, d.in()) &&
        zel_decompress(h, &packed.s, &out.s, d.in()); zel_compress_close(&h, d.in()); return r && out.bytes() == src.bytes(); }},
    {"CompressEmptySource", 0, [](Detail &d) { void *h = nullptr; int type = ZEL_COMPRESS_BLOCK; Scratch src, dst; src.s.len = 0;
        zel_compress_open(&h, &type, d.in()); int r = zel_compress(h, &src.s, &dst.s, d.in()); zel_compress_close(&h, d.in()); return r; }},
};

class NullDetail : public testing::TestWithParam<Case> {};

TEST_P(NullDetail, DoesTheWorkOfARealPointerAndLeavesOnlyTheDetailOut)
{
    Detail real{false}, none{true};
    EXPECT_EQ(GetParam().run(real), GetParam().expected);
    EXPECT_TRUE(real.i != -99 || real.u != 99); // the case does report a detail, so the null run skips a write
    EXPECT_EQ(GetParam().run(none), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(EachFamily, NullDetail, testing::ValuesIn(kCases),
                         [](const testing::TestParamInfo<Case> &info) { return std::string(info.param.name); });

} // namespace
