// The Asr module: see AsrModule.h for its message protocol.
#include "AsrModule.h"

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <orv/orv.h>

#include "examples/modules/common/module_messages.h"

namespace {

using orv::EventManager;
using orv::Message;
using orv::Memory::orv_shared_ptr;
using orv::Memory::orv_shared_ptr_base;
using orv::Memory::orv_weak_ptr;
using orv::Networking::orv_http_request_maker;
using orv::Networking::orv_HttpRequest;
using orv::Networking::orv_HttpResponse;
using orv_sample::int_param;
using orv_sample::new_message;
using orv_sample::text_param;

const int kDuplexPost = 1;
const int kRate = 16000;
const int kPreRollBytes = orv_asr::kAsrPreRollSeconds * kRate * 2;

// What the module posts to itself from other threads.
const char* const kTokenReady = "asr.internal.token";
const char* const kServiceLine = "asr.internal.line";
const char* const kTransferEnd = "asr.internal.end";
const char* const kTimedOut = "asr.internal.timeout";
const char* const kSessionKey = "asr.internal.session.int";
const char* const kTextKey = "asr.internal.text.string";
const char* const kStatusKey = "asr.internal.http_status.int";

// Transfers by task pointer, for the transfer callback: the task may call back
// after the session released it, so the callback gets no user data and looks
// its session up here instead. Lives as long as the process.
struct Registration {
  const void* owner;
  orv_weak_ptr<EventManager> module;
  int session;
  std::string pending;  // received bytes not yet ending in a newline
};
struct Registry {
  std::mutex mutex;
  std::map<const void*, Registration> transfers;
};
Registry& registry() {
  static Registry* transfers = new Registry();
  return *transfers;
}

orv_shared_ptr<Message> session_message(const char* name, int session) {
  orv_shared_ptr<Message> message = new_message(name);
  message->m_params->emplace(kSessionKey, session);
  return message;
}

void post_to(orv_weak_ptr<EventManager>& module, orv_shared_ptr<Message>& message) {
  orv_shared_ptr<EventManager> strong(module);
  if (strong) strong->post_message(message);
}

// On the transfer's thread: whole lines, and the end, go to the module.
void on_transfer(orv_shared_ptr<orv_http_request_maker>& task,
                 orv_shared_ptr<orv_HttpResponse>& response, orv_shared_ptr_base*) {
  std::vector<orv_shared_ptr<Message>> out;
  orv_weak_ptr<EventManager> module;
  {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    std::map<const void*, Registration>::iterator it = r.transfers.find(task.getPTR());
    if (it == r.transfers.end()) return;
    Registration& entry = it->second;
    module = entry.module;
    bool piece = response->_error_code == 0 && response->_data && response->_length > 1;
    if (piece) {
      entry.pending.append(response->_data.getPTR(), static_cast<size_t>(response->_length - 1));
      size_t newline;
      while ((newline = entry.pending.find('\n')) != std::string::npos) {
        out.push_back(session_message(kServiceLine, entry.session));
        out.back()->m_params->emplace(kTextKey, entry.pending.substr(0, newline));
        entry.pending.erase(0, newline + 1);
      }
    } else {
      out.push_back(session_message(kTransferEnd, entry.session));
      out.back()->m_params->emplace(orv::ORV_PARAM_KEY_ERROR_CODE,
                                    static_cast<int>(response->_error_code));
      out.back()->m_params->emplace(kStatusKey, static_cast<int>(response->_http_status));
      out.back()->m_params->emplace(kTextKey, entry.pending);
      r.transfers.erase(it);  // the transfer is over
    }
  }
  for (orv_shared_ptr<Message>& message : out) post_to(module, message);
}

// A token fetch on a pool thread; the module keeps a share to cancel the wait.
struct FetchOrder {
  orv_weak_ptr<EventManager> module;
  orv_shared_ptr<orv::orv_AccessToken> token;
  std::string apiKey;
  std::string secretKey;
  int session = 0;
  bool cancelled = false;  // the wait's cancel flag, under the token's lock
};

orv_shared_ptr<char> c_string(const std::string& s) {
  char* block = new char[s.size() + 1];
  memcpy(block, s.c_str(), s.size() + 1);
  return orv_shared_ptr<char>(block, &orv_shared_ptr<char>::arrayDestructor);
}

void fetch_token(orv_shared_ptr_base* param) {
  orv_shared_ptr<FetchOrder> order(*static_cast<orv_shared_ptr<FetchOrder>*>(param));
  order->token->setKeys(c_string(order->apiKey), c_string(order->secretKey));
  orv_shared_ptr<char> error;
  orv_shared_ptr<char> token = order->token->getAccessToken(&error, &order->cancelled);
  orv_shared_ptr<Message> done = session_message(kTokenReady, order->session);
  if (token) {
    done->m_params->emplace(kTextKey, std::string(token.getPTR()));
  } else {
    done->m_params->emplace(orv::ORV_PARAM_KEY_ERROR_DESCRIPTION,
                            std::string(error ? error.getPTR() : "no reason given"));
  }
  post_to(order->module, done);
}

// The session timer's order: fires on the timer thread.
struct TimerOrder {
  orv_weak_ptr<EventManager> module;
  int session = 0;
};

void on_timer(orv_shared_ptr_base* param) {
  orv_shared_ptr<TimerOrder> order(*static_cast<orv_shared_ptr<TimerOrder>*>(param));
  orv_shared_ptr<Message> message = session_message(kTimedOut, order->session);
  post_to(order->module, message);
}

struct Session {
  int id = 0;
  std::string url;
  int timeoutMs = 5000;
  orv_shared_ptr<FetchOrder> fetch;
  orv_shared_ptr<orv_http_request_maker> transfer;
  orv_shared_ptr<orv::Threads::RefreshTimer> timer;
};

class AsrManager : public EventManager {
 public:
  AsrManager(orv_weak_ptr<orv::Context>& context, orv_weak_ptr<EventManager>& listener)
      : EventManager(context), m_listener(listener) {
    // Own queue: audio keeps its order and the host's other traffic never
    // waits behind a session's work.
    m_useOwnQueue = 1;
    m_pcm = orv::PCMQueue::newQueue(kPreRollBytes);
    m_token = orv::orv_AccessToken::alloc();
  }

