// The camera's YUV 4:2:2 to BGRA conversion: the formula on known pixels, and
// every vector kernel this processor runs against the plain reference.

#include "yuv_to_bgra_p.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <random>
#include <vector>

namespace {

using RK::yuv::Kernel;
using Bgra = std::array<int, 4>;

std::vector<Kernel> supportedKernels()
{
    std::vector<Kernel> kernels;
    for (Kernel k : RK::yuv::k_allKernels) {
        if (RK::yuv::isSupported(k))
            kernels.push_back(k);
    }
    return kernels;
}

Bgra convertOne(int y, int u, int v)
{
    const unsigned char in[4] = {static_cast<unsigned char>(y), static_cast<unsigned char>(u),
                                 static_cast<unsigned char>(y), static_cast<unsigned char>(v)};
    unsigned char out[8] = {};
    RK::yuv::convert(Kernel::Reference, in, out, 1);
    return {out[0], out[1], out[2], out[3]};
}

TEST(YuvToBgra, KnownVectors)
{
    // Clipping at both ends.
    EXPECT_EQ(convertOne(255, 128, 128), (Bgra {255, 255, 255, 255}));
    EXPECT_EQ(convertOne(0, 128, 128), (Bgra {0, 0, 0, 255}));
    // No rounding term: 298 * 4 / 256 = 4.66 gives 4.
    EXPECT_EQ(convertOne(20, 128, 128), (Bgra {4, 4, 4, 255}));
    // The weights: blue 517 on U, green -208 on U and -100 on V, red 409 on V.
    EXPECT_EQ(convertOne(100, 90, 200), (Bgra {21, 100, 212, 255}));
    EXPECT_EQ(convertOne(150, 200, 60), (Bgra {255, 124, 47, 255}));
    // Arithmetic shift of a negative sum.
    EXPECT_EQ(convertOne(16, 0, 128), (Bgra {0, 104, 0, 255}));

    EXPECT_EQ(RK::xKlip(256), -1);
    EXPECT_EQ(RK::xKlip(255), 255);
    EXPECT_EQ(RK::xKlip(0), 0);
    EXPECT_EQ(RK::xKlip(-1), 0);

    // The two pixels of a pair share U and V but not Y.
    const unsigned char pair[4] = {255, 128, 0, 128};
    unsigned char out[8] = {};
    RK::yuv::convert(Kernel::Reference, pair, out, 1);
    EXPECT_EQ(out[0], 255);
    EXPECT_EQ(out[4], 0);
}

TEST(YuvToBgra, TheDispatchedKernelIsTheWidestSupported)
{
    const Kernel best = RK::yuv::bestKernel();
    EXPECT_TRUE(RK::yuv::isSupported(best));
    EXPECT_EQ(best, supportedKernels().back()) << RK::yuv::kernelName(best);
#if defined(__x86_64__)
    // Every x86-64 processor has SSE2: the reference alone would mean the
    // dispatch is broken, not that the machine is old.
    EXPECT_NE(best, Kernel::Reference);
#endif
}

// Every (Y, U, V) once in the first pixel of a pair and once in the second:
// 2^24 pairs, converted 65536 at a time. A sanitized build, here for memory
// faults the random images find at every size, takes every fifth Y (0 and
// 255 among them) and keeps under its time limit.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int k_yStep = 5;
#else
constexpr int k_yStep = 1;
#endif

TEST(YuvToBgra, EveryInputMatchesTheReference)
{
    constexpr std::size_t pairs = 256 * 256;
    std::vector<unsigned char> in(pairs * 4);
    std::vector<unsigned char> expected(pairs * 8);
    std::vector<unsigned char> got(pairs * 8);
    for (int y = 0; y < 256; y += k_yStep) {
        std::size_t n = 0;
        for (int u = 0; u < 256; ++u) {
            for (int v = 0; v < 256; ++v) {
                in[n++] = static_cast<unsigned char>(y);
                in[n++] = static_cast<unsigned char>(u);
                in[n++] = static_cast<unsigned char>(255 - y);
                in[n++] = static_cast<unsigned char>(v);
            }
        }
        RK::yuv::convert(Kernel::Reference, in.data(), expected.data(), pairs);
        for (Kernel k : supportedKernels()) {
            std::fill(got.begin(), got.end(), 0);
            RK::yuv::convert(k, in.data(), got.data(), pairs);
            const auto [at, _] = std::mismatch(expected.begin(), expected.end(), got.begin());
            ASSERT_TRUE(at == expected.end())
                << RK::yuv::kernelName(k) << ": Y " << y << ", output byte "
                << (at - expected.begin()) << " is " << int(got[at - expected.begin()])
                << ", the formula gives " << int(*at);
        }
    }
}

// Random images at the camera's resolutions and at odd ones, at every
// misalignment of source and destination: the same bytes as the reference,
// and not one byte written past the last pair.
TEST(YuvToBgra, RandomImagesMatchTheReferenceAtEverySize)
{
    struct Size
    {
        int width;
        int height;
    };
    const Size sizes[]
        = {{160, 120}, {320, 240}, {640, 480}, {1280, 960}, {1, 1},     {2, 1},   {3, 1},   {15, 1},
           {17, 3},    {31, 7},    {33, 17},   {161, 121},  {639, 479}, {641, 3}, {1279, 5}};
    constexpr std::size_t guard = 64;
    constexpr unsigned char untouched = 0xA5;
    std::mt19937 random(20240611);
    for (const Size &size : sizes) {
        // An odd number of pixels leaves the last one out, as the executer does.
        const std::size_t pairs = std::size_t(size.width) * size.height / 2;
        std::vector<unsigned char> source(pairs * 4 + 3);
        for (unsigned char &b : source)
            b = static_cast<unsigned char>(random());
        for (std::size_t misalign = 0; misalign < 4; ++misalign) {
            const unsigned char *in = source.data() + misalign;
            std::vector<unsigned char> expected(pairs * 8 + guard, untouched);
            RK::yuv::convert(Kernel::Reference, in, expected.data(), pairs);
            for (Kernel k : supportedKernels()) {
                std::vector<unsigned char> got(pairs * 8 + guard + misalign, untouched);
                RK::yuv::convert(k, in, got.data() + misalign, pairs);
                ASSERT_EQ(std::memcmp(expected.data(), got.data() + misalign, expected.size()), 0)
                    << RK::yuv::kernelName(k) << " at " << size.width << "x" << size.height
                    << ", misaligned by " << misalign;
                for (std::size_t i = 0; i < misalign; ++i)
                    ASSERT_EQ(got[i], untouched) << "wrote before the start";
            }
        }
    }
    // The entry point the executer calls gives the same bytes.
    const std::size_t pairs = 640 * 480 / 2;
    std::vector<unsigned char> in(pairs * 4);
    for (unsigned char &b : in)
        b = static_cast<unsigned char>(random());
    std::vector<unsigned char> expected(pairs * 8);
    std::vector<unsigned char> got(pairs * 8);
    RK::yuv::convert(Kernel::Reference, in.data(), expected.data(), pairs);
    RK::convertYuv422ToBgra(in.data(), got.data(), pairs);
    EXPECT_EQ(expected, got);
}

} // namespace
