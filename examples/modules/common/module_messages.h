// Small helpers the sample modules share for building and reading messages.
// Header-only (each module is its own shared library); no state, any thread.
#ifndef ORV_EXAMPLES_MODULES_COMMON_MODULE_MESSAGES_H
#define ORV_EXAMPLES_MODULES_COMMON_MODULE_MESSAGES_H

#include <string.h>

#include <string>

#include <orv/orv.h>

namespace orv_sample {

inline orv::Memory::orv_shared_ptr<orv::Message> new_message(const std::string& name) {
  orv::Memory::orv_shared_ptr<orv::Message> message(new orv::Message());
  message->m_name = name;
  message->m_params = orv::Memory::orv_shared_ptr<orv::ParamMap>(new orv::ParamMap());
  return message;
}

inline const std::string& string_type() {
  static const std::string name = orv::param<std::string>(std::string()).get_value_type();
  return name;
}

// The string parameter under key, or fallback when it is missing or not a string.
inline std::string text_param(orv::Memory::orv_shared_ptr<orv::Message>& message,
                              const std::string& key, const std::string& fallback) {
  if (!message->m_params) return fallback;
  orv::ParamMap::iterator it = message->m_params->find(key);
  if (it == message->m_params->end() || it->second.get_value_type() != string_type())
    return fallback;
  return it->second.valueString();
}

// The int parameter under key, or fallback.
inline int int_param(orv::Memory::orv_shared_ptr<orv::Message>& message, const std::string& key,
                     int fallback) {
  if (!message->m_params) return fallback;
  orv::ParamMap::iterator it = message->m_params->find(key);
  if (it == message->m_params->end() || it->second.get_value_type() != "i") return fallback;
  return it->second.valueInt();
}

// A copy of bytes as a message payload.
inline void attach_bytes(orv::Memory::orv_shared_ptr<orv::Message>& message, const void* bytes,
                         int length) {
  char* block = new char[length > 0 ? length : 1];
  if (length > 0) memcpy(block, bytes, static_cast<size_t>(length));
  message->m_data = orv::Memory::orv_shared_ptr<char>(
      block, &orv::Memory::orv_shared_ptr<char>::arrayDestructor);
  message->m_dataLength = length;
}

}  // namespace orv_sample

#endif  // ORV_EXAMPLES_MODULES_COMMON_MODULE_MESSAGES_H
