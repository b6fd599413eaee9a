#pragma once

// Entry points into the wire codec for fuzzing, codec tests and benchmarks,
// in the wz_wire archive they link (the shared library does not export them).

#include <wz/any_value.h>

#include <cstddef>
#include <string>

namespace wz {
namespace detail {

// Decodes one whole frame (header and body) as a connection would, with
// object references resolved to placeholders. Returns "" when the frame is a
// valid message, otherwise the reason it would be refused.
std::string checkFrame(const char *data, size_t size);

// Decodes one value (MessagePack bytes). Returns "" and sets `out` when
// valid, otherwise the reason.
std::string checkValue(const char *data, size_t size, AnyValue &out);

// Encodes a value (no object references) as MessagePack bytes.
std::string encodeValueForTest(const AnyValue &value);

// A frame around `body`: the header followed by the body bytes.
std::string frameForTest(const std::string &body);

} // namespace detail
} // namespace wz
