#pragma once

// Timestamps of the stages of one call, for the messaging benchmark. Built in
// only with the CMake option NIMIOB_WZ_TRACE (it defines WZ_TRACE for the
// library and whatever links it); without it every mark is an empty
// statement and nothing here is exported.
// One call at a time: the stamps are process-wide, so concurrent calls
// overwrite each other's.

#include <wz/api.h>

#include <cstdint>

namespace wz {
namespace detail {
namespace trace {

enum Stage {
    CallWritten, // the caller has encoded its call and starts writing it
    CallDecoded, // the far end's I/O thread has decoded it
    MethodStart, // a framework thread starts the method
    MethodEnd, // ... and has its result
    ReplyWritten, // the reply is encoded, its write starts
    ReplyDecoded, // the caller's I/O thread has decoded the reply
    CallerAwake, // the waiting caller sees the result
    StageCount
};

#ifdef WZ_TRACE
WZ_API void mark(Stage stage);
// The steady-clock nanoseconds of each stage since the last take (0 where
// not reached), then cleared.
WZ_API bool take(int64_t (&out)[StageCount]);
#endif

} // namespace trace
} // namespace detail
} // namespace wz

#ifdef WZ_TRACE
#    define WZ_TRACE_MARK(stage) ::wz::detail::trace::mark(::wz::detail::trace::stage)
#else
#    define WZ_TRACE_MARK(stage) static_cast<void>(0)
#endif
