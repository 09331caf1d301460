// orv-assistant: a voice assistant host. It loads three speech modules from
// their shared libraries (Wakeup, Asr, Tts), makes an utterance such as
// "listen robot, turn on the kitchen light" (or reads one from a WAV file),
// feeds it to Wakeup in 100 ms frames as a microphone would, starts a
// recognition session with Asr at the wake-up point, maps the final text to a
// reply, speaks the reply through Tts into a WAV file, and prints a timeline
// with the figures of the run. With no server given it runs the embedded
// speech service and stops it at the end. Exit status 0 when every step
// passed; otherwise 1 with the reason.
#include <curl/curl.h>
#include <dirent.h>
#include <errno.h>
#include <math.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <orv/orv.h>

#include "examples/host/service_process.h"
#include "examples/modules/asr/AsrModule.h"
#include "examples/modules/tts/TtsModule.h"
#include "examples/modules/wakeup/WakeupModule.h"

namespace {

using orv::EventManager;
using orv::Message;
using orv::ParamMap;
using orv::Memory::orv_shared_ptr;
using orv::Memory::orv_weak_ptr;
using Clock = std::chrono::steady_clock;

const int kRate = 16000;
const int kFrameBytes = 3200;  // 100 ms
const char* const kPython = "/usr/bin/python3";

const char* const kUsage =
    "usage: orv-assistant [options]\n"
    "\n"
    "Loads the Wakeup, Asr and Tts speech modules, says \"<wake phrase>, <command>\"\n"
    "with eSpeak NG (or reads --input), feeds it in 100 ms frames to Wakeup, starts\n"
    "recognition at the wake-up point, answers the command and speaks the reply\n"
    "into a WAV file, with a timeline of every step and the run's figures.\n"
    "\n"
    "  --say TEXT             the command after the wake phrase (default: turn on\n"
    "                         the kitchen light)\n"
    "  --utterance TEXT       say exactly TEXT instead (no wake phrase added, the\n"
    "                         final text is not checked)\n"
    "  --voice NAME           eSpeak NG voice of the utterance (default en-us)\n"
    "  --input FILE.wav       read the utterance instead (16 kHz 16-bit mono PCM)\n"
    "  --wake-phrase TEXT     the wake phrase (default: listen robot)\n"
    "  --wake-threshold X     spotting threshold (default 1e-20; lower finds more)\n"
    "  --fast                 feed the audio as fast as possible, not in real time\n"
    "  --reply FILE           where the spoken reply goes (default: DATA-DIR/reply.wav)\n"
    "  --reply-voice NAME     eSpeak NG voice of the reply (default en-us)\n"
    "  --server URL           speech service base URL; recognition at\n"
    "                         URL/v1/recognize (default: start the embedded service)\n"
    "  --token-endpoint URL   OAuth 2.0 token endpoint (default: the embedded\n"
    "                         service's /oauth/2.0/token; required with --server)\n"
    "  --api-key KEY          API key (default: demo-api-key)\n"
    "  --secret-key KEY       secret key (default: demo-secret-key)\n"
    "  --final-timeout-ms N   end a session that hears nothing from the service\n"
    "                         for N ms (default 5000)\n"
    "  --cancel-after-ms N    cancel the session N ms after it opened and check\n"
    "                         that it was released (no reply then)\n"
    "  --module-dir DIR       where the module libraries are (default: the build's\n"
    "                         module directory, " ORV_ASSISTANT_MODULE_DIR ")\n"
    "  --data-dir DIR         writable data folder (default: $HOME/.orv-assistant/,\n"
    "                         else /tmp/orv-assistant/)\n"
    "  --log-level N          library log level: 0 quiet (default) .. 6 TRACE\n"
    "  --wait-ms N            bound for each wait on a module (default 20000)\n"
    "  --help                 this text\n";

struct Options {
  std::string say = "turn on the kitchen light";
  std::string utterance;
  std::string voice = "en-us";
  std::string input;
  std::string wakePhrase = orv_wakeup::kWakeupDefaultPhrase;
  std::string wakeThreshold = orv_wakeup::kWakeupDefaultThreshold;
  bool fast = false;
  std::string reply;
  std::string replyVoice = "en-us";
  std::string server;
  std::string tokenEndpoint;
  std::string apiKey = "demo-api-key";
  std::string secretKey = "demo-secret-key";
  int finalTimeoutMs = 5000;
  int cancelAfterMs = -1;
  std::string moduleDir = ORV_ASSISTANT_MODULE_DIR;
  std::string dataDir;
  int logLevel = 0;
  int waitMs = 20000;
};

// One line per step: milliseconds since start, then the text.
class Timeline {
 public:
  Timeline() : m_start(Clock::now()) {}

