// The Echo module: see EchoModule.h for its message protocol.
#include "EchoModule.h"

#include <string.h>

#include <mutex>
#include <string>

#include <orv/orv.h>

namespace {

using orv::EventManager;
using orv::Message;
using orv::ParamMap;
using orv::Memory::orv_shared_ptr;
using orv::Memory::orv_shared_ptr_base;
using orv::Memory::orv_weak_ptr;
using orv::Networking::orv_http_request_maker;
using orv::Networking::orv_HttpRequest;
using orv::Networking::orv_HttpResponse;

const int kChunkedUpload = 2;

orv_shared_ptr<Message> new_message(const std::string& name) {
  orv_shared_ptr<Message> message(new Message());
  message->m_name = name;
  message->m_params = orv_shared_ptr<ParamMap>(new ParamMap());
  return message;
}

// The parameter under key when it holds a value of the type whose
// get_value_type() is `type`; null otherwise.
orv::paramBase* find_param(orv_shared_ptr<Message>& message, const std::string& key,
                           const char* type) {
  if (!message->m_params) return nullptr;
  ParamMap::iterator it = message->m_params->find(key);
  if (it == message->m_params->end() || it->second.get_value_type() != type) return nullptr;
  return &it->second;
}

const std::string& string_type() {
  static const std::string name = orv::param<std::string>(std::string()).get_value_type();
  return name;
}

class EchoManager : public EventManager {
 public:
  EchoManager(orv_weak_ptr<orv::Context>& context, orv_weak_ptr<EventManager>& listener)
      : EventManager(context), m_listener(listener), m_bytes(0), m_reported(0), m_nextProgress(0),
        m_bytesPerSecond(32000) {
    // Own queue rather than the context's: commands to this module, audio
    // frames above all, keep their order among themselves without waiting
    // behind (or holding up) the deliveries of the other modules and of the
    // host that share the context. Set before the manager is shared.
    m_useOwnQueue = 1;
  }

  ~EchoManager() override { stopUpload(); }

  // On the module's own queue, one message at a time.
  void send(orv_shared_ptr<Message>& message) override {
    const std::string& name = message->m_name;
    if (name == orv::ORV_COMMAND_GET_EVENT_MANAGER_VERSION) {
      orv_shared_ptr<Message> reply = new_message(orv::ORV_CALLBACK_EVENT_MANAGER_VERSION);
      reply->m_params->emplace(orv::ORV_PARAM_KEY_EVENT_MANAGER_VERSION_STRING,
                               std::string(orv_echo::kEchoVersion));
      post(m_listener, reply, 0);
    } else if (name == orv::ORV_CORE_PLATFORM_CUSTOM_COMMAND) {
      customCommand(message);
    } else if (name == orv_echo::kEchoAudioStart) {
      startUpload(message);
    } else if (name == orv_echo::kEchoAudioData) {
      queueAudio(message->m_data, message->m_dataLength, false);
    } else if (name == orv_echo::kEchoAudioEnd) {
      queueAudio(message->m_data, message->m_dataLength, true);
    }
  }

  // The host drops the module after this: no report is made afterwards.
  void release_instance() override { stopUpload(); }

  // The upload's reports, on the transfer thread.
  static void onUploadResponse(orv_shared_ptr<orv_http_request_maker>& task,
                               orv_shared_ptr<orv_HttpResponse>& response,
                               orv_shared_ptr_base* user) {
    (void)task;
    orv_shared_ptr<EventManager> self(*static_cast<orv_weak_ptr<EventManager>*>(user));
    if (!self) return;
    static_cast<EchoManager*>(self.getPTR())->uploadEnded(response);
  }

  orv_weak_ptr<EventManager> m_listener;
  // What the upload's callback gets as its user data (lives with the module,
  // which releases the upload before it goes).
  orv_weak_ptr<EventManager> m_callbackRef;

 private:
  void customCommand(orv_shared_ptr<Message>& message) {
    orv::paramBase* nameParam =
        find_param(message, orv::ORV_CORE_PLATFORM_CUSTOM_COMMAND_NAME_STRING, string_type().c_str());
    std::string command = nameParam ? nameParam->valueString() : std::string();
    orv::paramBase* quiet =
        find_param(message, orv::ORV_CORE_PLATFORM_CUSTOM_COMMAND_DO_NOT_RESPOND_FLAG_BOOL, "b");
    if (quiet && quiet->valueBool()) return;

    orv_shared_ptr<Message> reply = new_message(orv::ORV_CORE_PLATFORM_CUSTOM_COMMAND_RESULT);
    reply->m_params->emplace(orv::ORV_CORE_PLATFORM_CUSTOM_COMMAND_NAME_STRING, command);
    if (command == orv_echo::kEchoCustomPing) {
      reply->m_params->emplace(orv::ORV_PARAM_KEY_ERROR_CODE, 0);
      reply->m_params->emplace(orv::ORV_PARAM_KEY_ERROR_DESCRIPTION, orv::ORV_ERROR_MESSAGE_OK);
    } else {
      reply->m_params->emplace(orv::ORV_PARAM_KEY_ERROR_CODE,
                               orv::ORV_CORE_PLATFORM_CUSTOM_COMMAND_ERROR_UNKNOWN_COMMAND);
      reply->m_params->emplace(orv::ORV_PARAM_KEY_ERROR_DESCRIPTION,
                               orv::ORV_CORE_PLATFORM_CUSTOM_COMMAND_ERROR_UNKNOWN_COMMAND_DESC + command);
    }
    post(m_listener, reply, 0);
  }

