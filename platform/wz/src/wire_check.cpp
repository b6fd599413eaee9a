// Entry points that check or build frames without a connection: the fuzz targets and tests use
// them.
#include "wire.h"

#include <wz/detail/decode.h>

namespace wz {
namespace detail {

// ---- test and fuzz entry points ---------------------------------------------------

std::string checkFrame(const char *data, size_t size)
{
    try {
        if (size < kHeaderSize)
            return "truncated header";
        const size_t body = parseHeader(reinterpret_cast<const unsigned char *>(data));
        if (size - kHeaderSize != body)
            return "frame announces " + std::to_string(body) + " bytes, has "
                + std::to_string(size - kHeaderSize);
        auto owned = std::make_shared<std::string>(data + kHeaderSize, body);
        PlaceholderCodec codec;
        decodeMessage(owned, owned->data(), owned->size(), &codec);
        return std::string();
    } catch (const ProtocolError &e) {
        return e.what();
    }
}

std::string checkValue(const char *data, size_t size, AnyValue &out)
{
    try {
        auto owned = std::make_shared<std::string>(data, size);
        PlaceholderCodec codec;
        out = decodeValue(owned, owned->data(), owned->size(), &codec);
        return std::string();
    } catch (const ProtocolError &e) {
        return e.what();
    }
}

std::string frameForTest(const std::string &body)
{
    FrameBuffer fb;
    fb.write(body.data(), body.size());
    fb.finish();
    return fb.copyFrom(0);
}

} // namespace detail
} // namespace wz
