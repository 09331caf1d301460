// orv-demo: a host application. It loads the Echo speech module from its
// shared library, talks to it through messages, streams a generated tone to
// a speech server through it, fetches an access token and shows the device
// identity, printing a timeline of every step. With no server given it runs
// the project's loopback stand-in of the speech service and stops it at the
// end. Exit status 0 when every step passed; otherwise 1 with the reason.
#include <curl/curl.h>
#include <errno.h>
#include <math.h>
#include <openssl/evp.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <orv/orv.h>

#include "examples/host/service_process.h"
#include "examples/modules/echo/EchoModule.h"

namespace {

using orv::EventManager;
using orv::Message;
using orv::ParamMap;
using orv::Memory::orv_shared_ptr;
using orv::Memory::orv_weak_ptr;
using orv::Networking::orv_http_request_maker;
using orv::Networking::orv_HttpRequest;
using orv::Networking::orv_HttpResponse;

const char* const kUsage =
    "usage: orv-demo [options]\n"
    "\n"
    "Loads the Echo speech module, streams 3 s of a 16 kHz 16-bit mono tone to\n"
    "the speech server through it, fetches an access token and prints the\n"
    "device identity, with a timeline of every step.\n"
    "\n"
    "  --log-level N          library log level: 0 quiet (default), 1 FATAL,\n"
    "                         2 ERROR, 3 WARN, 5 DEBUG, 6 TRACE (standard error)\n"
    "  --module-dir DIR       where libVeltoSpeechEcho.so is (default: the build's\n"
    "                         module directory, " ORV_DEMO_MODULE_DIR ")\n"
    "  --server URL           speech server base URL; the tone goes to URL/upload\n"
    "                         and is checked at URL/upload_result (default: start\n"
    "                         the loopback stand-in)\n"
    "  --token-endpoint URL   OAuth 2.0 token endpoint (default: the stand-in's\n"
    "                         /oauth/2.0/token; required with --server)\n"
    "  --api-key KEY          API key (default: demo-api-key)\n"
    "  --secret-key KEY       secret key (default: demo-secret-key)\n"
    "  --data-dir DIR         writable data folder, identity file included\n"
    "                         (default: $HOME/.orv-demo/, else /tmp/orv-demo/)\n"
    "  --no-verify            do not ask the server what it received\n"
    "  --no-pace              send the frames at once, not one per 100 ms\n"
    "  --wait-ms N            bound for each wait on the module or server\n"
    "                         (default 20000)\n"
    "  --help                 this text\n";

struct Options {
  int logLevel = 0;
  std::string moduleDir = ORV_DEMO_MODULE_DIR;
  std::string server;
  std::string tokenEndpoint;
  std::string apiKey = "demo-api-key";
  std::string secretKey = "demo-secret-key";
  std::string dataDir;
  bool verify = true;
  bool pace = true;
  int waitMs = 20000;
};

// One line per step: milliseconds since start, then the text.
class Timeline {
 public:
  Timeline() : m_start(std::chrono::steady_clock::now()) {}

  void step(const char* format, ...) __attribute__((format(printf, 2, 3))) {
    char text[1024];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    long long ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                       std::chrono::steady_clock::now() - m_start)
                       .count();
    std::lock_guard<std::mutex> lock(m_mutex);
    printf("%7lld ms  %s\n", ms, text);
    fflush(stdout);
  }

 private:
  std::chrono::steady_clock::time_point m_start;
  std::mutex m_mutex;
};

Timeline* g_timeline = nullptr;

int fail(const char* format, ...) __attribute__((format(printf, 1, 2)));
int fail(const char* format, ...) {
  char text[1024];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  if (g_timeline) g_timeline->step("FAILED: %s", text);
  fprintf(stderr, "orv-demo: %s\n", text);
  return 1;
}

std::string with_slash(const std::string& dir) {
  return dir.empty() || dir.back() == '/' ? dir : dir + "/";
}

bool make_dirs(const std::string& path) {
  for (size_t at = 1; at <= path.size(); ++at) {
    if (at == path.size() || path[at] == '/') {
      std::string part = path.substr(0, at);
      if (mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) return false;
    }
  }
  return true;
}