  long long ms(Clock::time_point t) const {
    return std::chrono::duration_cast<std::chrono::milliseconds>(t - m_start).count();
  }

  void step(const char* format, ...) __attribute__((format(printf, 2, 3))) {
    char text[1024];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    std::lock_guard<std::mutex> lock(m_mutex);
    printf("%7lld ms  %s\n", ms(Clock::now()), text);
    fflush(stdout);
  }

 private:
  Clock::time_point m_start;
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
  fprintf(stderr, "orv-assistant: %s\n", text);
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

double seconds(size_t bytes) { return bytes / (2.0 * kRate); }

// A 16 kHz 16-bit mono PCM WAV file's samples; false with error set otherwise.
bool read_wav(const std::string& path, std::vector<int16_t>& samples, std::string& error) {
  FILE* file = fopen(path.c_str(), "rb");
  if (!file) {
    error = "cannot open " + path;
    return false;
  }
  std::vector<unsigned char> bytes;
  unsigned char buffer[65536];
  size_t n;
  while ((n = fread(buffer, 1, sizeof(buffer), file)) > 0) bytes.insert(bytes.end(), buffer, buffer + n);
  fclose(file);
  auto u32 = [&](size_t at) {
    return static_cast<uint32_t>(bytes[at] | bytes[at + 1] << 8 | bytes[at + 2] << 16 |
                                 static_cast<uint32_t>(bytes[at + 3]) << 24);
  };
  auto u16 = [&](size_t at) { return static_cast<unsigned>(bytes[at] | bytes[at + 1] << 8); };
  if (bytes.size() < 12 || memcmp(bytes.data(), "RIFF", 4) != 0 || memcmp(&bytes[8], "WAVE", 4) != 0) {
    error = path + " is not a WAV file";
    return false;
  }
  bool formatOk = false;
  for (size_t at = 12; at + 8 <= bytes.size();) {
    uint32_t size = u32(at + 4);
    size_t body = at + 8;
    if (memcmp(&bytes[at], "fmt ", 4) == 0 && body + 16 <= bytes.size()) {
      formatOk = u16(body) == 1 && u16(body + 2) == 1 && u32(body + 4) == kRate && u16(body + 14) == 16;
    } else if (memcmp(&bytes[at], "data", 4) == 0) {
      if (!formatOk) break;
      size_t end = body + size <= bytes.size() ? body + size : bytes.size();
      for (size_t i = body; i + 1 < end; i += 2)
        samples.push_back(static_cast<int16_t>(bytes[i] | bytes[i + 1] << 8));
      return true;
    }
    at = body + size + (size & 1);
  }
  error = path + " is not 16 kHz 16-bit mono PCM";
  return false;
}

// A microphone's view of synthetic speech: half a second of room around it
// and a noise floor near -50 dBFS (the en-us model needs both).
std::vector<int16_t> like_a_microphone(const std::vector<int16_t>& speech) {
  std::vector<int16_t> out(kRate / 2, 0);
  out.insert(out.end(), speech.begin(), speech.end());
  out.insert(out.end(), kRate / 2, 0);
  std::mt19937 random(12345);
  std::normal_distribution<double> noise(0.0, 32768.0 * pow(10.0, -50.0 / 20.0));
  for (int16_t& s : out) {
    long v = lround(s + noise(random));
    s = static_cast<int16_t>(v > 32767 ? 32767 : v < -32768 ? -32768 : v);
  }
  return out;
}

// The byte just after the last 10 ms block louder than -35 dBFS.
size_t end_of_speech(const std::vector<int16_t>& samples) {
  const size_t block = kRate / 100;
  const double floor = 32768.0 * pow(10.0, -35.0 / 20.0);
  size_t end = 0;
  for (size_t at = 0; at + block <= samples.size(); at += block) {
    double sum = 0;
    for (size_t i = at; i < at + block; ++i) sum += static_cast<double>(samples[i]) * samples[i];
    if (sqrt(sum / block) > floor) end = at + block;
  }
  return end * 2;
}

// The intent table: a pattern with at most one "*" and its reply.
std::string reply_to(const std::string& text) {
  struct Intent {
    const char* pattern;
    const char* reply;
  };
  static const Intent intents[] = {
      {"turn on the * light", "the * light is on"},
      {"turn off the * light", "the * light is off"},
      {"what time is it", "it is *"},
      {"play music", "playing music"},
      {"stop music", "the music is stopped"},
  };
  for (const Intent& intent : intents) {
    std::string pattern = intent.pattern;
    std::string fill;
    size_t star = pattern.find('*');
    if (star == std::string::npos) {
      if (text != pattern) continue;
    } else {
      std::string head = pattern.substr(0, star), tail = pattern.substr(star + 1);
      if (text.size() <= head.size() + tail.size() || text.compare(0, head.size(), head) != 0 ||
          text.compare(text.size() - tail.size(), tail.size(), tail) != 0)
        continue;
      fill = text.substr(head.size(), text.size() - head.size() - tail.size());
    }
    std::string reply = intent.reply;
    if (std::string(intent.pattern) == "what time is it") {
      time_t now = time(nullptr);
      struct tm local;
      localtime_r(&now, &local);
      char clock[16];
      snprintf(clock, sizeof(clock), "%d:%02d", local.tm_hour, local.tm_min);
      fill = clock;
    }
    size_t at = reply.find('*');
    if (at != std::string::npos) reply.replace(at, 1, fill);
    return reply;
  }
  return "sorry, I did not catch that";
}

long long process_cpu_us() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000000LL + usage.ru_utime.tv_usec +
         usage.ru_stime.tv_usec;
}

int thread_count() {
  int count = 0;
  DIR* dir = opendir("/proc/self/task");
  if (!dir) return -1;
  while (dirent* entry = readdir(dir)) count += entry->d_name[0] != '.' ? 1 : 0;
  closedir(dir);
  return count;
}

// What the host learns from the modules, filled on pool threads.
struct Events {
  std::mutex mutex;
  std::condition_variable changed;
  // Wakeup
  bool listening = false, detected = false, wakeStopped = false;
  int wakePosition = 0, wakeScore = 0, wakeCpuUs = 0;
  std::string wakeError;
  // Asr
  bool asrStarted = false, final = false, cancelled = false;
  int asrStart = 0, openTransfers = -1, partials = 0;
  std::string finalText, asrError;
  Clock::time_point asrStartedAt, finalAt;
  // Tts
  bool ttsStarted = false, ttsFinished = false;
  int ttsRate = 0, ttsSamples = 0, ttsCpuUs = 0;
  std::vector<int16_t> ttsAudio;
  bool keepTtsAudio = false;
  bool firstAudioSeen = false;
  Clock::time_point firstAudioAt;
  std::string ttsError, wavPath;
};

std::string text(ParamMap& params, const std::string& key) {
  ParamMap::iterator it = params.find(key);
  static const std::string type = orv::param<std::string>(std::string()).get_value_type();
  return it != params.end() && it->second.get_value_type() == type ? it->second.valueString()
                                                                     : std::string();
}

int number(ParamMap& params, const std::string& key) {
  ParamMap::iterator it = params.find(key);
  return it != params.end() && it->second.get_value_type() == "i" ? it->second.valueInt() : 0;
}

// The host's own event manager, the listener of all three modules.
// Deliveries come through the context's serial queue, on pool threads.
class HostListener : public EventManager {
 public:
  HostListener(orv_weak_ptr<orv::Context>& context, Events& events)
      : EventManager(context), m_events(events) {}

