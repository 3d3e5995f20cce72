// Message compression: the handle's argument rules, the LZMA frame, round
// trips through both codecs, 64 KiB decoding steps and corrupt frames.
#include <lzma/LzmaDec.h>
#include <zel/compress.h>

#include <cstdlib>
#include <random>

#include "message/message_test_util.h"

namespace {

using zt::Scratch;

// Highly repetitive text, as a stream of similar messages is.
std::string field_text(size_t n)
{
    std::string s;
    for (int i = 0; s.size() < n; ++i)
        s += "55=EURUSD|44=1.08" + std::to_string(400 + i % 97) + "|38=" + std::to_string(1000 * (i % 13)) + "|";
    return s.substr(0, n);
}

// Random characters from `alphabet`: all 256 byte values give incompressible
// noise, a dozen digits a stream that shrinks only by half.
std::string draw(size_t n, int alphabet = 256)
{
    std::mt19937 rng(42);
    std::string s(n, '\0');
    for (char &c : s)
        c = char(alphabet == 256 ? rng() : '0' + rng() % alphabet);
    return s;
}

// Holds `bytes` in a buffer of exactly their size, so a read past them is caught.
void exact(Scratch &s, const std::string &bytes)
{
    s.reopen(bytes.empty() ? 1 : int(bytes.size()));
    s.assign(bytes);
}

void *open_codec(int type)
{
    void *h = nullptr;
    int err;
    EXPECT_EQ(zel_compress_open(&h, &type, &err), 1) << err;
    return h;
}

// One handle of each codec per test, and the buffers the calls go through.
struct Compression : ::testing::Test {
    int err = -99;
    unsigned long long size = 0; // what zel_compressed_size answers
    void *lzma = open_codec(ZEL_COMPRESS_LZMA), *block = open_codec(ZEL_COMPRESS_BLOCK);
    Scratch in, packed, out;
    ~Compression() override
    {
        zel_compress_close(&lzma, &err);
        zel_compress_close(&block, &err);
    }