std::string sha256_hex(const std::string& data) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  EVP_Digest(data.data(), data.size(), digest, &size, EVP_sha256(), nullptr);
  static const char hex[] = "0123456789abcdef";
  std::string out;
  for (unsigned i = 0; i < size; ++i) {
    out += hex[digest[i] >> 4];
    out += hex[digest[i] & 15];
  }
  return out;
}

// 3 s of a 440 Hz tone, 16 kHz, 16-bit little-endian mono.
std::string make_tone(int seconds) {
  const int rate = 16000;
  std::string pcm;
  pcm.reserve(static_cast<size_t>(rate) * seconds * 2);
  for (int i = 0; i < rate * seconds; ++i) {
    int16_t sample = static_cast<int16_t>(lround(8000.0 * sin(2.0 * M_PI * 440.0 * i / rate)));
    pcm += static_cast<char>(sample & 0xff);
    pcm += static_cast<char>((sample >> 8) & 0xff);
  }
  return pcm;
}

// What the host learns from the module, filled on pool threads.
struct Events {
  std::mutex mutex;
  std::condition_variable changed;
  std::string version;
  bool customAnswered = false;
  int customCode = 0;
  std::string customText;
  bool started = false;
  bool finished = false;
  int httpStatus = 0;
  bool failed = false;
  int errorCode = 0;
  std::string errorText;
  int progressReports = 0;
};

// The host's own event manager: the module's listener. Deliveries come
// through the context's serial queue, one at a time, on pool threads.
class HostListener : public EventManager {
 public:
  HostListener(orv_weak_ptr<orv::Context>& context, Events& events)
      : EventManager(context), m_events(events) {}

  void send(orv_shared_ptr<Message>& message) override {
    ParamMap empty;
    ParamMap& params = message->m_params ? *message->m_params : empty;
    std::unique_lock<std::mutex> lock(m_events.mutex);
    if (message->m_name == orv::ORV_CALLBACK_EVENT_MANAGER_VERSION) {
      m_events.version = text(params, orv::ORV_PARAM_KEY_EVENT_MANAGER_VERSION_STRING);
    } else if (message->m_name == orv::ORV_CORE_PLATFORM_CUSTOM_COMMAND_RESULT) {
      m_events.customAnswered = true;
      m_events.customCode = number(params, orv::ORV_PARAM_KEY_ERROR_CODE);
      m_events.customText = text(params, orv::ORV_PARAM_KEY_ERROR_DESCRIPTION);
    } else if (message->m_name == orv::asr_callback_name) {
      int status = number(params, orv::CALLBACK_ASR_STATUS);
      if (status == orv_echo::kEchoStatusStarted) {
        m_events.started = true;
        g_timeline->step("module: upload open");
      } else if (status == orv_echo::kEchoStatusProgress) {
        m_events.progressReports++;
        int bytes = number(params, orv_echo::kEchoParamBytes);
        g_timeline->step("module: %d bytes queued (%.1f s of audio)", bytes, bytes / 32000.0);
      } else if (status == orv_echo::kEchoStatusFinished) {
        m_events.finished = true;
        m_events.httpStatus = number(params, orv_echo::kEchoParamHttpStatus);
        g_timeline->step("module: upload ended, HTTP %d", m_events.httpStatus);
      } else if (status == orv_echo::kEchoStatusError) {
        m_events.failed = true;
        m_events.errorCode = number(params, orv::ORV_PARAM_KEY_ERROR_CODE);
        m_events.errorText = text(params, orv::ORV_PARAM_KEY_ERROR_DESCRIPTION);
        g_timeline->step("module: upload failed, error %d (%s)", m_events.errorCode,
                         m_events.errorText.c_str());
      }
    }
    m_events.changed.notify_all();
  }

 private:
  static std::string text(ParamMap& params, const std::string& key) {
    ParamMap::iterator it = params.find(key);
    static const std::string type = orv::param<std::string>(std::string()).get_value_type();
    return it != params.end() && it->second.get_value_type() == type ? it->second.valueString()
                                                                       : std::string();
  }
  static int number(ParamMap& params, const std::string& key) {
    ParamMap::iterator it = params.find(key);
    return it != params.end() && it->second.get_value_type() == "i" ? it->second.valueInt() : 0;
  }