  ~AsrManager() override { finish(); }

  void send(orv_shared_ptr<Message>& message) override {
    const std::string& name = message->m_name;
    int session = int_param(message, kSessionKey, -1);
    if (name == orv::ORV_COMMAND_GET_EVENT_MANAGER_VERSION) {
      orv_shared_ptr<Message> reply = new_message(orv::ORV_CALLBACK_EVENT_MANAGER_VERSION);
      reply->m_params->emplace(orv::ORV_PARAM_KEY_EVENT_MANAGER_VERSION_STRING,
                               std::string(orv_asr::kAsrVersion));
      post(m_listener, reply, 0);
    } else if (name == orv_asr::kAsrAudio) {
      audio(message);
    } else if (name == orv_asr::kAsrAudioEnd) {
      m_audioEnded = true;
      if (m_session.transfer) drainToUpload();
    } else if (name == orv_asr::kAsrStart) {
      start(message);
    } else if (name == orv_asr::kAsrCancel) {
      cancel();
    } else if (!current(session)) {
      return;  // an event of a session already over
    } else if (name == kTokenReady) {
      tokenReady(message);
    } else if (name == kServiceLine) {
      serviceLine(text_param(message, kTextKey, ""));
    } else if (name == kTransferEnd) {
      transferEnd(message);
    } else if (name == kTimedOut) {
      fail(orv_asr::kAsrErrorTimeout,
           "no final result within " + std::to_string(m_session.timeoutMs) + " ms");
    }
  }

  // From the host's thread: no delivery runs once the queue is cancelled.
  void release_instance() override {
    if (m_queue) m_queue->cancel_sync();
    finish();
  }

  orv_weak_ptr<EventManager> m_listener;

 private:
  bool current(int session) const { return session >= 0 && m_session.id == session; }

  void audio(orv_shared_ptr<Message>& message) {
    if (!message->m_data || message->m_dataLength <= 0) return;
    m_audioEnded = false;
    m_pcm->queueAudio(reinterpret_cast<const unsigned char*>(message->m_data.getPTR()),
                      message->m_dataLength);
    if (m_session.transfer) drainToUpload();
  }

