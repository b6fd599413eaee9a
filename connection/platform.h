#pragma once

// The platform headers the library's services call through. Some of them name
// members "signals", which Qt defines as a keyword macro; the macro is hidden
// while they are read, so that they may come before or after Qt's headers.
// Include them through this header rather than one by one.

#pragma push_macro("signals")
#undef signals
#include <vx/vxproxies.h>
#include <vx/vxproxy.h>
#include <vx/vxvalue.h>
#include <wz/log_listener.h>
#include <wz/object.h>
#include <wz/object_builder.h>
#include <wz/session.h>
#include <wz/url.h>
#pragma pop_macro("signals")