  void send(orv_shared_ptr<Message>& message) override {
    ParamMap empty;
    ParamMap& params = message->m_params ? *message->m_params : empty;
    std::unique_lock<std::mutex> lock(m_events.mutex);
    if (message->m_name == orv::wakeup_callback_name) {
      wakeup(params);
    } else if (message->m_name == orv::asr_callback_name) {
      asr(params);
    } else if (message->m_name == orv_tts::kTtsCallbackName) {
      tts(params, message);
    }
    m_events.changed.notify_all();
  }

 private:
  void wakeup(ParamMap& params) {
    int status = number(params, orv::CALLBACK_WAK_STATUS);
    if (status == orv_wakeup::kWakeupStatusListening) {
      m_events.listening = true;
    } else if (status == orv_wakeup::kWakeupStatusDetected && !m_events.detected) {
      m_events.detected = true;
      m_events.wakePosition = number(params, orv_wakeup::kWakeupParamEndPosition);
      m_events.wakeScore = number(params, orv_wakeup::kWakeupParamScore);
      g_timeline->step("wake-up: \"%s\" ended at %.2f s of audio, score %d",
                       text(params, orv::CALLBACK_WAK_RESULT).c_str(),
                       seconds(m_events.wakePosition), m_events.wakeScore);
    } else if (status == orv_wakeup::kWakeupStatusStopped) {
      m_events.wakeStopped = true;
      m_events.wakeCpuUs = number(params, orv_wakeup::kWakeupParamDecodeCpuUs);
    } else if (status == orv_wakeup::kWakeupStatusError) {
      m_events.wakeError = text(params, orv::ORV_PARAM_KEY_ERROR_DESCRIPTION);
    }
  }

