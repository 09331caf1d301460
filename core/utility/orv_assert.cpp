#include "core/utility/orv_assert.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>

namespace orv {

void assert_fail(const char* expression, const char* file, unsigned line, const char* function) {
  fprintf(stderr, "%s: %s:%u: %s: Assertion `%s' failed.\n", program_invocation_short_name, file,
          line, function, expression);
  fflush(stderr);
  abort();
}

}  // namespace orv