  Events& m_events;
};

orv_shared_ptr<Message> command(const std::string& name) {
  orv_shared_ptr<Message> message(new Message());
  message->m_name = name;
  message->m_params = orv_shared_ptr<ParamMap>(new ParamMap());
  return message;
}

orv_shared_ptr<char> c_string(const std::string& s) {
  char* block = new char[s.size() + 1];
  memcpy(block, s.c_str(), s.size() + 1);
  return orv_shared_ptr<char>(block, &orv_shared_ptr<char>::arrayDestructor);
}

// A one-shot GET through the library; the body, or "" with error set.
std::string http_get(const std::string& url, int timeoutMs, std::string& error) {
  orv_shared_ptr<orv_HttpRequest> request = orv_HttpRequest::requestWithUrl(url);
  request->_origin_URL = url;
  request->_timeout_ms = timeoutMs;
  orv_shared_ptr<orv_HttpResponse> response = orv_http_request_maker::execute(request);
  if (!response || response->_error_code != 0 || response->_http_status != 200 ||
      response->_length < 2) {
    error = "no answer from " + url;
    return std::string();
  }
  return std::string(response->_data.getPTR(), response->_length - 1);
}

bool parse(int argc, char** argv, Options& options, int& exitCode) {
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    auto value = [&](std::string& out) {
      if (i + 1 >= argc) return false;
      out = argv[++i];
      return true;
    };
    std::string v;
    if (arg == "--help" || arg == "-h") {
      fputs(kUsage, stdout);
      exitCode = 0;
      return false;
    } else if (arg == "--no-verify") {
      options.verify = false;
    } else if (arg == "--no-pace") {
      options.pace = false;
    } else if (arg == "--log-level" && value(v)) {
      options.logLevel = atoi(v.c_str());
    } else if (arg == "--wait-ms" && value(v)) {
      options.waitMs = atoi(v.c_str()) > 0 ? atoi(v.c_str()) : options.waitMs;
    } else if (arg == "--module-dir" && value(v)) {
      options.moduleDir = v;
    } else if (arg == "--server" && value(v)) {
      options.server = v;
    } else if (arg == "--token-endpoint" && value(v)) {
      options.tokenEndpoint = v;
    } else if (arg == "--api-key" && value(v)) {
      options.apiKey = v;
    } else if (arg == "--secret-key" && value(v)) {
      options.secretKey = v;
    } else if (arg == "--data-dir" && value(v)) {
      options.dataDir = v;
    } else {
      fprintf(stderr, "orv-demo: bad argument '%s' (see --help)\n", arg.c_str());
      exitCode = 2;
      return false;
    }
  }
  if (!options.server.empty() && options.tokenEndpoint.empty()) {
    fprintf(stderr, "orv-demo: --server needs --token-endpoint as well\n");
    exitCode = 2;
    return false;
  }
  while (!options.server.empty() && options.server.back() == '/') options.server.pop_back();
  return true;
}

