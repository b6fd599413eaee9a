#include "yuv_to_bgra_p.h"

#if defined(__x86_64__)
#    include <immintrin.h>
#    define NIMIOB_YUV_X86 1
#else
#    define NIMIOB_YUV_X86 0
#endif

namespace RK {

int xKlip(int value)
{
    if (value > 255)
        return -1;
    if (value < 0)
        return 0;
    return value;
}

namespace yuv {
namespace {

// The formula as written, one pair at a time. It is what every kernel is
// tested against, the whole conversion where no vector kernel runs, and the
// tail of an image that does not fill a vector.
void convertReference(const unsigned char *in, unsigned char *out, std::size_t pixelPairs)
{
    for (std::size_t i = 0; i < pixelPairs; ++i) {
        const unsigned char *p = in + 4 * i;
        unsigned char *o = out + 8 * i;
        const int d = p[1] - 128;
        const int e = p[3] - 128;
        const int c0 = 298 * (p[0] - 16);
        const int c1 = 298 * (p[2] - 16);
        o[0] = static_cast<unsigned char>(xKlip((c0 + 517 * d) >> 8));
        o[1] = static_cast<unsigned char>(xKlip((c0 - 208 * d - 100 * e) >> 8));
        o[2] = static_cast<unsigned char>(xKlip((c0 + 409 * e) >> 8));
        o[3] = 255;
        o[4] = static_cast<unsigned char>(xKlip((c1 + 517 * d) >> 8));
        o[5] = static_cast<unsigned char>(xKlip((c1 - 208 * d - 100 * e) >> 8));
        o[6] = static_cast<unsigned char>(xKlip((c1 + 409 * e) >> 8));
        o[7] = 255;
    }
}

#if NIMIOB_YUV_X86

// The vector kernels work in 16-bit lanes. With Y' = Y - 16, D = U - 128 and
// E = V - 128, each channel (298 Y' + wu D + wv E) >> 8 splits into a whole
// part and a small remainder: 298 = 256 + 42, 517 = 512 + 5, -208 = -256 + 48,
// 409 = 512 - 103. Taking a multiple of 256 out of a sum before the shift
// does not change the floor, so this is exact, and every term fits in 16
// bits. On the raw bytes, offsets folded into constants:
//   blue  = Y + 2U - 272 + ((42Y + 5U - 1312) >> 8)
//   green = Y - U + 112 + ((42Y + 48U - 100V + 5984) >> 8)
//   red   = Y + 2V - 272 + ((42Y - 103V + 12512) >> 8)
// The shifted sums stay within -19516..28934; the unsigned saturating pack
// to bytes is xKlip as stored in a byte.

// Two signed byte weights side by side, as the byte-pair multiply reads them.
constexpr short bytePair(int first, int second)
{
    return static_cast<short>(static_cast<unsigned short>((second & 0xff) << 8 | (first & 0xff)));
}

// The three channels of eight (SSE) or sixteen (AVX2) pixels, 16 bits each.
struct Channels128
{
    __m128i blue;
    __m128i green;
    __m128i red;
};

struct Channels256
{
    __m256i blue;
    __m256i green;
    __m256i red;
};

// Packs sixteen pixels' channels to bytes and writes them interleaved with
// an opaque alpha: 64 bytes.
inline void storeBgra(unsigned char *out, const Channels128 &first, const Channels128 &second)
{
    const __m128i b = _mm_packus_epi16(first.blue, second.blue);
    const __m128i g = _mm_packus_epi16(first.green, second.green);
    const __m128i r = _mm_packus_epi16(first.red, second.red);
    const __m128i a = _mm_set1_epi8(-1);
    const __m128i bgLow = _mm_unpacklo_epi8(b, g);
    const __m128i bgHigh = _mm_unpackhi_epi8(b, g);
    const __m128i raLow = _mm_unpacklo_epi8(r, a);
    const __m128i raHigh = _mm_unpackhi_epi8(r, a);
    auto *o = reinterpret_cast<__m128i *>(out);
    _mm_storeu_si128(o, _mm_unpacklo_epi16(bgLow, raLow));
    _mm_storeu_si128(o + 1, _mm_unpackhi_epi16(bgLow, raLow));
    _mm_storeu_si128(o + 2, _mm_unpacklo_epi16(bgHigh, raHigh));
    _mm_storeu_si128(o + 3, _mm_unpackhi_epi16(bgHigh, raHigh));
}

// SSE2 has no byte shuffle: Y, U and V are masked and shifted into 16-bit
// lanes, U and V copied to both pixels of their pair.
inline Channels128 channelsSse2(__m128i in)
{
    const __m128i y = _mm_and_si128(in, _mm_set1_epi16(0x00ff));
    const __m128i chroma = _mm_srli_epi16(in, 8); // U V U V ...
    __m128i u = _mm_and_si128(chroma, _mm_set1_epi32(0xffff));
    u = _mm_or_si128(u, _mm_slli_epi32(u, 16));
    __m128i v = _mm_srli_epi32(chroma, 16);
    v = _mm_or_si128(v, _mm_slli_epi32(v, 16));
    const __m128i luma42 = _mm_mullo_epi16(y, _mm_set1_epi16(42));

    const __m128i blueSmall
        = _mm_add_epi16(_mm_mullo_epi16(u, _mm_set1_epi16(5)), _mm_set1_epi16(-1312));
    const __m128i greenSmall
        = _mm_add_epi16(_mm_add_epi16(_mm_mullo_epi16(u, _mm_set1_epi16(48)),
                                      _mm_mullo_epi16(v, _mm_set1_epi16(-100))),
                        _mm_set1_epi16(5984));
    const __m128i redSmall
        = _mm_add_epi16(_mm_mullo_epi16(v, _mm_set1_epi16(-103)), _mm_set1_epi16(12512));
    const __m128i blueWhole = _mm_add_epi16(_mm_add_epi16(u, u), _mm_set1_epi16(-272));
    const __m128i greenWhole = _mm_sub_epi16(_mm_set1_epi16(112), u);
    const __m128i redWhole = _mm_add_epi16(_mm_add_epi16(v, v), _mm_set1_epi16(-272));

    Channels128 c;
    c.blue = _mm_add_epi16(_mm_add_epi16(y, blueWhole),
                           _mm_srai_epi16(_mm_add_epi16(luma42, blueSmall), 8));
    c.green = _mm_add_epi16(_mm_add_epi16(y, greenWhole),
                            _mm_srai_epi16(_mm_add_epi16(luma42, greenSmall), 8));
    c.red = _mm_add_epi16(_mm_add_epi16(y, redWhole),
                          _mm_srai_epi16(_mm_add_epi16(luma42, redSmall), 8));
    return c;
}

void convertSse2(const unsigned char *in, unsigned char *out, std::size_t pixelPairs)
{
    const std::size_t blocks = pixelPairs / 8;
    for (std::size_t i = 0; i < blocks; ++i, in += 32, out += 64) {
        const __m128i first = _mm_loadu_si128(reinterpret_cast<const __m128i *>(in));
        const __m128i second = _mm_loadu_si128(reinterpret_cast<const __m128i *>(in + 16));
        storeBgra(out, channelsSse2(first), channelsSse2(second));
    }
    convertReference(in, out, pixelPairs % 8);
}

// SSSE3 shuffles each pixel's Y beside its pair's U (or V), and one byte-pair
// multiply-add gives a whole weighted sum per pixel.
// Lambdas would not inherit the target, so the helpers are functions of their own.
__attribute__((target("ssse3"))) inline __m128i weigh(__m128i bytes, int first, int second)
{
    return _mm_maddubs_epi16(bytes, _mm_set1_epi16(bytePair(first, second)));
}

inline __m128i plus(__m128i value, short constant)
{
    return _mm_add_epi16(value, _mm_set1_epi16(constant));
}

__attribute__((target("ssse3"))) inline Channels128 channelsSsse3(__m128i in)
{
    const __m128i yu
        = _mm_shuffle_epi8(in, _mm_setr_epi8(0, 1, 2, 1, 4, 5, 6, 5, 8, 9, 10, 9, 12, 13, 14, 13));
    const __m128i yv = _mm_shuffle_epi8(
        in, _mm_setr_epi8(0, 3, 2, 3, 4, 7, 6, 7, 8, 11, 10, 11, 12, 15, 14, 15));
    Channels128 c;
    c.blue = _mm_add_epi16(plus(weigh(yu, 1, 2), -272),
                           _mm_srai_epi16(plus(weigh(yu, 42, 5), -1312), 8));
    c.green = _mm_add_epi16(
        plus(weigh(yu, 1, -1), 112),
        _mm_srai_epi16(plus(_mm_add_epi16(weigh(yu, 42, 48), weigh(yv, 0, -100)), 5984), 8));
    c.red = _mm_add_epi16(plus(weigh(yv, 1, 2), -272),
                          _mm_srai_epi16(plus(weigh(yv, 42, -103), 12512), 8));
    return c;
}

__attribute__((target("ssse3"))) void convertSsse3(const unsigned char *in, unsigned char *out,
                                                   std::size_t pixelPairs)
{
    const std::size_t blocks = pixelPairs / 8;
    for (std::size_t i = 0; i < blocks; ++i, in += 32, out += 64) {
        const __m128i first = _mm_loadu_si128(reinterpret_cast<const __m128i *>(in));
        const __m128i second = _mm_loadu_si128(reinterpret_cast<const __m128i *>(in + 16));
        storeBgra(out, channelsSsse3(first), channelsSsse3(second));
    }
    convertReference(in, out, pixelPairs % 8);
}

// The SSSE3 kernel at twice the width. AVX2 shuffles, packs and unpacks
// within each 128-bit half, so the halves are put back in order at the end.
__attribute__((target("avx2"))) inline __m256i weigh(__m256i bytes, int first, int second)
{
    return _mm256_maddubs_epi16(bytes, _mm256_set1_epi16(bytePair(first, second)));
}

__attribute__((target("avx2"))) inline __m256i plus(__m256i value, short constant)
{
    return _mm256_add_epi16(value, _mm256_set1_epi16(constant));
}

__attribute__((target("avx2"))) inline Channels256 channelsAvx2(__m256i in)
{
    const __m256i yu = _mm256_shuffle_epi8(in,
                                           _mm256_setr_epi8(0, 1, 2, 1, 4, 5, 6, 5, 8, 9, 10, 9, 12,
                                                            13, 14, 13, 0, 1, 2, 1, 4, 5, 6, 5, 8,
                                                            9, 10, 9, 12, 13, 14, 13));
    const __m256i yv = _mm256_shuffle_epi8(in,
                                           _mm256_setr_epi8(0, 3, 2, 3, 4, 7, 6, 7, 8, 11, 10, 11,
                                                            12, 15, 14, 15, 0, 3, 2, 3, 4, 7, 6, 7,
                                                            8, 11, 10, 11, 12, 15, 14, 15));
    Channels256 c;
    c.blue = _mm256_add_epi16(plus(weigh(yu, 1, 2), -272),
                              _mm256_srai_epi16(plus(weigh(yu, 42, 5), -1312), 8));
    c.green = _mm256_add_epi16(
        plus(weigh(yu, 1, -1), 112),
        _mm256_srai_epi16(plus(_mm256_add_epi16(weigh(yu, 42, 48), weigh(yv, 0, -100)), 5984), 8));
    c.red = _mm256_add_epi16(plus(weigh(yv, 1, 2), -272),
                             _mm256_srai_epi16(plus(weigh(yv, 42, -103), 12512), 8));
    return c;
}

__attribute__((target("avx2"))) void convertAvx2(const unsigned char *in, unsigned char *out,
                                                 std::size_t pixelPairs)
{
    const std::size_t blocks = pixelPairs / 16;
    const __m256i a = _mm256_set1_epi8(-1);
    for (std::size_t i = 0; i < blocks; ++i, in += 64, out += 128) {
        // Pixels 0-7 | 8-15 and 16-23 | 24-31, one group per 128-bit half.
        const Channels256 first
            = channelsAvx2(_mm256_loadu_si256(reinterpret_cast<const __m256i *>(in)));
        const Channels256 second
            = channelsAvx2(_mm256_loadu_si256(reinterpret_cast<const __m256i *>(in + 32)));
        // Halves: pixels 0-7, 16-23 | 8-15, 24-31.
        const __m256i b = _mm256_packus_epi16(first.blue, second.blue);
        const __m256i g = _mm256_packus_epi16(first.green, second.green);
        const __m256i r = _mm256_packus_epi16(first.red, second.red);
        // 0-7 | 8-15 and 16-23 | 24-31 again.
        const __m256i bgLow = _mm256_unpacklo_epi8(b, g);
        const __m256i bgHigh = _mm256_unpackhi_epi8(b, g);
        const __m256i raLow = _mm256_unpacklo_epi8(r, a);
        const __m256i raHigh = _mm256_unpackhi_epi8(r, a);
        const __m256i q0 = _mm256_unpacklo_epi16(bgLow, raLow); // 0-3 | 8-11
        const __m256i q1 = _mm256_unpackhi_epi16(bgLow, raLow); // 4-7 | 12-15
        const __m256i q2 = _mm256_unpacklo_epi16(bgHigh, raHigh); // 16-19 | 24-27
        const __m256i q3 = _mm256_unpackhi_epi16(bgHigh, raHigh); // 20-23 | 28-31
        auto *o = reinterpret_cast<__m256i *>(out);
        _mm256_storeu_si256(o, _mm256_permute2x128_si256(q0, q1, 0x20));
        _mm256_storeu_si256(o + 1, _mm256_permute2x128_si256(q0, q1, 0x31));
        _mm256_storeu_si256(o + 2, _mm256_permute2x128_si256(q2, q3, 0x20));
        _mm256_storeu_si256(o + 3, _mm256_permute2x128_si256(q2, q3, 0x31));
    }
    convertSsse3(in, out, pixelPairs % 16);
}

#endif // NIMIOB_YUV_X86

} // namespace

const char *kernelName(Kernel kernel)
{
    switch (kernel) {
    case Kernel::Reference:
        return "reference";
    case Kernel::Sse2:
        return "sse2";
    case Kernel::Ssse3:
        return "ssse3";
    case Kernel::Avx2:
        return "avx2";
    }
    return "unknown";
}

bool isSupported(Kernel kernel)
{
#if NIMIOB_YUV_X86
    __builtin_cpu_init();
    switch (kernel) {
    case Kernel::Reference:
    case Kernel::Sse2:
        return true;
    case Kernel::Ssse3:
        return __builtin_cpu_supports("ssse3");
    case Kernel::Avx2:
        return __builtin_cpu_supports("avx2");
    }
    return false;
#else
    return kernel == Kernel::Reference;
#endif
}

Kernel bestKernel()
{
    static const Kernel best = [] {
        const Kernel widestFirst[] = {Kernel::Avx2, Kernel::Ssse3, Kernel::Sse2};
        for (Kernel k : widestFirst) {
            if (isSupported(k))
                return k;
        }
        return Kernel::Reference;
    }();
    return best;
}

void convert(Kernel kernel, const unsigned char *in, unsigned char *out, std::size_t pixelPairs)
{
    switch (kernel) {
#if NIMIOB_YUV_X86
    case Kernel::Sse2:
        convertSse2(in, out, pixelPairs);
        return;
    case Kernel::Ssse3:
        convertSsse3(in, out, pixelPairs);
        return;
    case Kernel::Avx2:
        convertAvx2(in, out, pixelPairs);
        return;
#endif
    default:
        convertReference(in, out, pixelPairs);
        return;
    }
}

} // namespace yuv

void convertYuv422ToBgra(const unsigned char *in, unsigned char *out, std::size_t pixelPairs)
{
    yuv::convert(yuv::bestKernel(), in, out, pixelPairs);
}

} // namespace RK
