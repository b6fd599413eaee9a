// Encoding of messages and values into frames.
#include "wire.h"

#include <wz/detail/decode.h>

#include <msgpack.hpp>

#include <cstring>
#include <limits>

namespace wz {
namespace detail {

// ---- encoding -----------------------------------------------------------------

namespace {

using Packer = msgpack::packer<FrameBuffer>;

template<typename Stream>
void packMeta(msgpack::packer<Stream> &pk, const MetaObject &meta)
{
    pk.pack_array(4);
    pk.pack(meta.name());
    pk.pack_array(static_cast<uint32_t>(meta.methods().size()));
    for (const MetaMethod &m : meta.methods()) {
        pk.pack_array(3);
        pk.pack_uint32(m.uid);
        pk.pack(m.name);
        pk.pack_uint32(m.arity);
    }
    pk.pack_array(static_cast<uint32_t>(meta.signals().size()));
    for (const MetaSignal &s : meta.signals()) {
        pk.pack_array(3);
        pk.pack_uint32(s.uid);
        pk.pack(s.name);
        pk.pack_uint32(s.arity);
    }
    pk.pack_array(static_cast<uint32_t>(meta.properties().size()));
    for (const MetaProperty &p : meta.properties()) {
        pk.pack_array(2);
        pk.pack_uint32(p.uid);
        pk.pack(p.name);
    }
}

void checkLength(size_t size)
{
    if (size > std::numeric_limits<uint32_t>::max())
        throw std::length_error("value of " + std::to_string(size) + " bytes is too large to send");
}

// Always a float64: the library's pack_double writes integral doubles as
// integers, which would turn a Float into an Int on the other side.
template<typename Stream>
void packFloat64(Stream &out, double d)
{
    uint64_t bits;
    std::memcpy(&bits, &d, sizeof bits);
    char buf[9];
    buf[0] = static_cast<char>(0xcbu);
    for (int i = 0; i < 8; ++i)
        buf[1 + i] = static_cast<char>(bits >> (56 - 8 * i));
    out.write(buf, sizeof buf);
}

template<typename Stream>
void packValue(msgpack::packer<Stream> &pk, Stream &out, const AnyValue &v, ObjectCodec *codec,
               FrameBuffer *frame)
{
    switch (v.kind()) {
    case AnyValue::Kind::Invalid:
        pk.pack_nil();
        break;
    case AnyValue::Kind::Bool:
        if (v.toBool())
            pk.pack_true();
        else
            pk.pack_false();
        break;
    case AnyValue::Kind::Int:
        pk.pack_int64(v.toInt());
        break;
    case AnyValue::Kind::Float:
        packFloat64(out, v.toDouble());
        break;
    case AnyValue::Kind::String: {
        const std::string &s = v.toStr();
        checkLength(s.size());
        pk.pack_str(static_cast<uint32_t>(s.size()));
        pk.pack_str_body(s.data(), static_cast<uint32_t>(s.size()));
        break;
    }
    case AnyValue::Kind::Binary: {
        const Buffer &b = v.toBinary();
        checkLength(b.size());
        pk.pack_bin(static_cast<uint32_t>(b.size()));
        // Large binary values are written by reference: keep them alive with the frame.
        if (frame && b.size() >= FrameBuffer::kReferenceThreshold)
            frame->keep(b);
        pk.pack_bin_body(b.data(), static_cast<uint32_t>(b.size()));
        break;
    }
    case AnyValue::Kind::List: {
        const AnyValue::List &l = v.toList();
        checkLength(l.size());
        pk.pack_array(static_cast<uint32_t>(l.size()));
        for (const AnyValue &e : l)
            packValue(pk, out, e, codec, frame);
        break;
    }
    case AnyValue::Kind::Map: {
        const AnyValue::Map &m = v.toMap();
        checkLength(m.size());
        pk.pack_map(static_cast<uint32_t>(m.size()));
        for (const auto &e : m) {
            checkLength(e.first.size());
            pk.pack_str(static_cast<uint32_t>(e.first.size()));
            pk.pack_str_body(e.first.data(), static_cast<uint32_t>(e.first.size()));
            packValue(pk, out, e.second, codec, frame);
        }
        break;
    }
    case AnyValue::Kind::Object: {
        if (!codec)
            throw std::invalid_argument("an object reference cannot be sent here");
        const boost::shared_ptr<GenericObject> &obj = v.toGenericObject();
        msgpack::sbuffer payload;
        msgpack::packer<msgpack::sbuffer> ppk(payload);
        uint64_t id = 0;
        int8_t type;
        if (codec->peerObjectId(*obj, id)) {
            ppk.pack_uint64(id);
            type = kExtReceiverObject;
        } else {
            id = codec->exportObject(obj);
            ppk.pack_array(2);
            ppk.pack_uint64(id);
            packMeta(ppk, obj->metaObject());
            type = kExtSenderObject;
        }
        pk.pack_ext(payload.size(), type);
        pk.pack_ext_body(payload.data(), static_cast<uint32_t>(payload.size()));
        break;
    }
    }
}

void packArgs(Packer &pk, FrameBuffer &out, const std::vector<AnyValue> &args, ObjectCodec *codec,
              FrameBuffer *frame)
{
    checkLength(args.size());
    pk.pack_array(static_cast<uint32_t>(args.size()));
    for (const AnyValue &a : args)
        packValue(pk, out, a, codec, frame);
}

} // namespace

void encodeMessage(const Message &msg, ObjectCodec *codec, FrameBuffer &out)
{
    Packer pk(out);
    auto head = [&](uint32_t n) {
        pk.pack_array(n);
        pk.pack_uint8(static_cast<uint8_t>(msg.kind));
        pk.pack_uint64(msg.id);
    };
    switch (msg.kind) {
    case MsgKind::Call:
    case MsgKind::Post:
        head(5);
        pk.pack_uint64(msg.object);
        pk.pack(msg.name);
        packArgs(pk, out, msg.args, codec, &out);
        break;
    case MsgKind::Reply:
        head(3);
        packValue(pk, out, msg.value, codec, &out);
        break;
    case MsgKind::Error:
    case MsgKind::ServiceLookup:
    case MsgKind::Goodbye:
        head(3);
        pk.pack(msg.name);
        break;
    case MsgKind::Cancel:
    case MsgKind::ServicesList:
    case MsgKind::Heartbeat:
        head(2);
        break;
    case MsgKind::Subscribe:
        head(5);
        pk.pack_uint64(msg.object);
        pk.pack(msg.name);
        pk.pack_uint64(msg.link);
        break;
    case MsgKind::Unsubscribe:
    case MsgKind::Release:
        head(4);
        pk.pack_uint64(msg.object);
        pk.pack_uint64(msg.link);
        break;
    case MsgKind::Emit:
        head(4);
        pk.pack_uint64(msg.link);
        packArgs(pk, out, msg.args, codec, &out);
        break;
    case MsgKind::PropertyGet:
        head(4);
        pk.pack_uint64(msg.object);
        pk.pack(msg.name);
        break;
    case MsgKind::PropertySet:
        head(5);
        pk.pack_uint64(msg.object);
        pk.pack(msg.name);
        packValue(pk, out, msg.value, codec, &out);
        break;
    case MsgKind::MetaObject:
        head(3);
        pk.pack_uint64(msg.object);
        break;
    case MsgKind::Register:
        head(4);
        pk.pack(msg.name);
        packValue(pk, out, msg.value, codec, &out);
        break;
    case MsgKind::Unregister:
        head(3);
        pk.pack_uint64(msg.link);
        break;
    }
    out.finish();
}

std::string encodeValueForTest(const AnyValue &value)
{
    FrameBuffer fb;
    msgpack::packer<FrameBuffer> pk(fb);
    PlaceholderCodec codec;
    packValue(pk, fb, value, &codec, nullptr);
    return fb.copyFrom(kHeaderSize);
}

} // namespace detail
} // namespace wz
