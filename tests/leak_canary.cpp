// Leaks on purpose. Under AddressSanitizer the test suite registers this
// program as a test that must fail, proving that LeakSanitizer runs and that
// a leak fails a test (nothing silences it).
#include <stdio.h>

#include "orv/orv.h"

int main() {
  // Through the library's own pointer, so the leak goes through its deleters.
  orv::Memory::orv_shared_ptr<int>* lost = new orv::Memory::orv_shared_ptr<int>(new int(42));
  printf("leaking %p\n", static_cast<void*>(lost));
  lost = nullptr;
  return 0;
}