  void asr(ParamMap& params) {
    int status = number(params, orv::CALLBACK_ASR_STATUS);
    if (status == orv_asr::kAsrStatusStarted) {
      m_events.asrStarted = true;
      m_events.asrStartedAt = Clock::now();
      m_events.asrStart = number(params, orv_asr::kAsrParamStartPosition);
      g_timeline->step("asr: session open, audio from %.2f s", seconds(m_events.asrStart));
    } else if (status == orv_asr::kAsrStatusPartial) {
      m_events.partials++;
      g_timeline->step("asr: partial \"%s\"", text(params, orv::CALLBACK_ASR_RESULT).c_str());
    } else if (status == orv_asr::kAsrStatusFinal) {
      m_events.final = true;
      m_events.finalAt = Clock::now();
      m_events.finalText = text(params, orv::CALLBACK_ASR_RESULT);
      g_timeline->step("asr: final \"%s\"", m_events.finalText.c_str());
    } else if (status == orv_asr::kAsrStatusError) {
      m_events.asrError = text(params, orv::ORV_PARAM_KEY_ERROR_DESCRIPTION);
      g_timeline->step("asr: error %d, %s", number(params, orv::ORV_PARAM_KEY_ERROR_CODE),
                       m_events.asrError.c_str());
    } else if (status == orv_asr::kAsrStatusCancelled) {
      m_events.cancelled = true;
      m_events.openTransfers = number(params, orv_asr::kAsrParamOpenTransfers);
    }
  }

  void tts(ParamMap& params, orv_shared_ptr<Message>& message) {
    int status = number(params, orv::ORV_PARAM_KEY_STATUS);
    if (status == orv_tts::kTtsStatusStarted) {
      m_events.ttsStarted = true;
      m_events.ttsRate = number(params, orv::PARAM_KEY_SAMPLE_RATE_INT);
    } else if (status == orv_tts::kTtsStatusAudio && message->m_data) {
      if (!m_events.firstAudioSeen) {
        m_events.firstAudioSeen = true;
        m_events.firstAudioAt = Clock::now();
      }
      if (m_events.keepTtsAudio) {
        const int16_t* samples = reinterpret_cast<const int16_t*>(message->m_data.getPTR());
        m_events.ttsAudio.insert(m_events.ttsAudio.end(), samples,
                                 samples + message->m_dataLength / 2);
      }
    } else if (status == orv_tts::kTtsStatusFinished) {
      m_events.ttsFinished = true;
      m_events.ttsSamples = number(params, orv_tts::kTtsParamSamples);
      m_events.ttsCpuUs = number(params, orv_tts::kTtsParamSynthCpuUs);
      m_events.wavPath = text(params, orv_tts::kTtsParamWavPath);
    } else if (status == orv_tts::kTtsStatusError) {
      m_events.ttsError = text(params, orv::ORV_PARAM_KEY_ERROR_DESCRIPTION);
    }
  }

