// Decoding of untrusted frames into messages and values, with limits checked first.
#include "wire.h"

#include <msgpack.hpp>

#include <cstring>
#include <limits>

namespace wz {
namespace detail {

// ---- decoding -----------------------------------------------------------------

namespace {

// First pass over untrusted bytes with the library's parser: nesting depth,
// and no container may announce more elements than there are bytes left
// (every element takes at least one byte), checked before anything is
// allocated for it.
class LimitVisitor : public msgpack::null_visitor
{
public:
    LimitVisitor(const char *data, size_t size, unsigned maxDepth)
        : m_data(data), m_size(size), m_maxDepth(maxDepth)
    { }

    bool visit_nil() { return scalar(); }
    bool visit_boolean(bool) { return scalar(); }
    bool visit_positive_integer(uint64_t) { return scalar(); }
    bool visit_negative_integer(int64_t) { return scalar(); }
    bool visit_float32(float) { return scalar(); }
    bool visit_float64(double) { return scalar(); }
    bool visit_str(const char *v, uint32_t size) { return bytes(v, size); }
    bool visit_bin(const char *v, uint32_t size) { return bytes(v, size); }
    bool visit_ext(const char *v, uint32_t size) { return bytes(v, size); }
    bool start_array(uint32_t n) { return open(n); }
    bool start_array_item() { return item(); }
    bool end_array() { return close(); }
    bool start_map(uint32_t n)
    {
        if (n > std::numeric_limits<uint32_t>::max() / 2)
            return fail("map of " + std::to_string(n) + " pairs");
        return open(uint64_t(n) * 2);
    }
    bool start_map_key() { return item(); }
    bool start_map_value() { return item(); }
    bool end_map() { return close(); }
    void parse_error(size_t, size_t offset)
    {
        if (m_error.empty())
            m_error = "malformed MessagePack at byte " + std::to_string(offset);
    }
    void insufficient_bytes(size_t, size_t offset)
    {
        if (m_error.empty())
            m_error = "truncated MessagePack at byte " + std::to_string(offset);
    }

    const std::string &error() const { return m_error; }
    uint64_t elements() const { return m_elements; }

private:
    bool fail(const std::string &why)
    {
        if (m_error.empty())
            m_error = why;
        return false;
    }
    bool scalar()
    {
        ++m_consumed;
        return true;
    }
    bool bytes(const char *v, uint32_t size)
    {
        const size_t end = (v ? static_cast<size_t>(v - m_data) : m_consumed) + size;
        m_consumed = std::max(m_consumed + 1, end);
        return true;
    }
    bool item()
    {
        if (!m_open.empty() && m_open.back() > 0) {
            --m_open.back();
            --m_pending;
        }
        return true;
    }
    bool open(uint64_t n)
    {
        ++m_consumed;
        if (m_open.size() >= m_maxDepth)
            return fail("nesting deeper than " + std::to_string(m_maxDepth) + " levels");
        const size_t left = m_size > m_consumed ? m_size - m_consumed : 0;
        if (n + m_pending > left)
            return fail("a container announces " + std::to_string(n) + " element(s) but only "
                        + std::to_string(left) + " byte(s) remain");
        m_elements += n;
        if (m_elements > kMaxElements)
            return fail("more than " + std::to_string(kMaxElements) + " elements in one frame");
        m_open.push_back(n);
        m_pending += n;
        return true;
    }
    bool close()
    {
        if (!m_open.empty()) {
            m_pending -= m_open.back();
            m_open.pop_back();
        }
        return true;
    }

