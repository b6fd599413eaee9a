#pragma once

#include <vx/api.h>
#include <vx/vxerror.h>
#include <vx/vxvalue.h>

#include <wz/any_value.h>
#include <wz/object.h>

#include <mutex>
#include <string>
#include <type_traits>
#include <vector>

namespace VX {

// Generic proxy of one service, reached by method name. Every failure comes
// out as VXError, its text "NAME.method: <what>: <detail>" where <what> is one
// of "unknown method", "argument mismatch", "connection lost", "call
// canceled", "remote exception", "bad result", and <detail> is the
// framework's own text. Thread-safe: calls may run concurrently, and
// destroyConnection may race them.
class VX_API VXProxy
{
public:
    // Throws VXError when `object` is null.
    VXProxy(wz::Object object, const std::string &name);
    ~VXProxy();
    VXProxy(const VXProxy &) = delete;
    VXProxy &operator=(const VXProxy &) = delete;

    // Blocking call; R may be void, VXValue or any type the framework
    // converts (std::string, float, int, bool, std::vector<...>...).
    template<typename R = void, typename... A>
    R call(const std::string &method, const A &...args)
    {
        wz::AnyValue result = callAny(method, pack(method, args...));
        if constexpr (std::is_void<R>::value) {
            (void)result;
        } else {
            try {
                return wz::fromAny<R>(result);
            } catch (const std::exception &e) {
                badResult(method, result, e);
            }
        }
    }

    // Posted: no reply is awaited and the method's own failure is not seen
    // here. A proxy that was destroyed or a link that is down throws.
    template<typename... A>
    void pCall(const std::string &method, const A &...args)
    {
        postAny(method, pack(method, args...));
    }

    // Releases the object; every later call throws "proxy to NAME was
    // destroyed". Calls already running finish normally.
    void destroyConnection();
    bool isDestroyed() const;

    // The object behind the proxy; null after destroyConnection.
    wz::Object object() const;
    const std::string &name() const { return m_name; }

    // The call by values, for callers that already hold wz::AnyValue.
    wz::AnyValue callAny(const std::string &method, std::vector<wz::AnyValue> args);
    void postAny(const std::string &method, std::vector<wz::AnyValue> args);

private:
    template<typename... A>
    std::vector<wz::AnyValue> pack(const std::string &method, const A &...args) const
    {
        std::vector<wz::AnyValue> out;
        out.reserve(sizeof...(A));
        std::size_t index = 0;
        (void)index;
        (void)method;
        (packOne(out, method, ++index, args), ...);
        return out;
    }

    template<typename T>
    void packOne(std::vector<wz::AnyValue> &out, const std::string &method, std::size_t index,
                 const T &value) const
    {
        try {
            out.push_back(wz::toAny(value));
        } catch (const std::exception &e) {
            badArgument(method, index, e);
        }
    }

    wz::Object checkedObject() const;
    [[noreturn]] void badArgument(const std::string &method, std::size_t index,
                                  const std::exception &e) const;
    [[noreturn]] void badResult(const std::string &method, const wz::AnyValue &result,
                                const std::exception &e) const;

    const std::string m_name;
    mutable std::mutex m_mutex;
    wz::Object m_object;
};

} // namespace VX
