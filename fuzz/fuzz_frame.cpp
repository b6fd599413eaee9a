// Arbitrary bytes into the frame decoder, as a connection would see them:
// header, limits, MessagePack body, message shape, object references.

#include <wz/detail/decode.h>

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    wz::detail::checkFrame(reinterpret_cast<const char *>(data), size);
    // The same bytes as a body behind a well-formed header.
    if (size > 0 && size < 65536) {
        const std::string framed
            = wz::detail::frameForTest(std::string(reinterpret_cast<const char *>(data), size));
        wz::detail::checkFrame(framed.data(), framed.size());
    }
    return 0;
}