    const char *m_data;
    size_t m_size;
    unsigned m_maxDepth;
    size_t m_consumed = 0;
    uint64_t m_pending = 0;
    uint64_t m_elements = 0;
    std::vector<uint64_t> m_open;
    std::string m_error;
};

bool referenceEverything(msgpack::type::object_type, std::size_t, void *)
{
    // The frame stays alive as long as any value taken from it, so nothing
    // needs copying into the unpacker's zone.
    return true;
}

struct DecodeContext
{
    const std::shared_ptr<const void> &owner;
    ObjectCodec *codec;
    unsigned maxDepth;
};

MetaObject decodeMeta(const AnyValue &v);

AnyValue convert(const msgpack::object &o, const DecodeContext &ctx, unsigned level)
{
    switch (o.type) {
    case msgpack::type::NIL:
        return AnyValue();
    case msgpack::type::BOOLEAN:
        return AnyValue(o.via.boolean);
    case msgpack::type::POSITIVE_INTEGER:
        if (o.via.u64 > static_cast<uint64_t>(std::numeric_limits<int64_t>::max()))
            throw ProtocolError("integer " + std::to_string(o.via.u64)
                                + " is out of the signed 64-bit range");
        return AnyValue(static_cast<int64_t>(o.via.u64));
    case msgpack::type::NEGATIVE_INTEGER:
        return AnyValue(o.via.i64);
    case msgpack::type::FLOAT32:
    case msgpack::type::FLOAT64:
        return AnyValue(o.via.f64);
    case msgpack::type::STR:
        return AnyValue(std::string(o.via.str.ptr, o.via.str.size));
    case msgpack::type::BIN:
        return AnyValue(Buffer(ctx.owner, o.via.bin.ptr, o.via.bin.size));
    case msgpack::type::ARRAY: {
        AnyValue::List list;
        list.reserve(o.via.array.size);
        for (uint32_t i = 0; i < o.via.array.size; ++i)
            list.push_back(convert(o.via.array.ptr[i], ctx, level + 1));
        return AnyValue(std::move(list));
    }
    case msgpack::type::MAP: {
        AnyValue::Map map;
        for (uint32_t i = 0; i < o.via.map.size; ++i) {
            const msgpack::object_kv &kv = o.via.map.ptr[i];
            if (kv.key.type != msgpack::type::STR)
                throw ProtocolError("map key is not a string");
            std::string key(kv.key.via.str.ptr, kv.key.via.str.size);
            if (!map.emplace(key, convert(kv.val, ctx, level + 1)).second)
                throw ProtocolError("duplicate map key \"" + key + "\"");
        }
        return AnyValue(std::move(map));
    }
    case msgpack::type::EXT: {
        const int8_t type = o.via.ext.type();
        const char *data = o.via.ext.data();
        const size_t size = o.via.ext.size;
        const unsigned depthLeft = ctx.maxDepth > level + 1 ? ctx.maxDepth - level - 1 : 0;
        if (depthLeft == 0)
            throw ProtocolError("object reference nested too deep");
        if (type == kExtReceiverObject) {
            const AnyValue id = decodeValue(ctx.owner, data, size, nullptr, depthLeft);
            if (id.kind() != AnyValue::Kind::Int || id.toInt() < 0)
                throw ProtocolError("object reference without a valid id");
            return ctx.codec ? ctx.codec->ownObject(static_cast<uint64_t>(id.toInt())) : AnyValue();
        }
        if (type == kExtSenderObject) {
            const AnyValue ref = decodeValue(ctx.owner, data, size, nullptr, depthLeft);
            if (ref.kind() != AnyValue::Kind::List || ref.toList().size() != 2
                || ref.toList()[0].kind() != AnyValue::Kind::Int || ref.toList()[0].toInt() < 0)
                throw ProtocolError("malformed object reference");
            MetaObject meta = decodeMeta(ref.toList()[1]);
            const uint64_t id = static_cast<uint64_t>(ref.toList()[0].toInt());
            return ctx.codec ? ctx.codec->importObject(id, std::move(meta)) : AnyValue();
        }
        throw ProtocolError("unknown extension type " + std::to_string(type));
    }
    }
    throw ProtocolError("unknown MessagePack type");
}

unsigned smallUint(const AnyValue &v, const char *what)
{
    if (v.kind() != AnyValue::Kind::Int || v.toInt() < 0
        || v.toInt() > std::numeric_limits<uint32_t>::max())
        throw ProtocolError(std::string("meta-object: bad ") + what);
    return static_cast<unsigned>(v.toInt());
}

const std::string &str(const AnyValue &v, const char *what)
{
    if (v.kind() != AnyValue::Kind::String)
        throw ProtocolError(std::string("bad ") + what);
    return v.toStr();
}

const AnyValue::List &list(const AnyValue &v, const char *what)
{
    if (v.kind() != AnyValue::Kind::List)
        throw ProtocolError(std::string("bad ") + what);
    return v.toList();
}

MetaObject decodeMeta(const AnyValue &v)
{
    const AnyValue::List &parts = list(v, "meta-object");
    if (parts.size() != 4)
        throw ProtocolError("bad meta-object");
    MetaObject meta(str(parts[0], "meta-object name"));
    try {
        for (const AnyValue &m : list(parts[1], "meta-object methods")) {
            const AnyValue::List &e = list(m, "meta-object method");
            if (e.size() != 3)
                throw ProtocolError("bad meta-object method");
            smallUint(e[0], "uid");
            meta.addMethod(str(e[1], "method name"), smallUint(e[2], "arity"));
        }
        for (const AnyValue &s : list(parts[2], "meta-object signals")) {
            const AnyValue::List &e = list(s, "meta-object signal");
            if (e.size() != 3)
                throw ProtocolError("bad meta-object signal");
            smallUint(e[0], "uid");
            meta.addSignal(str(e[1], "signal name"), smallUint(e[2], "arity"));
        }
        for (const AnyValue &p : list(parts[3], "meta-object properties")) {
            const AnyValue::List &e = list(p, "meta-object property");
            if (e.size() != 2)
                throw ProtocolError("bad meta-object property");
            smallUint(e[0], "uid");
            meta.addProperty(str(e[1], "property name"));
        }
    } catch (const std::invalid_argument &e) {
        throw ProtocolError(std::string("meta-object: ") + e.what());
    }
    return meta;
}

uint64_t uintField(const AnyValue::List &l, size_t i, const char *what)
{
    if (l[i].kind() != AnyValue::Kind::Int || l[i].toInt() < 0)
        throw ProtocolError(std::string("field ") + what + " is not an unsigned integer");
    return static_cast<uint64_t>(l[i].toInt());
}

std::string strField(const AnyValue::List &l, size_t i, const char *what)
{
    if (l[i].kind() != AnyValue::Kind::String)
        throw ProtocolError(std::string("field ") + what + " is not a string");
    return l[i].toStr();
}

std::vector<AnyValue> listField(const AnyValue::List &l, size_t i, const char *what)
{
    if (l[i].kind() != AnyValue::Kind::List)
        throw ProtocolError(std::string("field ") + what + " is not a list");
    return l[i].toList();
}

} // namespace

AnyValue decodeValue(const std::shared_ptr<const void> &owner, const char *data, size_t size,
                     ObjectCodec *codec, unsigned depth)
{
    if (size == 0)
        throw ProtocolError("empty value");
    LimitVisitor limits(data, size, depth);
    size_t off = 0;
    if (!msgpack::parse(data, size, off, limits))
        throw ProtocolError(limits.error().empty() ? "malformed MessagePack" : limits.error());
    if (off != size)
        throw ProtocolError(std::to_string(size - off) + " byte(s) after the value");

    // The first pass counted the elements: one zone chunk holds them all, so
    // a large value costs one allocation instead of one per container.
    msgpack::zone zone(std::max<size_t>(MSGPACK_ZONE_CHUNK_SIZE,
                                        (limits.elements() + 1) * sizeof(msgpack::object) + 256));
    msgpack::object root;
    try {
        const msgpack::unpack_limit limit(size, size, size, size, size, depth + 1);
        off = 0;
        bool referenced = false;
        root = msgpack::unpack(zone, data, size, off, referenced, referenceEverything, nullptr,
                               limit);
    } catch (const std::exception &e) {
        throw ProtocolError(std::string("MessagePack refused: ") + e.what());
    }
    const DecodeContext ctx {owner, codec, depth};
    return convert(root, ctx, 0);
}

Message decodeMessage(const std::shared_ptr<const void> &owner, const char *body, size_t size,
                      ObjectCodec *codec)
{
    const AnyValue whole = decodeValue(owner, body, size, codec);
    if (whole.kind() != AnyValue::Kind::List)
        throw ProtocolError("message is not an array");
    const AnyValue::List &l = whole.toList();
    if (l.size() < 2)
        throw ProtocolError("message has no kind and id");
    const uint64_t kind = uintField(l, 0, "kind");
    Message msg;
    msg.id = uintField(l, 1, "request id");
    auto need = [&](size_t n) {
        if (l.size() < n)
            throw ProtocolError(std::string(msgKindName(msg.kind)) + " message with "
                                + std::to_string(l.size()) + " field(s), expected "
                                + std::to_string(n));
    };
    if (kind < static_cast<uint64_t>(MsgKind::Call)
        || kind > static_cast<uint64_t>(MsgKind::Release))
        throw ProtocolError("unknown message kind " + std::to_string(kind));
    msg.kind = static_cast<MsgKind>(kind);
    switch (msg.kind) {
    case MsgKind::Call:
    case MsgKind::Post:
        need(5);
        msg.object = uintField(l, 2, "object");
        msg.name = strField(l, 3, "method");
        msg.args = listField(l, 4, "arguments");
        break;
    case MsgKind::Reply:
        need(3);
        msg.value = l[2];
        break;
    case MsgKind::Error:
    case MsgKind::Goodbye:
        need(3);
        msg.name = strField(l, 2, "text");
        break;
    case MsgKind::ServiceLookup:
        need(3);
        msg.name = strField(l, 2, "service name");
        break;
    case MsgKind::Cancel:
    case MsgKind::ServicesList:
    case MsgKind::Heartbeat:
        break;
    case MsgKind::Subscribe:
        need(5);
        msg.object = uintField(l, 2, "object");
        msg.name = strField(l, 3, "signal");
        msg.link = uintField(l, 4, "link");
        break;
    case MsgKind::Unsubscribe:
        need(4);
        msg.object = uintField(l, 2, "object");
        msg.link = uintField(l, 3, "link");
        break;
    case MsgKind::Release:
        need(4);
        msg.object = uintField(l, 2, "object");
        msg.link = uintField(l, 3, "count");
        break;
    case MsgKind::Emit:
        need(4);
        msg.link = uintField(l, 2, "link");
        msg.args = listField(l, 3, "arguments");
        break;
    case MsgKind::PropertyGet:
        need(4);
        msg.object = uintField(l, 2, "object");
        msg.name = strField(l, 3, "property");
        break;
    case MsgKind::PropertySet:
        need(5);
        msg.object = uintField(l, 2, "object");
        msg.name = strField(l, 3, "property");
        msg.value = l[4];
        break;
    case MsgKind::MetaObject:
        need(3);
        msg.object = uintField(l, 2, "object");
        break;
    case MsgKind::Register:
        need(4);
        msg.name = strField(l, 2, "service name");
        msg.value = l[3];
        break;
    case MsgKind::Unregister:
        need(3);
        msg.link = uintField(l, 2, "service id");
        break;
    }
    return msg;
}

} // namespace detail
} // namespace wz
