// A program outside the tree, built against the installed library only.
#include <orv/orv.h>

#include <stdio.h>
#include <string.h>

#include <vector>

namespace {

struct Counter : orv::Memory::Singleton<Counter> {
  int hits = 0;
};

}  // namespace

int main() {
#ifdef ORV_PACKAGE_VERSION
  if (strcmp(ORV_PACKAGE_VERSION, ORV_VERSION_STRING) != 0) return 1;  // CMake package vs. header
#endif
  orv::Memory::orv_shared_ptr<int> number(new int(41));
  orv::Memory::orv_weak_ptr<int> weak(number);
  orv::Memory::orv_shared_ptr<int> promoted(weak);
  ++*promoted;
  Counter::instance()->hits++;
  orv::set_log_level(orv::LOG_DEBUG);
  ORV_LOG_DEBUG("[DEBUG]-[%s][%s:1]consumer logging %d\n", *number);
  if (*number != 42 || Counter::instance()->hits != 1 || orv::get_current_time() <= 0) return 1;
  // cJSON comes through the library's namespace and its pkg-config/CMake package.
  std::vector<int> values;
  orv::cJSON* json = orv::cJSON_Parse("{\"a\":[1,2]}");
  if (json == nullptr || orv::cJSON_GetArraySize(orv::get_json_item(json, "a")) != 2) return 1;
  orv::cJSON_Delete(json);
  if (orv::json_to_int_vector("{\"a\":[1,2]}", "a", values) != 1 || values.size() != 2) return 1;
  if (orv::UUIDFactory::generateUUID().size() != 36) return 1;
  orv::Memory::orv_shared_ptr<orv::PCMQueue> queue = orv::PCMQueue::newQueue(4);
  if (queue->queueAudio(reinterpret_cast<const unsigned char*>("abcdef"), 6) != 4) return 1;
  printf("orv consumer ok %s\n", ORV_VERSION_STRING);
  return 0;
}