    // Runs `op` from an exact copy of `bytes` into `dst`, reopened with `room`
    // bytes; answers the detail. The length never leaves the buffer.
    int run(decltype(zel_compress) op, void *codec, const std::string &bytes, Scratch &dst, int room)
    {
        exact(in, bytes);
        dst.reopen(room);
        op(codec, &in.s, &dst.s, &err);
        EXPECT_TRUE(dst.s.len >= 0 && dst.s.len <= dst.s.alloc);
        return err;
    }
    // Compression's destination has the source's size unless told; LZMA grows expansion's.
    int pack(void *codec, const std::string &bytes, int room = 0)
    {
        return run(zel_compress, codec, bytes, packed, room ? room : int(bytes.size()));
    }
    int unpack(void *codec, const std::string &frame, int room = 1)
    {
        return run(zel_decompress, codec, frame, out, room);
    }
    // Whether `frame` expands to exactly `text`; says briefly how it did not.
    ::testing::AssertionResult restores(void *codec, const std::string &frame, const std::string &text, int room = 1)
    {
        if (unpack(codec, frame, room) == 0 && out.bytes() == text)
            return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << "detail " << err << ", " << out.s.len << " of " << text.size();
    }
    std::string lzma_frame(const std::string &bytes) { EXPECT_EQ(pack(lzma, bytes), 0); return packed.bytes(); }
};

TEST_F(Compression, HandleArgumentsAreRefusedWithDetail2ForHandlesAndDestinationsAnd3ForTypesAndSources)
{
    void *h = nullptr, *open = lzma;
    int type = ZEL_COMPRESS_LZMA;
    EXPECT_RESULT(zel_compress_open(nullptr, &type, &err), 0, 2);
    EXPECT_RESULT(zel_compress_open(&open, &type, &err), 0, 2);
    EXPECT_RESULT(zel_compress_open(&h, nullptr, &err), 0, 3);
    for (int bad : {1, 0, 4, -2}) // and the handle stays free: the open below works
        EXPECT_RESULT(zel_compress_open(&h, &bad, &err), 0, 3);
    type = ZEL_COMPRESS_BLOCK;
    EXPECT_RESULT(zel_compress_open(&h, &type, &err), 1, 0);
    EXPECT_RESULT(zel_compress_close(&h, &err), 1, 0);
    EXPECT_EQ(h, nullptr); // closing clears the caller's variable
    EXPECT_TRUE(zel_compress_open(&h, &type, nullptr) && zel_compress_close(&h, nullptr)); // no detail wanted
    EXPECT_RESULT(zel_compress_close(&h, &err), 0, 2);
    EXPECT_RESULT(zel_compress_close(nullptr, &err), 0, 2);

    exact(in, "abc");
    scratchcb none{}, empty{.len = 0, .size = 4, .alloc = 4, .data = in.s.data};
    for (auto op : {zel_compress, zel_decompress}) {
        EXPECT_RESULT(op(nullptr, &in.s, &out.s, &err), 0, 2);
        EXPECT_RESULT(op(lzma, &in.s, nullptr, &err), 0, 2);
        for (scratchcb *src : {static_cast<scratchcb *>(nullptr), &none, &empty})
            EXPECT_RESULT(op(block, src, &out.s, &err), 0, 3); // both codecs check sources alike
        EXPECT_EQ(op(block, &empty, &out.s, nullptr), 0); // a null detail pointer: the same answer, no detail
    }
    EXPECT_RESULT(zel_compressed_size(lzma, &in.s, nullptr, &err), 0, 2);
    EXPECT_RESULT(zel_compressed_size(lzma, &empty, &size, &err), 0, 3);
    EXPECT_RESULT(zel_compressed_size(block, &in.s, &size, &err), 0, 2); // blocks carry no length
}

TEST_F(Compression, LzmaFrameHoldsPropertiesThenLittleEndianLengthThenAStreamWithoutEndMarker)
{
    const std::string text = field_text(200000), frame = lzma_frame(text);
    ASSERT_GT(frame.size(), 13u);
    EXPECT_EQ(uint8_t(frame[0]), (2 * 5 + 0) * 9 + 3); // pb 2, lp 0, lc 3: the SDK's defaults
    EXPECT_EQ(frame.substr(5, 8), std::string("\x40\x0D\x03\0\0\0\0\0", 8)); // 200000, little-endian
    EXPECT_RESULT(zel_compressed_size(lzma, &packed.s, &size, &err), 1, 0);
    EXPECT_EQ(size, 200000u);
    // An exact-length decode by the SDK itself ends on the last stream byte
    // without meeting an end marker.
    ISzAlloc heap = {[](void *, size_t n) { return std::malloc(n); }, [](void *, void *p) { std::free(p); }};
    std::string back(text.size(), '\0');
    SizeT back_len = back.size(), stream_len = frame.size() - 13;
    ELzmaStatus status;
    auto *raw = reinterpret_cast<const Byte *>(frame.data());
    EXPECT_EQ(LzmaDecode(reinterpret_cast<Byte *>(back.data()), &back_len, raw + 13, &stream_len, raw, 5,
                         LZMA_FINISH_END, &status, &heap), SZ_OK);
    EXPECT_TRUE(status == LZMA_STATUS_MAYBE_FINISHED_WITHOUT_MARK && stream_len == frame.size() - 13 && back == text);
    EXPECT_TRUE(restores(lzma, frame, text));
}

TEST_F(Compression, LzmaRefusesWhatDoesNotShrinkByTheHeaderAndNeverOverrunsTheDestination)
{
    for (size_t n : {1u, 13u, 14u, 5000u}) // too short to pay for the header, or noise
        EXPECT_EQ(pack(lzma, draw(n)), 4) << n;
    EXPECT_GT(packed.s.len, 0); // the encoder's output count when it gave up
    const std::string text = field_text(5000);
    EXPECT_EQ(pack(lzma, text, 20), 4);
    EXPECT_EQ(pack(lzma, text, 5000), 0);
    EXPECT_EQ(zel_compress(lzma, &in.s, &packed.s, nullptr), 1); // a null detail pointer: the same answer
}

TEST_F(Compression, LzmaFrameRoundTripsAcrossEvery64KiBStepAndGrowsTheDestinationToExactlyTheLength)
{
    const std::string noisy = draw(300000, 12), noisy_frame = lzma_frame(noisy); // a stream of several steps
    EXPECT_GT(noisy_frame.size(), 2u * ZEL_LZMA_CHUNK);
    EXPECT_TRUE(restores(lzma, noisy_frame, noisy));
    for (size_t n : {120u, 1000u, 65535u, 65536u, 65537u, 131072u, 131073u}) {
        const std::string text = field_text(n);
        EXPECT_TRUE(restores(lzma, lzma_frame(text), text)) << n;
        EXPECT_EQ(out.s.alloc, int(n)); // grown step by step to the exact length
    }
    std::string huge_window = lzma_frame(field_text(5000)); // names a 4 GiB dictionary
    huge_window.replace(1, 4, "\xFF\xFF\xFF\xFF");
    EXPECT_TRUE(restores(lzma, huge_window, field_text(5000))); // the window follows the length
    scratchcb bare{}; // a destination without any buffer yet
    exact(in, lzma_frame(field_text(70000)));
    EXPECT_RESULT(zel_decompress(lzma, &in.s, &bare, &err), 1, 0);
    EXPECT_TRUE(bare.len == 70000 && std::string(bare.data, 70000) == field_text(70000));
    EXPECT_TRUE(zel_decompress(lzma, &in.s, &out.s, nullptr) && out.bytes() == field_text(70000)); // no detail
    punset_buffer_size(&bare, &err);
}

TEST_F(Compression, LzmaCorruptFrameEveryFaultGivesItsDetailAndNoWriteOutsideABuffer)
{
    const std::string text = field_text(100000), frame = lzma_frame(text);
    auto with_length = [&](uint64_t length) {
        std::string f = frame;
        for (int i = 0; i < 8; ++i)
            f[5 + i] = char(length >> (8 * i));
        return f;
    };
    std::string bad_props = frame, bad_stream = frame;
    bad_props[0] = char(225); // lc, lp, pb out of range
    bad_stream[13] = 1;       // a stream's first byte is always 0
    const std::vector<std::pair<std::string, int>> faults = {
        {bad_props, 6}, {bad_stream, 7}, {frame + "junk", 7},
        {frame.substr(0, 12), 8}, {frame.substr(0, 13), 8},                             // no room for a stream
        {frame.substr(0, frame.size() - 1), 8}, {frame.substr(0, frame.size() / 2), 8}, // the stream is cut
        {with_length(text.size() + 1), 8}, {with_length(text.size() + 200000), 8},      // a length too large
        {with_length(text.size() - 1), 7}, {with_length(text.size() / 2), 7},           // too small: it goes on
        {with_length(uint64_t(INT32_MAX) + 1), 7}, {with_length(~0ull), 7}};            // none fits a buffer
    for (size_t i = 0; i < faults.size(); ++i)
        EXPECT_EQ(unpack(lzma, faults[i].first), faults[i].second) << "fault " << i;
    exact(in, frame.substr(0, 12));
    EXPECT_RESULT(zel_compressed_size(lzma, &in.s, &size, &err), 0, 8);
    exact(in, with_length(~0ull));
    EXPECT_RESULT(zel_compressed_size(lzma, &in.s, &size, &err), 1, 0);
    EXPECT_EQ(size, ~0ull); // answered as declared, without decoding
}

TEST_F(Compression, BlockCodecRoundTripsIntoARoomyDestinationAndFailsWith4WhenThereIsNoRoom)
{
    for (const std::string &bytes : {std::string("x"), field_text(100), field_text(200000), draw(70000)}) {
        const int n = int(bytes.size()), bound = n + n / 255 + 16;
        ASSERT_EQ(pack(block, bytes, bound), 0) << n;
        const std::string compressed = packed.bytes();
        EXPECT_TRUE(restores(block, compressed, bytes, n)) << n;
        EXPECT_EQ(unpack(block, compressed, std::max(n - 1, 1)), n > 1 ? 4 : 0) << n; // one byte short
    }
    EXPECT_EQ(pack(block, draw(1000), 999), 4); // noise grows
    EXPECT_EQ(packed.s.len, 0);
    EXPECT_EQ(unpack(block, "\xF0", 64), 4); // promises 15 literals, holds none
    EXPECT_EQ(out.s.len, 0);
}

} // namespace