  Events& m_events;
};

orv_shared_ptr<Message> command(const std::string& name) {
  orv_shared_ptr<Message> message(new Message());
  message->m_name = name;
  message->m_params = orv_shared_ptr<ParamMap>(new ParamMap());
  return message;
}

orv_shared_ptr<Message> audio_frame(const std::string& name, const int16_t* samples, size_t count) {
  orv_shared_ptr<Message> frame = command(name);
  char* block = new char[count * 2];
  memcpy(block, samples, count * 2);
  frame->m_data = orv_shared_ptr<char>(block, &orv_shared_ptr<char>::arrayDestructor);
  frame->m_dataLength = static_cast<int>(count * 2);
  return frame;
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
    } else if (arg == "--fast") {
      options.fast = true;
    } else if (arg == "--say" && value(v)) {
      options.say = v;
    } else if (arg == "--utterance" && value(v)) {
      options.utterance = v;
    } else if (arg == "--voice" && value(v)) {
      options.voice = v;
    } else if (arg == "--input" && value(v)) {
      options.input = v;
    } else if (arg == "--wake-phrase" && value(v)) {
      options.wakePhrase = v;
    } else if (arg == "--wake-threshold" && value(v)) {
      options.wakeThreshold = v;
    } else if (arg == "--reply" && value(v)) {
      options.reply = v;
    } else if (arg == "--reply-voice" && value(v)) {
      options.replyVoice = v;
    } else if (arg == "--server" && value(v)) {
      options.server = v;
    } else if (arg == "--token-endpoint" && value(v)) {
      options.tokenEndpoint = v;
    } else if (arg == "--api-key" && value(v)) {
      options.apiKey = v;
    } else if (arg == "--secret-key" && value(v)) {
      options.secretKey = v;
    } else if (arg == "--final-timeout-ms" && value(v) && atoi(v.c_str()) > 0) {
      options.finalTimeoutMs = atoi(v.c_str());
    } else if (arg == "--cancel-after-ms" && value(v) && atoi(v.c_str()) >= 0) {
      options.cancelAfterMs = atoi(v.c_str());
    } else if (arg == "--module-dir" && value(v)) {
      options.moduleDir = v;
    } else if (arg == "--data-dir" && value(v)) {
      options.dataDir = v;
    } else if (arg == "--log-level" && value(v)) {
      options.logLevel = atoi(v.c_str());
    } else if (arg == "--wait-ms" && value(v) && atoi(v.c_str()) > 0) {
      options.waitMs = atoi(v.c_str());
    } else {
      fprintf(stderr, "orv-assistant: bad argument '%s' (see --help)\n", arg.c_str());
      exitCode = 2;
      return false;
    }
  }
  if (!options.server.empty() && options.tokenEndpoint.empty()) {
    fprintf(stderr, "orv-assistant: --server needs --token-endpoint as well\n");
    exitCode = 2;
    return false;
  }
  while (!options.server.empty() && options.server.back() == '/') options.server.pop_back();
  return true;
}

// The modules and the context, released on every path out of run().
struct Modules {
  orv_shared_ptr<orv::Context> context;
  orv_shared_ptr<EventManager> listener;
  orv_shared_ptr<EventManager> wakeup, asr, tts;
  orv_weak_ptr<EventManager> wakeupRef, asrRef, ttsRef;

  ~Modules() {
    if (wakeup) wakeup->release_instance();
    if (asr) asr->release_instance();
    if (tts) tts->release_instance();
    if (context) context->release_instance();
  }

  void post(orv_weak_ptr<EventManager>& to, orv_shared_ptr<Message> message) {
    listener->post(to, message, 0);
  }
};

