#pragma once

// What a robot-side object says to a call: its error text, "" when it
// answers, "no answer" when it does not within the deadline.

#include "wait_until.h"

#include <sim/service.h>

#include <wz/object.h>

#include <string>

namespace test {

inline std::string callError(const wz::Object &o, const std::string &method,
                             const sim::Args &args = {})
{
    wz::Future<wz::AnyValue> f = o->metaCall(method, args);
    if (f.wait(static_cast<int>(patience().count())) == wz::FutureState_Running)
        return "no answer";
    return f.hasError(0) ? f.error(0) : std::string();
}

} // namespace test
