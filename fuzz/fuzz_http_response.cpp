// Fuzz target of the HTTP response reader: status line, headers, body length
// and directory listing, fed from raw bytes as they would come off a socket.
#include <cstddef>
#include <cstdint>

int nimiobFuzzHttpResponse(const unsigned char *data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    return nimiobFuzzHttpResponse(data, size);
}
