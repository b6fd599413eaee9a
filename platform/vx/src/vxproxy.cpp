#include <vx/vxproxy.h>

#include <wz/future.h>

namespace VX {

namespace {

bool startsWith(const std::string &s, const char *prefix)
{
    return s.rfind(prefix, 0) == 0;
}

// Names the kind of a failure from the framework's fixed texts and from what
// the object says it offers.
std::string classify(const std::string &text, const wz::Object &object, const std::string &method,
                     std::size_t arity)
{
    if (text == "canceled")
        return "call canceled";
    if (startsWith(text, "disconnected") || startsWith(text, "promise broken"))
        return "connection lost";
    if (startsWith(text, "method \"")
        && text.find(" argument(s) not found on \"") != std::string::npos) {
        std::vector<wz::MetaMethod> overloads;
        try {
            overloads = object.metaObject().findMethod(method);
        } catch (const std::exception &) { }
        if (overloads.empty())
            return "unknown method";
        std::string arities;
        for (const wz::MetaMethod &m : overloads)
            arities += (arities.empty() ? "" : " or ") + std::to_string(m.arity);
        return "argument mismatch (" + method + " takes " + arities + " argument(s), given "
            + std::to_string(arity) + ")";
    }
    // The framework's conversion failures, on the side that ran the method.
    if (startsWith(text, "cannot convert "))
        return "argument mismatch";
    return "remote exception";
}

} // namespace

VXProxy::VXProxy(wz::Object object, const std::string &name)
    : m_name(name), m_object(std::move(object))
{
    if (!m_object)
        throw VXError("cannot make a proxy to " + name + ": the object is null");
}

VXProxy::~VXProxy() = default;

void VXProxy::destroyConnection()
{
    wz::Object released;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        released = std::move(m_object);
        m_object = wz::Object();
    }
    // `released` goes here, outside the lock: dropping the last reference to
    // a remote object may talk to the network.
}

bool VXProxy::isDestroyed() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return !m_object;
}

wz::Object VXProxy::object() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_object;
}

wz::Object VXProxy::checkedObject() const
{
    wz::Object o = object();
    if (!o)
        throw VXError("proxy to " + m_name + " was destroyed");
    return o;
}

wz::AnyValue VXProxy::callAny(const std::string &method, std::vector<wz::AnyValue> args)
{
    const wz::Object o = checkedObject();
    const std::size_t arity = args.size();
    wz::Future<wz::AnyValue> f;
    try {
        f = o->metaCall(method, std::move(args));
    } catch (const std::exception &e) {
        throw VXError(m_name + "." + method + ": " + classify(e.what(), o, method, arity) + ": "
                      + e.what());
    }
    if (f.wait(wz::FutureTimeout_Infinite) == wz::FutureState_FinishedWithValue)
        return f.value();
    const std::string text = f.error();
    throw VXError(m_name + "." + method + ": " + classify(text, o, method, arity) + ": " + text);
}

void VXProxy::postAny(const std::string &method, std::vector<wz::AnyValue> args)
{
    const wz::Object o = checkedObject();
    const std::size_t arity = args.size();
    try {
        o->metaPost(method, std::move(args));
    } catch (const std::exception &e) {
        throw VXError(m_name + "." + method + ": " + classify(e.what(), o, method, arity) + ": "
                      + e.what());
    }
}

void VXProxy::badArgument(const std::string &method, std::size_t index,
                          const std::exception &e) const
{
    throw VXError(m_name + "." + method + ": argument mismatch: argument " + std::to_string(index)
                  + ": " + e.what());
}

void VXProxy::badResult(const std::string &method, const wz::AnyValue &result,
                        const std::exception &e) const
{
    std::string shown = result.repr();
    if (shown.size() > 200)
        shown = shown.substr(0, 200) + "...";
    throw VXError(m_name + "." + method + ": bad result: " + e.what() + " (got " + shown + ")");
}

} // namespace VX
