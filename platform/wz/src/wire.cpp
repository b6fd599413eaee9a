// Message kinds, the frame buffer and the frame header.
#include "wire.h"

#include <wz/detail/decode.h>

#include <msgpack.hpp>

#include <cstring>
#include <limits>

namespace wz {
namespace detail {

const char *msgKindName(MsgKind kind)
{
    switch (kind) {
    case MsgKind::Call:
        return "call";
    case MsgKind::Post:
        return "post";
    case MsgKind::Reply:
        return "reply";
    case MsgKind::Error:
        return "error";
    case MsgKind::Cancel:
        return "cancel";
    case MsgKind::Subscribe:
        return "subscribe";
    case MsgKind::Unsubscribe:
        return "unsubscribe";
    case MsgKind::Emit:
        return "emit";
    case MsgKind::PropertyGet:
        return "property get";
    case MsgKind::PropertySet:
        return "property set";
    case MsgKind::MetaObject:
        return "meta-object";
    case MsgKind::ServiceLookup:
        return "service lookup";
    case MsgKind::ServicesList:
        return "services list";
    case MsgKind::Register:
        return "register";
    case MsgKind::Unregister:
        return "unregister";
    case MsgKind::Heartbeat:
        return "heartbeat";
    case MsgKind::Goodbye:
        return "goodbye";
    case MsgKind::Release:
        return "release";
    }
    return "?";
}

// ---- frame buffer ------------------------------------------------------------

FrameBuffer::FrameBuffer()
{
    m_owned.reserve(256);
    m_owned.append(kHeaderSize, '\0');
    m_segments.push_back(Segment {nullptr, 0, kHeaderSize});
    m_total = kHeaderSize;
}

void FrameBuffer::write(const char *data, size_t size)
{
    if (size == 0)
        return;
    m_total += size;
    if (size >= kReferenceThreshold) {
        m_segments.push_back(Segment {data, 0, size});
        return;
    }
    Segment &last = m_segments.back();
    if (!last.ref && last.offset + last.size == m_owned.size()) {
        last.size += size;
    } else {
        m_segments.push_back(Segment {nullptr, m_owned.size(), size});
    }
    m_owned.append(data, size);
}

void FrameBuffer::finish()
{
    const size_t body = m_total - kHeaderSize;
    if (body > kMaxFrameSize)
        throw std::length_error("message of " + std::to_string(body)
                                + " bytes exceeds the 64 MiB frame limit");
    unsigned char *h = reinterpret_cast<unsigned char *>(&m_owned[0]);
    h[0] = kMagic0;
    h[1] = kMagic1;
    h[2] = kVersion;
    h[3] = 0;
    h[4] = static_cast<unsigned char>(body >> 24);
    h[5] = static_cast<unsigned char>(body >> 16);
    h[6] = static_cast<unsigned char>(body >> 8);
    h[7] = static_cast<unsigned char>(body);
}

std::vector<iovec> FrameBuffer::iovecs(size_t offset) const
{
    std::vector<iovec> out;
    out.reserve(m_segments.size());
    size_t pos = 0;
    for (const Segment &s : m_segments) {
        const char *p = s.ref ? s.ref : m_owned.data() + s.offset;
        if (pos + s.size > offset) {
            const size_t skip = offset > pos ? offset - pos : 0;
            out.push_back(iovec {const_cast<char *>(p + skip), s.size - skip});
        }
        pos += s.size;
    }
    return out;
}

std::string FrameBuffer::copyFrom(size_t offset) const
{
    std::string out;
    out.reserve(m_total > offset ? m_total - offset : 0);
    size_t pos = 0;
    for (const Segment &s : m_segments) {
        const char *p = s.ref ? s.ref : m_owned.data() + s.offset;
        if (pos + s.size > offset) {
            const size_t skip = offset > pos ? offset - pos : 0;
            out.append(p + skip, s.size - skip);
        }
        pos += s.size;
    }
    return out;
}

size_t parseHeader(const unsigned char *h)
{
    if (h[0] != kMagic0 || h[1] != kMagic1)
        throw ProtocolError("not a frame (bad magic bytes)");
    if (h[2] != kVersion)
        throw ProtocolError("unsupported protocol version " + std::to_string(h[2]));
    const size_t size
        = (size_t(h[4]) << 24) | (size_t(h[5]) << 16) | (size_t(h[6]) << 8) | size_t(h[7]);
    if (size > kMaxFrameSize)
        throw ProtocolError("frame of " + std::to_string(size) + " bytes exceeds the 64 MiB limit");
    if (size == 0)
        throw ProtocolError("empty frame");
    return size;
}

} // namespace detail
} // namespace wz