  void start(orv_shared_ptr<Message>& message) {
    finish();
    std::string url = text_param(message, orv::PARAM_KEY_SERVER_URL, "");
    std::string apiKey = text_param(message, orv_asr::kAsrParamApiKey, "");
    std::string secretKey = text_param(message, orv_asr::kAsrParamSecretKey, "");
    if (url.empty() || apiKey.empty() || secretKey.empty()) {
      report(error(orv_asr::kAsrErrorBadStart, "a session needs " + orv::PARAM_KEY_SERVER_URL +
                                                   ", " + orv_asr::kAsrParamApiKey + " and " +
                                                   orv_asr::kAsrParamSecretKey));
      return;
    }
    m_session.id = ++m_sessions;
    m_session.url = url + (url.find('?') == std::string::npos ? "?" : "&") +
                    "rate=" + std::to_string(kRate);
    m_session.timeoutMs = int_param(message, orv_asr::kAsrParamFinalTimeoutMs, 5000);
    m_skipTo = int_param(message, orv_asr::kAsrParamStartPosition,
                         m_pcm->m_logicalPos + m_pcm->m_size);

    orv_shared_ptr<TimerOrder> timerOrder(new TimerOrder());
    timerOrder->module = m_self;
    timerOrder->session = m_session.id;
    orv_shared_ptr<orv::Threads::ASRDispatchTaskBase> task(
        new orv::Threads::ASRDispatchTaskBase(&on_timer, timerOrder.getRefPtr()));
    m_session.timer = orv::Threads::RefreshTimer::createTimerWithTask(task, m_session.timeoutMs);

    orv_shared_ptr<FetchOrder> fetch(new FetchOrder());
    fetch->module = m_self;
    fetch->token = m_token;
    fetch->apiKey = apiKey;
    fetch->secretKey = secretKey;
    fetch->session = m_session.id;
    m_session.fetch = fetch;
    orv::Memory::Singleton<orv::Threads::GlobalThreadPool>::instance()->runTaskAsync(
        &fetch_token, &fetch, "Asr token");
  }

  void tokenReady(orv_shared_ptr<Message>& message) {
    std::string token = text_param(message, kTextKey, "");
    if (token.empty()) {
      fail(orv_asr::kAsrErrorToken,
           "no access token: " + text_param(message, orv::ORV_PARAM_KEY_ERROR_DESCRIPTION, ""));
      return;
    }
    orv_shared_ptr<orv_HttpRequest> request = orv_HttpRequest::requestWithUrl(m_session.url);
    request->_origin_URL = m_session.url;
    request->_transfer_mode = kDuplexPost;
    request->_headers["Authorization"] = "Bearer " + token;
    request->_headers["Content-Type"] = "audio/L16;rate=16000;channels=1";
    orv_shared_ptr<orv_http_request_maker> transfer = orv_http_request_maker::get_instance();
    {
      Registry& r = registry();
      std::lock_guard<std::mutex> lock(r.mutex);
      r.transfers[transfer.getPTR()] = Registration{this, m_self, m_session.id, std::string()};
    }
    transfer->start_request(request, &on_transfer, nullptr);
    m_session.transfer = transfer;
    if (m_session.timer) m_session.timer->refresh();
    skipToStart();
    orv_shared_ptr<Message> started = status(orv_asr::kAsrStatusStarted);
    started->m_params->emplace(orv_asr::kAsrParamStartPosition, static_cast<int>(m_pcm->m_logicalPos));
    post(m_listener, started, 0);
    drainToUpload();
  }

  // The ring never jumps past what it holds: the position must keep naming
  // the bytes that are actually stored.
  void skipToStart() {
    int end = m_pcm->m_logicalPos + m_pcm->m_size;
    if (m_skipTo > m_pcm->m_logicalPos) m_pcm->shiftToLogicPos(m_skipTo < end ? m_skipTo : end);
  }

  void drainToUpload() {
    skipToStart();
    if (m_pcm->m_size > 0) {
      int length = m_pcm->m_size;
      orv_shared_ptr<unsigned char> bytes(new unsigned char[length],
                                          &orv_shared_ptr<unsigned char>::arrayDestructor);
      m_pcm->dequeSamples(bytes.getPTR(), length, false);
      m_session.transfer->send_data(bytes, length, m_audioEnded);
    } else if (m_audioEnded) {
      orv_shared_ptr<unsigned char> none;
      m_session.transfer->send_data(none, 0, true);
    }
  }