  void startUpload(orv_shared_ptr<Message>& message) {
    stopUpload();
    orv::paramBase* url = find_param(message, orv::PARAM_KEY_SERVER_URL, string_type().c_str());
    if (!url || url->valueString().empty()) {
      reportError(-1, "audio start without " + orv::PARAM_KEY_SERVER_URL);
      return;
    }
    orv::paramBase* rate = find_param(message, orv::PARAM_KEY_SAMPLE_RATE_INT, "i");
    m_bytesPerSecond = (rate && rate->valueInt() > 0) ? rate->valueInt() * 2 : 32000;
    m_bytes = 0;
    m_reported = 0;
    m_nextProgress = m_bytesPerSecond;

    orv_shared_ptr<orv_HttpRequest> request = orv_HttpRequest::requestWithUrl(url->valueString());
    request->_origin_URL = url->valueString();
    request->_transfer_mode = kChunkedUpload;
    // Reported first: a transfer that fails at once reports from its own
    // thread, and the host must see the start before that.
    report(orv_echo::kEchoStatusStarted);
    orv_shared_ptr<orv_http_request_maker> upload = orv_http_request_maker::get_instance();
    upload->start_request(request, &EchoManager::onUploadResponse, &m_callbackRef);
    std::lock_guard<std::mutex> lock(m_uploadMutex);
    m_upload = upload;
  }

  void queueAudio(orv_shared_ptr<char>& data, int length, bool last) {
    orv_shared_ptr<orv_http_request_maker> upload = currentUpload();
    if (!upload) {
      reportError(-1, "audio without audio start");
      return;
    }
    // The task copies the bytes; share the message's block meanwhile.
    orv_shared_ptr<unsigned char> bytes(data);
    upload->send_data(bytes, length > 0 && data ? length : 0, last);
    if (length > 0 && data) m_bytes += length;
    if (m_bytes >= m_nextProgress || (last && m_bytes != m_reported)) {
      while (m_nextProgress <= m_bytes) m_nextProgress += m_bytesPerSecond;
      m_reported = m_bytes;
      orv_shared_ptr<Message> progress = statusMessage(orv_echo::kEchoStatusProgress);
      progress->m_params->emplace(orv_echo::kEchoParamBytes, static_cast<int>(m_bytes));
      post(m_listener, progress, 0);
    }
  }

  void uploadEnded(orv_shared_ptr<orv_HttpResponse>& response) {
    if (response->_error_code == 0 && response->_http_status == 200) {
      orv_shared_ptr<Message> done = statusMessage(orv_echo::kEchoStatusFinished);
      done->m_params->emplace(orv_echo::kEchoParamHttpStatus, static_cast<int>(response->_http_status));
      post(m_listener, done, 0);
    } else if (response->_error_code != 0) {
      reportError(response->_error_code, response->_message);
    } else {
      reportError(response->_http_status, "upload refused, HTTP status " +
                                              std::to_string(response->_http_status));
    }
  }

  orv_shared_ptr<orv_http_request_maker> currentUpload() {
    std::lock_guard<std::mutex> lock(m_uploadMutex);
    return m_upload;
  }

  // From send() and from the host's thread (release_instance, destructor).
  void stopUpload() {
    orv_shared_ptr<orv_http_request_maker> upload;
    {
      std::lock_guard<std::mutex> lock(m_uploadMutex);
      upload = m_upload;
      m_upload = orv_shared_ptr<orv_http_request_maker>();
    }
    // Waits for the transfer; after it no report comes any more.
    if (upload) upload->release_instance();
  }

  orv_shared_ptr<Message> statusMessage(int status) {
    orv_shared_ptr<Message> message = new_message(orv::asr_callback_name);
    message->m_params->emplace(orv::CALLBACK_ASR_STATUS, status);
    return message;
  }

  void report(int status) {
    orv_shared_ptr<Message> message = statusMessage(status);
    post(m_listener, message, 0);
  }

  void reportError(int code, const std::string& text) {
    orv_shared_ptr<Message> message = statusMessage(orv_echo::kEchoStatusError);
    message->m_params->emplace(orv::ORV_PARAM_KEY_ERROR_CODE, code);
    message->m_params->emplace(orv::ORV_PARAM_KEY_ERROR_DESCRIPTION, text);
    post(m_listener, message, 0);
  }

  std::mutex m_uploadMutex;
  orv_shared_ptr<orv_http_request_maker> m_upload;  // under m_uploadMutex
  // The rest is touched only by send(), i.e. on the module's serial queue.
  long long m_bytes;
  long long m_reported;  // bytes at the last progress report
  long long m_nextProgress;
  int m_bytesPerSecond;
};

// The load function: runs under the loader's lock, on the thread that called
// loadModule.
orv_shared_ptr<EventManager> load(orv_weak_ptr<orv::Context> context,
                                  orv_weak_ptr<EventManager> listener) {
  EchoManager* echo = new EchoManager(context, listener);
  orv_shared_ptr<EventManager> manager(echo);
  manager->m_self = manager;
  echo->m_callbackRef = manager;
  ORV_LOG_DEBUG("[DEBUG]-[%s][%s:230]Echo module created\n");
  return manager;
}

}  // namespace

// The prepare function, found by the loader under this unmangled name.
extern "C" __attribute__((visibility("default"))) void VeltoSpeechEcho_INIT() {
  orv::SpeechSDKModuleLoader::registerLoadFunction(load, orv_echo::kEchoModuleName);
}
