#pragma once

// The frame format and the message codec. Frames are an 8-byte header
// ("WZ", version, flags, then the body length as a big-endian uint32) and a
// MessagePack body: an array [kind, request id, fields...].

#include <wz/any_value.h>
#include <wz/object.h>

#include <sys/uio.h>

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace wz {
namespace detail {

constexpr size_t kHeaderSize = 8;
constexpr unsigned char kMagic0 = 'W';
constexpr unsigned char kMagic1 = 'Z';
constexpr unsigned char kVersion = 1;
constexpr size_t kMaxFrameSize = size_t(64) << 20;
constexpr unsigned kMaxDepth = 64;
constexpr size_t kMaxElements = size_t(1) << 20;

// Extension types carrying object references.
constexpr int8_t kExtSenderObject = 1; // [id, meta-object]: an object of the sender
constexpr int8_t kExtReceiverObject = 2; // id: an object of the receiver, handed back

enum class MsgKind : uint8_t {
    Call = 1, // [1, rid, object, method, args]
    Post = 2, // [2, 0, object, method, args]
    Reply = 3, // [3, rid, value]
    Error = 4, // [4, rid, text]
    Cancel = 5, // [5, rid]
    Subscribe = 6, // [6, rid, object, signal, link]   (link chosen by the subscriber)
    Unsubscribe = 7, // [7, rid, object, link]
    Emit = 8, // [8, 0, link, args]
    PropertyGet = 9, // [9, rid, object, name]
    PropertySet = 10, // [10, rid, object, name, value]
    MetaObject = 11, // [11, rid, object]
    ServiceLookup = 12, // [12, rid, name]
    ServicesList = 13, // [13, rid]
    Register = 14, // [14, rid, name, object]
    Unregister = 15, // [15, rid, service id]
    Heartbeat = 16, // [16, 0]
    Goodbye = 17, // [17, 0, reason]
    Release = 18, // [18, 0, object, count]
};

const char *msgKindName(MsgKind kind);

struct Message
{
    MsgKind kind = MsgKind::Heartbeat;
    uint64_t id = 0; // request id
    uint64_t object = 0; // target object id
    uint64_t link = 0; // subscription link, release count or service id
    std::string name; // method, signal, property, service, error text or reason
    std::vector<AnyValue> args;
    AnyValue value;
};

// Bytes that break the protocol; the connection that sent them is closed.
class ProtocolError : public std::runtime_error
{
public:
    explicit ProtocolError(const std::string &what) : std::runtime_error(what) { }
};

// How object references are written and read on one connection.
class ObjectCodec
{
public:
    virtual ~ObjectCodec() = default;
    // True (with the peer's id) when `obj` is a proxy of an object of the peer
    // on this very connection: it is handed back by reference.
    virtual bool peerObjectId(const GenericObject &obj, uint64_t &id) = 0;
    // A local object handed to the peer; returns the id it is known by.
    virtual uint64_t exportObject(const boost::shared_ptr<GenericObject> &obj) = 0;
    // A reference to an object of the peer.
    virtual AnyValue importObject(uint64_t id, MetaObject meta) = 0;
    // One of ours, handed back.
    virtual AnyValue ownObject(uint64_t id) = 0;
};

// An encoded frame: owned bytes plus references to large binary values that
// are written straight from the caller's memory (no copy on the fast path).
class FrameBuffer
{
public:
    FrameBuffer();
    void write(const char *data, size_t size);
    size_t size() const { return m_total; }
    // Fills the header; call once, after the body is complete.
    void finish();
    // The bytes from `offset` on, as scatter-gather pieces.
    std::vector<iovec> iovecs(size_t offset = 0) const;
    std::string copyFrom(size_t offset) const;
    // Keeps a referenced binary value alive as long as this frame.
    void keep(const Buffer &buffer) { m_keep.push_back(buffer); }

    static constexpr size_t kReferenceThreshold = 32 * 1024;

private:
    struct Segment
    {
        const char *ref; // null: owned bytes at `offset` in m_owned
        size_t offset;
        size_t size;
    };
    std::string m_owned;
    std::vector<Segment> m_segments;
    std::vector<Buffer> m_keep;
    size_t m_total = 0;
};

// Header -> body length; throws ProtocolError on a bad magic, version or size.
size_t parseHeader(const unsigned char *header);

// Encodes `msg` (the header included). `codec` may be null when no object
// reference can occur.
void encodeMessage(const Message &msg, ObjectCodec *codec, FrameBuffer &out);

// Decodes a frame body. Binary values alias `owner`'s memory. Throws
// ProtocolError.
Message decodeMessage(const std::shared_ptr<const void> &owner, const char *body, size_t size,
                      ObjectCodec *codec);

// Decodes one value filling exactly `size` bytes, with `depth` levels of
// nesting left. Throws ProtocolError.
AnyValue decodeValue(const std::shared_ptr<const void> &owner, const char *data, size_t size,
                     ObjectCodec *codec, unsigned depth = kMaxDepth);

// Resolves references to inert placeholders, as a connection with no objects would.
class PlaceholderCodec : public ObjectCodec
{
public:
    bool peerObjectId(const GenericObject &, uint64_t &) override { return false; }
    uint64_t exportObject(const boost::shared_ptr<GenericObject> &o) override
    {
        return o->objectUid();
    }
    AnyValue importObject(uint64_t id, MetaObject) override
    {
        return AnyValue(AnyValue::Map {{"object", AnyValue(static_cast<int64_t>(id))}});
    }
    AnyValue ownObject(uint64_t id) override { return importObject(id, MetaObject()); }
};

} // namespace detail
} // namespace wz
