// The response header-line rule, fed lines directly: a line counts only if it
// holds a ':'; the name is the text before the first ':'; blanks and tabs
// after it are skipped; the value runs to the first CR, LF or NUL; a repeated
// name keeps the last value. The input is cut into lines at LF, as a server's
// header block would be.
#include <map>

#include "core/utility/Networking/orv_HttpResponse.h"
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  orv::Memory::orv_shared_ptr<orv::Networking::orv_HttpResponse> response =
      orv::Networking::orv_HttpResponse::alloc();
  std::map<std::string, std::string> model;
  std::string all(reinterpret_cast<const char*>(data), size);
  size_t from = 0;
  while (from < all.size()) {
    size_t lf = all.find('\n', from);
    size_t end = lf == std::string::npos ? all.size() : lf + 1;
    std::string line = all.substr(from, end - from);
    from = end;

    // Exact-size heap copy: no NUL after the line, so over-reads are caught.
    char* copy = static_cast<char*>(malloc(line.size() + 1));
    memcpy(copy, line.data(), line.size());
    response->receive_header_line(copy, line.size());
    free(copy);

    size_t colon = line.find(':');
    if (colon == std::string::npos) continue;
    size_t v = colon + 1;
    while (v < line.size() && (line[v] == ' ' || line[v] == '\t')) ++v;
    size_t v_end = line.find_first_of(std::string("\r\n\0", 3), v);
    if (v_end == std::string::npos) v_end = line.size();
    model[line.substr(0, colon)] = line.substr(v, v_end - v);
  }
  FUZZ_CHECK(response->_headers == model);
  // Headers never touch the body.
  FUZZ_CHECK(response->_length == 1 && response->_data.getPTR()[0] == '\0');
  FUZZ_CHECK(response->_error_code == 0 && response->_http_status == 200);
  return 0;
}