int run(const Options& options, Timeline& timeline) {
  // 1. Logging and paths: before anything else of the library runs.
  orv::set_log_level(options.logLevel);
  std::string dataDir = options.dataDir;
  if (dataDir.empty()) {
    const char* home = getenv("HOME");
    dataDir = home && *home ? std::string(home) + "/.orv-demo/" : "/tmp/orv-demo/";
  }
  dataDir = with_slash(dataDir);
  if (!make_dirs(dataDir)) return fail("cannot create the data folder %s", dataDir.c_str());
  orv::PlatformPaths::setWriteableTempPath(dataDir);
  orv::PlatformPaths::setWriteableLibraryDataPath(dataDir);
  orv::PlatformPaths::setWriteableUserDataPath(dataDir);
  timeline.step("start: log level %d, writable paths %s", options.logLevel, dataDir.c_str());

  // 2. The speech server: the loopback stand-in unless one was given.
  orv_host::ServiceProcess standIn;
  std::string server = options.server;
  std::string tokenEndpoint = options.tokenEndpoint;
  if (server.empty()) {
    std::string error;
    std::string certDir = dataDir + "stand-in/";
    if (!make_dirs(certDir)) return fail("cannot create %s", certDir.c_str());
    const char* env = getenv("ORV_DEMO_SERVER_SCRIPT");
    std::string script = env && *env ? env : ORV_DEMO_SERVER_SCRIPT;
    if (!standIn.start("python3", script, certDir, options.waitMs, error))
      return fail("%s", error.c_str());
    server = "http://127.0.0.1:" + std::to_string(standIn.port());
    if (tokenEndpoint.empty()) tokenEndpoint = server + "/oauth/2.0/token";
    timeline.step("server: loopback stand-in listening at %s (pid %d)", server.c_str(),
                  static_cast<int>(standIn.pid()));
  } else {
    timeline.step("server: %s", server.c_str());
  }

  // 3. A context, the host's listener in it, and the module from its library.
  Events events;
  orv_shared_ptr<orv::Context> context = orv::Context::newContext();
  orv_weak_ptr<orv::Context> contextRef(context);
  orv_shared_ptr<EventManager> listener(new HostListener(contextRef, events));
  listener->m_self = listener;
  orv_weak_ptr<EventManager> listenerRef(listener);

  std::string moduleDir = with_slash(options.moduleDir);
  orv::SpeechSDKModuleLoader::setDynLibBasePath(moduleDir);
  std::string loadError;
  orv_shared_ptr<EventManager> echo = orv::SpeechSDKModuleLoader::loadModule(
      orv_echo::kEchoModuleName, contextRef, listenerRef, loadError);
  if (!echo) {
    context->release_instance();
    return fail("cannot load module %s from %s: %s", orv_echo::kEchoModuleName,
                moduleDir.c_str(), loadError.c_str());
  }
  orv_weak_ptr<EventManager> echoRef(echo);
  timeline.step("module: %s loaded from %slibVeltoSpeech%s.so", orv_echo::kEchoModuleName,
                moduleDir.c_str(), orv_echo::kEchoModuleName);

  // Ends the module and the context on every path from here on.
  struct Teardown {
    orv_shared_ptr<EventManager>& echo;
    orv_shared_ptr<orv::Context>& context;
    ~Teardown() {
      echo->release_instance();
      context->release_instance();
    }
  } teardown{echo, context};

  auto wait_for = [&](const std::function<bool()>& done) {
    std::unique_lock<std::mutex> lock(events.mutex);
    return events.changed.wait_for(lock, std::chrono::milliseconds(options.waitMs), done);
  };

  // 4. Version and an unknown custom command.
  orv_shared_ptr<Message> version = command(orv::ORV_COMMAND_GET_EVENT_MANAGER_VERSION);
  listener->post(echoRef, version, 0);
  if (!wait_for([&] { return !events.version.empty(); }))
    return fail("the module did not answer the version query");
  timeline.step("version: %s", events.version.c_str());

  const std::string unknown = "demo.no_such_command";
  orv_shared_ptr<Message> custom = command(orv::ORV_CORE_PLATFORM_CUSTOM_COMMAND);
  custom->m_params->emplace(orv::ORV_CORE_PLATFORM_CUSTOM_COMMAND_NAME_STRING, unknown);
  listener->post(echoRef, custom, 0);
  if (!wait_for([&] { return events.customAnswered; }))
    return fail("the module did not answer the custom command");
  timeline.step("custom command %s: error %d, \"%s\"", unknown.c_str(), events.customCode,
                events.customText.c_str());
  if (events.customCode != orv::ORV_CORE_PLATFORM_CUSTOM_COMMAND_ERROR_UNKNOWN_COMMAND)
    return fail("unexpected answer to an unknown custom command");

  // 5. 3 s of tone in 100 ms frames, streamed by the module.
  const std::string uploadId = orv::UUIDFactory::generateUUID();
  const std::string uploadUrl = server + "/upload?id=" + uploadId;
  const std::string tone = make_tone(3);
  const int frameBytes = 3200;
  orv_shared_ptr<Message> start = command(orv_echo::kEchoAudioStart);
  start->m_params->emplace(orv::PARAM_KEY_SERVER_URL, uploadUrl);
  start->m_params->emplace(orv::PARAM_KEY_SAMPLE_RATE_INT, 16000);
  listener->post(echoRef, start, 0);
  timeline.step("audio: %zu bytes of 440 Hz tone in %zu frames of %d bytes to %s", tone.size(),
                tone.size() / frameBytes, frameBytes, uploadUrl.c_str());
  auto next = std::chrono::steady_clock::now();
  for (size_t at = 0; at < tone.size(); at += frameBytes) {
    orv_shared_ptr<Message> frame = command(orv_echo::kEchoAudioData);
    char* block = new char[frameBytes];
    memcpy(block, tone.data() + at, frameBytes);
    frame->m_data = orv_shared_ptr<char>(block, &orv_shared_ptr<char>::arrayDestructor);
    frame->m_dataLength = frameBytes;
    listener->post(echoRef, frame, 0);
    // A microphone delivers a frame every 100 ms.
    next += std::chrono::milliseconds(100);
    if (options.pace) std::this_thread::sleep_until(next);
  }
  orv_shared_ptr<Message> end = command(orv_echo::kEchoAudioEnd);
  listener->post(echoRef, end, 0);
  timeline.step("audio: last frame sent, waiting for the upload to end");
  if (!wait_for([&] { return events.finished || events.failed; }))
    return fail("the upload did not end within %d ms", options.waitMs);
  if (events.failed)
    return fail("the upload to %s failed: error %d, %s", uploadUrl.c_str(), events.errorCode,
                events.errorText.c_str());

  if (options.verify) {
    std::string error;
    std::string record = http_get(server + "/upload_result?id=" + uploadId, options.waitMs, error);
    if (record.empty()) return fail("cannot verify the upload: %s", error.c_str());
    unsigned long long bytes = 0;
    char digest[80] = "";
    char state[16] = "";
    if (sscanf(record.c_str(), "bytes %llu chunks %*d sha256 %79s state %15s", &bytes, digest,
               state) != 3)
      return fail("unexpected upload record: %s", record.c_str());
    std::string expected = sha256_hex(tone);
    if (bytes != tone.size() || expected != digest || strcmp(state, "done") != 0)
      return fail("the server received %llu bytes, sha256 %s, state %s; sent %zu bytes, sha256 %s",
                  bytes, digest, state, tone.size(), expected.c_str());
    timeline.step("verify: server received %llu bytes, sha256 %.16s... matches", bytes, digest);
  }

  // 6. The access token.
  orv::orv_AccessToken::setTokenEndpoint(tokenEndpoint);
  orv_shared_ptr<orv::orv_AccessToken> token = orv::orv_AccessToken::alloc();
  token->setKeys(c_string(options.apiKey), c_string(options.secretKey));
  orv_shared_ptr<char> tokenError;
  orv_shared_ptr<char> accessToken = token->getAccessToken(&tokenError, nullptr);
  if (!accessToken)
    return fail("no access token from %s: %s", tokenEndpoint.c_str(),
                tokenError ? tokenError.getPTR() : "(no reason given)");
  timeline.step("token: %s from %s", accessToken.getPTR(), tokenEndpoint.c_str());

  // 7. The device identity (kept in the data folder across runs).
  std::string identity = orv::UUIDFactory::getIdentity();
  timeline.step("identity: %s (%sORV_Ident.dat)", identity.c_str(),
                orv::PlatformPaths::getWriteableLibraryDataPath().c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  int exitCode = 0;
  if (!parse(argc, argv, options, exitCode)) return exitCode;
  // liborv never initialises libcurl: the application does, once, on its main
  // thread before any other thread runs (else the first transfer, on a pool
  // thread, would set up libcurl and OpenSSL there).
  if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
    fprintf(stderr, "orv-demo: curl_global_init failed\n");
    return 1;
  }
  Timeline timeline;
  g_timeline = &timeline;
  int status = run(options, timeline);
  if (status == 0) timeline.step("done: every step passed");
  g_timeline = nullptr;
  return status;
}
