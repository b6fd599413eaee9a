#pragma once

// The camera's pixel conversion, YUV 4:2:2 to 32-bit BGRA, in integers.
// Internal to the library: the executer calls it, tests and benchmarks reach
// it through the internal archive. Pure functions: any thread may call them.

#include <cstddef>

namespace RK {

// One step of the conversion: -1 above 255 (255 once stored in a byte), 0
// below 0, the value otherwise.
int xKlip(int value);

// Converts `pixelPairs` groups Y0 U Y1 V at `in` to 8 bytes B G R A each at
// `out`, with the fastest kernel this processor runs. The two ranges must not
// overlap; neither needs any alignment.
void convertYuv422ToBgra(const unsigned char *in, unsigned char *out, std::size_t pixelPairs);

namespace yuv {

// Every kernel gives the same bytes as Reference, the plain loop that states
// the formula and converts whatever the vector kernels leave over.
enum class Kernel { Reference, Sse2, Ssse3, Avx2 };

constexpr Kernel k_allKernels[] = {Kernel::Reference, Kernel::Sse2, Kernel::Ssse3, Kernel::Avx2};

const char *kernelName(Kernel kernel);

// Whether this processor (and this build) runs `kernel`.
bool isSupported(Kernel kernel);

// The kernel convertYuv422ToBgra uses: the widest one supported.
Kernel bestKernel();

// Converts with `kernel`, which must be supported.
void convert(Kernel kernel, const unsigned char *in, unsigned char *out, std::size_t pixelPairs);

} // namespace yuv

} // namespace RK