  void serviceLine(const std::string& line) {
    if (m_session.timer) m_session.timer->refresh();
    cJSON* json = cJSON_Parse(line.c_str());
    if (!json) return;
    cJSON* type = cJSON_GetObjectItemCaseSensitive(json, "type");
    cJSON* text = cJSON_GetObjectItemCaseSensitive(json, "text");
    if (cJSON_IsString(type) && cJSON_IsString(text)) {
      bool final = std::string(type->valuestring) == "final";
      orv_shared_ptr<Message> result =
          status(final ? orv_asr::kAsrStatusFinal : orv_asr::kAsrStatusPartial);
      result->m_params->emplace(orv::CALLBACK_ASR_RESULT, std::string(text->valuestring));
      if (final) result->m_params->emplace(orv_asr::kAsrParamJson, line);
      if (final) finish();
      post(m_listener, result, 0);
    }
    cJSON_Delete(json);
  }

  void transferEnd(orv_shared_ptr<Message>& message) {
    int code = int_param(message, orv::ORV_PARAM_KEY_ERROR_CODE, 0);
    int httpStatus = int_param(message, kStatusKey, 0);
    std::string body = text_param(message, kTextKey, "");
    if (code != 0) {
      fail(orv_asr::kAsrErrorService, "cannot reach the speech service at " + m_session.url +
                                          " (transfer error " + std::to_string(code) + ")");
    } else if (httpStatus != 200) {
      fail(orv_asr::kAsrErrorService, "the speech service refused the session: HTTP " +
                                          std::to_string(httpStatus) + " " + body);
    } else {
      fail(orv_asr::kAsrErrorService, "the speech service ended the stream without a final result");
    }
  }

  void cancel() {
    finish();
    int open = 0;
    {
      Registry& r = registry();
      std::lock_guard<std::mutex> lock(r.mutex);
      for (const auto& entry : r.transfers) open += entry.second.owner == this ? 1 : 0;
    }
    orv_shared_ptr<Message> cancelled = status(orv_asr::kAsrStatusCancelled);
    cancelled->m_params->emplace(orv_asr::kAsrParamOpenTransfers, open);
    post(m_listener, cancelled, 0);
  }

  void fail(int code, const std::string& text) {
    finish();
    report(error(code, text));
  }

  // Ends the session, if any: nothing of it reaches the host afterwards.
  void finish() {
    if (m_session.timer) m_session.timer->cancel();
    if (m_session.fetch) m_token->cancelTokenWaitWithHandle(&m_session.fetch->cancelled);
    orv_shared_ptr<orv_http_request_maker> transfer = m_session.transfer;
    if (transfer) {
      Registry& r = registry();
      std::lock_guard<std::mutex> lock(r.mutex);
      r.transfers.erase(transfer.getPTR());
    }
    m_session = Session();
    // Outside the registry's lock: a callback in progress may be waiting for it.
    if (transfer) {
      transfer->cancel();
      transfer->release_instance();
    }
  }

  orv_shared_ptr<Message> status(int value) {
    orv_shared_ptr<Message> message = new_message(orv::asr_callback_name);
    message->m_params->emplace(orv::CALLBACK_ASR_STATUS, value);
    return message;
  }

  orv_shared_ptr<Message> error(int code, const std::string& text) {
    orv_shared_ptr<Message> message = status(orv_asr::kAsrStatusError);
    message->m_params->emplace(orv::ORV_PARAM_KEY_ERROR_CODE, code);
    message->m_params->emplace(orv::ORV_PARAM_KEY_ERROR_DESCRIPTION, text);
    return message;
  }

  void report(orv_shared_ptr<Message> message) { post(m_listener, message, 0); }

  // Touched only on the module's queue (and by release_instance once idle).
  orv_shared_ptr<orv::PCMQueue> m_pcm;
  orv_shared_ptr<orv::orv_AccessToken> m_token;
  Session m_session;
  int m_sessions = 0;
  int m_skipTo = 0;
  bool m_audioEnded = false;
};

orv_shared_ptr<EventManager> load(orv_weak_ptr<orv::Context> context,
                                  orv_weak_ptr<EventManager> listener) {
  orv_shared_ptr<EventManager> manager(new AsrManager(context, listener));
  manager->m_self = manager;
  return manager;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) void VeltoSpeechAsr_INIT() {
  orv::SpeechSDKModuleLoader::registerLoadFunction(load, orv_asr::kAsrModuleName);
}
