// Arbitrary bytes into the value decoder; whatever decodes must encode again
// and decode to the same value (compared by its encoding, so NaN is no trouble).

#include <wz/detail/decode.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    wz::AnyValue value;
    if (!wz::detail::checkValue(reinterpret_cast<const char *>(data), size, value).empty())
        return 0;
    // Object references decode to placeholders, which encode as maps.
    const std::string again = wz::detail::encodeValueForTest(value);
    wz::AnyValue back;
    if (!wz::detail::checkValue(again.data(), again.size(), back).empty()
        || wz::detail::encodeValueForTest(back) != again)
        std::abort();
    return 0;
}
