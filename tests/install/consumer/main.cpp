// A program outside the tree, built against the installed library only.
#include <orv/orv.h>

#include <stdio.h>

namespace {

struct Counter : orv::Memory::Singleton<Counter> {
  int hits = 0;
};

}  // namespace

int main() {
  orv::Memory::orv_shared_ptr<int> number(new int(41));
  orv::Memory::orv_weak_ptr<int> weak(number);
  orv::Memory::orv_shared_ptr<int> promoted(weak);
  ++*promoted;
  Counter::instance()->hits++;
  orv::set_log_level(orv::LOG_DEBUG);
  ORV_LOG_DEBUG("[DEBUG]-[%s][%s:1]consumer logging %d\n", *number);
  if (*number != 42 || Counter::instance()->hits != 1 || orv::get_current_time() <= 0) return 1;
  printf("orv consumer ok\n");
  return 0;
}