int run(const Options& options, Timeline& timeline) {
  // 1. Logging and paths: before anything else of the library runs.
  orv::set_log_level(options.logLevel);
  std::string dataDir = options.dataDir;
  if (dataDir.empty()) {
    const char* home = getenv("HOME");
    dataDir = home && *home ? std::string(home) + "/.orv-assistant/" : "/tmp/orv-assistant/";
  }
  dataDir = with_slash(dataDir);
  if (!make_dirs(dataDir)) return fail("cannot create the data folder %s", dataDir.c_str());
  orv::PlatformPaths::setWriteableTempPath(dataDir);
  orv::PlatformPaths::setWriteableLibraryDataPath(dataDir);
  orv::PlatformPaths::setWriteableUserDataPath(dataDir);
  timeline.step("start: log level %d, writable paths %s", options.logLevel, dataDir.c_str());

  // 2. The speech service: the embedded one unless one was given.
  orv_host::ServiceProcess service;
  std::string server = options.server;
  std::string tokenEndpoint = options.tokenEndpoint;
  if (server.empty()) {
    std::string error;
    std::string certDir = dataDir + "service/";
    if (!make_dirs(certDir)) return fail("cannot create %s", certDir.c_str());
    const char* env = getenv("ORV_SPEECH_SERVICE_SCRIPT");
    std::string script = env && *env ? env : ORV_SPEECH_SERVICE_SCRIPT;
    if (!service.start(kPython, script, certDir, options.waitMs, error)) return fail("%s", error.c_str());
    server = "http://127.0.0.1:" + std::to_string(service.port());
    if (tokenEndpoint.empty()) tokenEndpoint = server + "/oauth/2.0/token";
    timeline.step("service: embedded speech service at %s (pid %d)", server.c_str(),
                  static_cast<int>(service.pid()));
  } else {
    timeline.step("service: %s", server.c_str());
  }
  orv::orv_AccessToken::setTokenEndpoint(tokenEndpoint);

  // 3. A context, the host's listener, and the three modules by name.
  Events events;
  Modules m;
  m.context = orv::Context::newContext();
  orv_weak_ptr<orv::Context> contextRef(m.context);
  m.listener = orv_shared_ptr<EventManager>(new HostListener(contextRef, events));
  m.listener->m_self = m.listener;
  orv_weak_ptr<EventManager> listenerRef(m.listener);
  std::string moduleDir = with_slash(options.moduleDir);
  orv::SpeechSDKModuleLoader::setDynLibBasePath(moduleDir);
  struct Wanted {
    const char* name;
    orv_shared_ptr<EventManager>* module;
    orv_weak_ptr<EventManager>* ref;
  } wanted[] = {{orv_wakeup::kWakeupModuleName, &m.wakeup, &m.wakeupRef},
                {orv_asr::kAsrModuleName, &m.asr, &m.asrRef},
                {orv_tts::kTtsModuleName, &m.tts, &m.ttsRef}};
  for (Wanted& w : wanted) {
    std::string error;
    *w.module = orv::SpeechSDKModuleLoader::loadModule(w.name, contextRef, listenerRef, error);
    if (!*w.module)
      return fail("cannot load module %s from %s: %s", w.name, moduleDir.c_str(), error.c_str());
    *w.ref = *w.module;
  }
  timeline.step("modules: Wakeup, Asr and Tts loaded from %s", moduleDir.c_str());

  auto wait_for = [&](const std::function<bool()>& done) {
    std::unique_lock<std::mutex> lock(events.mutex);
    return events.changed.wait_for(lock, std::chrono::milliseconds(options.waitMs), done);
  };

  // 4. The utterance: from the file, or said by the synthesiser at 16 kHz.
  std::vector<int16_t> audio;
  if (!options.input.empty()) {
    std::string error;
    if (!read_wav(options.input, audio, error)) return fail("%s", error.c_str());
    timeline.step("utterance: %s, %.2f s", options.input.c_str(), seconds(audio.size() * 2));
  } else {
    std::string said =
        options.utterance.empty() ? options.wakePhrase + ", " + options.say : options.utterance;
    orv_shared_ptr<Message> speak = command(orv_tts::kTtsSpeak);
    speak->m_params->emplace(orv_tts::kTtsParamText, said);
    speak->m_params->emplace(orv_tts::kTtsParamVoice, options.voice);
    speak->m_params->emplace(orv::PARAM_KEY_SAMPLE_RATE_INT, kRate);
    {
      std::lock_guard<std::mutex> lock(events.mutex);
      events.keepTtsAudio = true;
    }
    m.post(m.ttsRef, speak);
    if (!wait_for([&] { return events.ttsFinished || !events.ttsError.empty(); }))
      return fail("the synthesiser did not answer within %d ms", options.waitMs);
    std::lock_guard<std::mutex> lock(events.mutex);
    if (!events.ttsError.empty()) return fail("cannot say the utterance: %s", events.ttsError.c_str());
    audio = like_a_microphone(events.ttsAudio);
    events.ttsAudio.clear();
    events.keepTtsAudio = false;
    events.ttsStarted = events.ttsFinished = events.firstAudioSeen = false;
    timeline.step("utterance: \"%s\" in voice %s, %.2f s with room and noise", said.c_str(),
                  options.voice.c_str(), seconds(audio.size() * 2));
  }
  const size_t speechEnd = end_of_speech(audio);

  // 5. Wakeup listens.
  orv_shared_ptr<Message> start = command(orv_wakeup::kWakeupStart);
  start->m_params->emplace(orv_wakeup::kWakeupParamPhrase, options.wakePhrase);
  start->m_params->emplace(orv_wakeup::kWakeupParamThreshold, options.wakeThreshold);
  m.post(m.wakeupRef, start);
  if (!wait_for([&] { return events.listening || !events.wakeError.empty(); }))
    return fail("the Wakeup module did not answer within %d ms", options.waitMs);
  {
    std::lock_guard<std::mutex> lock(events.mutex);
    if (!events.wakeError.empty()) return fail("%s", events.wakeError.c_str());
  }
  timeline.step("wakeup: listening for \"%s\" (threshold %s)", options.wakePhrase.c_str(),
                options.wakeThreshold.c_str());

  // 6. The frames, to Wakeup (until it heard the phrase) and to Asr, whose
  // ring keeps the recent audio for a session starting in the past.
  timeline.step("audio: %.2f s in 100 ms frames, %s; speech ends at %.2f s",
                seconds(audio.size() * 2), options.fast ? "as fast as possible" : "in real time",
                seconds(speechEnd));
  const long long cpuAtStart = process_cpu_us();
  const Clock::time_point streamStart = Clock::now();
  Clock::time_point speechEndFed = streamStart;
  Clock::time_point sessionAsked;
  bool wakeupStopped = false, sessionAskedFor = false, cancelSent = false;
  size_t fed = 0;
  auto ask_for_session = [&](int position) {
    m.post(m.wakeupRef, command(orv_wakeup::kWakeupStop));
    wakeupStopped = true;
    orv_shared_ptr<Message> open = command(orv_asr::kAsrStart);
    open->m_params->emplace(orv::PARAM_KEY_SERVER_URL, server + "/v1/recognize");
    open->m_params->emplace(orv_asr::kAsrParamApiKey, options.apiKey);
    open->m_params->emplace(orv_asr::kAsrParamSecretKey, options.secretKey);
    open->m_params->emplace(orv_asr::kAsrParamStartPosition, position);
    open->m_params->emplace(orv_asr::kAsrParamFinalTimeoutMs, options.finalTimeoutMs);
    m.post(m.asrRef, open);
    sessionAskedFor = true;
    sessionAsked = Clock::now();
  };
  auto over = [&] { return events.final || !events.asrError.empty() || events.cancelled; };
  // Cancels once the session has been open for --cancel-after-ms.
  auto maybe_cancel = [&] {
    if (cancelSent || options.cancelAfterMs < 0 || !events.asrStarted) return;
    m.post(m.asrRef, command(orv_asr::kAsrCancel));
    cancelSent = true;
  };
  Clock::time_point next = streamStart;
  for (size_t at = 0; at < audio.size(); at += kFrameBytes / 2) {
    size_t count = std::min(audio.size() - at, static_cast<size_t>(kFrameBytes / 2));
    if (!wakeupStopped) m.post(m.wakeupRef, audio_frame(orv_wakeup::kWakeupAudio, &audio[at], count));
    m.post(m.asrRef, audio_frame(orv_asr::kAsrAudio, &audio[at], count));
    fed = (at + count) * 2;
    if (fed >= speechEnd && (fed - count * 2) < speechEnd) speechEndFed = Clock::now();
    // Until the next frame is due, react at once to what the modules report.
    next += std::chrono::milliseconds(100);
    std::unique_lock<std::mutex> lock(events.mutex);
    bool stop = false;
    for (;;) {
      if (events.detected && !sessionAskedFor) ask_for_session(events.wakePosition);
      Clock::time_point due = events.asrStartedAt + std::chrono::milliseconds(options.cancelAfterMs);
      if (events.asrStarted && options.cancelAfterMs >= 0 && Clock::now() >= due) maybe_cancel();
      stop = !events.wakeError.empty() || over();
      if (stop || options.fast || Clock::now() >= next) break;
      bool cancelDue = events.asrStarted && options.cancelAfterMs >= 0 && !cancelSent;
      events.changed.wait_until(lock, cancelDue ? std::min(next, due) : next);
    }
    if (stop) break;
  }
  m.post(m.asrRef, command(orv_asr::kAsrAudioEnd));
  if (!wakeupStopped) {
    m.post(m.wakeupRef, command(orv_wakeup::kWakeupStop));
    wakeupStopped = true;
  }
  timeline.step("audio: %.2f s fed", seconds(fed));

  // 7. The wake-up (Wakeup may still be working through the frames; its
  // stop report comes after the last of them).
  if (!wait_for([&] { return events.detected || events.wakeStopped || !events.wakeError.empty(); }))
    return fail("the Wakeup module did not finish within %d ms", options.waitMs);
  {
    std::lock_guard<std::mutex> lock(events.mutex);
    if (!events.wakeError.empty()) return fail("%s", events.wakeError.c_str());
    if (!events.detected)
      return fail("no wake-up: \"%s\" was not heard in the audio", options.wakePhrase.c_str());
    if (!sessionAskedFor) ask_for_session(events.wakePosition);
  }

  // 8. The session's end: a final result, an error, or the cancel asked for.
  std::unique_lock<std::mutex> lock(events.mutex);
  if (options.cancelAfterMs >= 0) {
    auto deadline = Clock::now() + std::chrono::milliseconds(options.waitMs);
    while (!cancelSent && !over() && Clock::now() < deadline) {
      auto due = events.asrStartedAt + std::chrono::milliseconds(options.cancelAfterMs);
      if (events.asrStarted && Clock::now() >= due) {
        maybe_cancel();
        break;
      }
      auto wake = events.asrStarted ? due : deadline;
      events.changed.wait_until(lock, std::min(deadline, wake));
    }
  }
  if (!events.changed.wait_for(lock, std::chrono::milliseconds(options.waitMs), over))
    return fail("the Asr module did not end the session within %d ms", options.waitMs);
  const long long runtimeCpuUs = process_cpu_us() - cpuAtStart;
  const int threads = thread_count();
  // The spotter's CPU time comes with its stop report.
  if (!events.changed.wait_for(lock, std::chrono::milliseconds(options.waitMs),
                               [&] { return events.wakeStopped || !events.wakeError.empty(); }))
    return fail("the Wakeup module did not stop within %d ms", options.waitMs);
  if (!events.asrError.empty()) return fail("%s", events.asrError.c_str());
  if (events.cancelled) {
    timeline.step("asr: cancelled, %d transfers still open", events.openTransfers);
    if (events.openTransfers != 0) return fail("the cancelled session was not released");
    return 0;
  }
  const std::string finalText = events.finalText;
  const Clock::time_point finalAt = events.finalAt;
  const int wakeCpuUs = events.wakeCpuUs;
  events.ttsStarted = events.ttsFinished = events.firstAudioSeen = false;
  lock.unlock();
  if (options.input.empty() && options.utterance.empty() && finalText != options.say)
    return fail("heard \"%s\", but \"%s\" was said", finalText.c_str(), options.say.c_str());

  // 9. The reply, spoken into a WAV file.
  std::string reply = reply_to(finalText);
  timeline.step("reply: \"%s\"", reply.c_str());
  std::string replyPath = options.reply.empty() ? dataDir + "reply.wav" : options.reply;
  orv_shared_ptr<Message> speak = command(orv_tts::kTtsSpeak);
  speak->m_params->emplace(orv_tts::kTtsParamText, reply);
  speak->m_params->emplace(orv_tts::kTtsParamVoice, options.replyVoice);
  speak->m_params->emplace(orv_tts::kTtsParamWavPath, replyPath);
  m.post(m.ttsRef, speak);
  if (!wait_for([&] { return events.ttsFinished || !events.ttsError.empty(); }))
    return fail("the reply was not spoken within %d ms", options.waitMs);
  lock.lock();
  if (!events.ttsError.empty()) return fail("cannot speak the reply: %s", events.ttsError.c_str());
  timeline.step("tts: %s written, %.2f s at %d Hz", events.wavPath.c_str(),
                static_cast<double>(events.ttsSamples) / events.ttsRate, events.ttsRate);

  // 10. The figures. A frame fed before the session asked for it counts from
  // the request (the fast mode feeds everything before the wake-up is known).
  Clock::time_point speechEndSeen = std::max(speechEndFed, sessionAsked);
  long long toFinal = std::chrono::duration_cast<std::chrono::milliseconds>(finalAt - speechEndSeen).count();
  long long toReply = std::chrono::duration_cast<std::chrono::milliseconds>(events.firstAudioAt - finalAt).count();
  double audioSeconds = std::chrono::duration_cast<std::chrono::microseconds>(finalAt - streamStart).count() / 1e6;
  if (options.fast) audioSeconds = seconds(fed);
  double ownCpuMs = (runtimeCpuUs - wakeCpuUs) / 1000.0;
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  timeline.step("figures: end of speech to final %lld ms, final to first reply audio %lld ms", toFinal,
                toReply);
  timeline.step("figures: runtime CPU %.1f ms over %.2f s streamed (%.2f %% of one core; "
                "spotter %.1f ms apart), threads %d, peak RSS %.1f MB",
                ownCpuMs, audioSeconds, audioSeconds > 0 ? ownCpuMs / (audioSeconds * 10.0) : 0.0,
                wakeCpuUs / 1000.0, threads, usage.ru_maxrss / 1024.0);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  int exitCode = 0;
  if (!parse(argc, argv, options, exitCode)) return exitCode;
  // liborv never initialises libcurl: the application does, once, on its main
  // thread before any other thread runs.
  if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
    fprintf(stderr, "orv-assistant: curl_global_init failed\n");
    return 1;
  }
  Timeline timeline;
  g_timeline = &timeline;
  int status = run(options, timeline);
  if (status == 0) timeline.step("done: every step passed");
  g_timeline = nullptr;
  return status;
}
