// A program outside the tree, built against the installed library only: the
// templates, logging, cJSON through the library's namespace, and the version
// of the header against the CMake package's.
#include <orv/orv.h>
#include <stdio.h>
#include <string.h>

struct Counter : orv::Memory::Singleton<Counter> {
  int hits = 0;
};

int main() {
#ifdef ORV_PACKAGE_VERSION
  if (strcmp(ORV_PACKAGE_VERSION, ORV_VERSION_STRING) != 0) return 1;
#endif
  orv::Memory::orv_shared_ptr<int> number(new int(41));
  ++*orv::Memory::orv_shared_ptr<int>(orv::Memory::orv_weak_ptr<int>(number));
  orv::set_log_level(orv::LOG_DEBUG);
  ORV_LOG_DEBUG("[DEBUG]-[%s][%s:1]consumer logging %d\n", *number + ++Counter::instance()->hits);
  orv::cJSON* json = orv::cJSON_Parse("{\"a\":[1,2]}");
  if (*number != 42 || Counter::instance()->hits != 1 || orv::cJSON_GetArraySize(orv::get_json_item(json, "a")) != 2) return 1;
  orv::cJSON_Delete(json);
  if (orv::PCMQueue::newQueue(4)->queueAudio(reinterpret_cast<const unsigned char*>("abcdef"), 6) != 4) return 1;
  printf("orv consumer ok %s\n", ORV_VERSION_STRING);
  return 0;
}
