/// @file
/// ORV_ASSERT: an assertion that stays on in every build type, NDEBUG or not.
/// A failure prints "<program>: <file>:<line>: <function>: Assertion `<expr>'
/// failed." to standard error, as assert does, and aborts the process.
///
/// Thread safety: usable on any thread; a failure ends the whole process.
#ifndef ORV_CORE_UTILITY_ORV_ASSERT_H
#define ORV_CORE_UTILITY_ORV_ASSERT_H

#include "core/orv_api.h"

namespace orv {

[[noreturn]] ORV_API void assert_fail(const char* expression, const char* file, unsigned line,
                                      const char* function);

}  // namespace orv

#define ORV_ASSERT(expr) \
  ((expr) ? static_cast<void>(0) : ::orv::assert_fail(#expr, __FILE__, __LINE__, __func__))

#endif  // ORV_CORE_UTILITY_ORV_ASSERT_H
