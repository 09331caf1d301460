// The JSON vector readers on arbitrary text and keys, checked against a
// direct reading of the same text with cJSON: same return value, same
// elements in order, nothing leaked.
#include <limits.h>

#include <vector>

#include "core/utility/orv_utility.h"
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  orv_fuzz::Input in(data, size);
  std::string key = in.str(16);
  std::string json = in.rest();

  // Model: parse the text as the readers see it (a C string).
  cJSON* root = json.empty() ? nullptr : cJSON_Parse(json.c_str());
  cJSON* item = root != nullptr ? cJSON_GetObjectItem(root, key.c_str()) : nullptr;
  int n = item != nullptr ? cJSON_GetArraySize(item) : 0;
  int expect = (item != nullptr && n > 0) ? 1 : 0;

  std::vector<int> ints{-7};
  std::vector<std::string> strs{"kept"};
  FUZZ_CHECK(orv::json_to_int_vector(json, key, ints) == expect);
  FUZZ_CHECK(orv::json_to_str_vector(json, key, strs) == expect);
  FUZZ_CHECK(ints.front() == -7 && strs.front() == "kept");
  if (expect == 1) {
    FUZZ_CHECK(ints.size() == static_cast<size_t>(n) + 1);
    FUZZ_CHECK(strs.size() == static_cast<size_t>(n) + 1);
    for (int i = 0; i < n; ++i) {
      cJSON* e = cJSON_GetArrayItem(item, i);
      FUZZ_CHECK(ints[i + 1] == (cJSON_IsNumber(e) ? e->valueint : 0));
      FUZZ_CHECK(strs[i + 1] == (cJSON_IsString(e) ? e->valuestring : ""));
    }
  } else {
    FUZZ_CHECK(ints.size() == 1 && strs.size() == 1);
  }
  cJSON_Delete(root);

  // The accessors on whatever parsed.
  cJSON* parsed = orv::read_json(json.c_str());
  if (parsed != nullptr) {
    (void)orv::get_json_item(parsed, key.c_str());
    (void)orv::get_json_array_item(parsed, static_cast<unsigned>(key.size()));
    cJSON_Delete(parsed);
  }
  return 0;
}
