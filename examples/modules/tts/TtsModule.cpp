// The Tts module: see TtsModule.h for its message protocol.
#include "TtsModule.h"

#include <espeak-ng/espeak_ng.h>
#include <espeak-ng/speak_lib.h>
#include <math.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include <string>
#include <vector>

#include <orv/orv.h>

#include "examples/modules/common/module_messages.h"

namespace {

using orv::EventManager;
using orv::Message;
using orv::Memory::orv_shared_ptr;
using orv::Memory::orv_weak_ptr;
using orv_sample::new_message;
using orv_sample::text_param;

const int kSynthBufferMs = 100;

long long thread_cpu_ns() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<long long>(now.tv_sec) * 1000000000LL + now.tv_nsec;
}

// Band-limited resampling (windowed sinc, 16 taps a side): the low-pass keeps
// what lies above the new Nyquist frequency from folding back as noise.
std::vector<int16_t> resample(const std::vector<int16_t>& in, int from, int to) {
  std::vector<int16_t> out;
  if (in.empty() || from <= 0 || to <= 0) return out;
  const int taps = 16;
  const double step = static_cast<double>(from) / to;
  const double cutoff = 0.45 * (to < from ? static_cast<double>(to) / from : 1.0);
  const size_t count = static_cast<size_t>(in.size() / step);
  out.reserve(count);
  for (size_t n = 0; n < count; ++n) {
    double x = n * step;
    long centre = static_cast<long>(x);
    double sum = 0;
    for (long k = centre - taps + 1; k <= centre + taps; ++k) {
      if (k < 0 || k >= static_cast<long>(in.size())) continue;
      double d = x - k;
      double arg = 2 * M_PI * cutoff * d;
      double sinc = d == 0 ? 2 * cutoff : sin(arg) / (M_PI * d);
      double window = 0.5 + 0.5 * cos(M_PI * d / (taps + 1));
      sum += in[k] * sinc * window;
    }
    long v = lround(sum);
    out.push_back(static_cast<int16_t>(v > 32767 ? 32767 : v < -32768 ? -32768 : v));
  }
  return out;
}

bool write_wav(const std::string& path, const std::vector<int16_t>& samples, int rate) {
  FILE* file = fopen(path.c_str(), "wb");
  if (!file) return false;
  uint32_t dataBytes = static_cast<uint32_t>(samples.size() * 2);
  unsigned char header[44];
  auto put32 = [&](int at, uint32_t v) {
    for (int i = 0; i < 4; ++i) header[at + i] = static_cast<unsigned char>(v >> (8 * i));
  };
  auto put16 = [&](int at, uint16_t v) {
    header[at] = static_cast<unsigned char>(v);
    header[at + 1] = static_cast<unsigned char>(v >> 8);
  };
  memcpy(header, "RIFF", 4);
  put32(4, 36 + dataBytes);
  memcpy(header + 8, "WAVEfmt ", 8);
  put32(16, 16);
  put16(20, 1);  // PCM
  put16(22, 1);  // mono
  put32(24, static_cast<uint32_t>(rate));
  put32(28, static_cast<uint32_t>(rate) * 2);
  put16(32, 2);
  put16(34, 16);
  memcpy(header + 36, "data", 4);
  put32(40, dataBytes);
  // Samples are written as they lie in memory: little-endian on every target.
  bool ok = fwrite(header, 1, sizeof(header), file) == sizeof(header) &&
            fwrite(samples.data(), 2, samples.size(), file) == samples.size();
  return fclose(file) == 0 && ok;
}

class TtsManager : public EventManager {
 public:
  TtsManager(orv_weak_ptr<orv::Context>& context, orv_weak_ptr<EventManager>& listener)
      : EventManager(context), m_listener(listener) {
    // Own queue: a long synthesis never holds up the other modules.
    m_useOwnQueue = 1;
  }

  ~TtsManager() override { shutDown(); }

  void send(orv_shared_ptr<Message>& message) override {
    if (message->m_name == orv::ORV_COMMAND_GET_EVENT_MANAGER_VERSION) {
      orv_shared_ptr<Message> reply = new_message(orv::ORV_CALLBACK_EVENT_MANAGER_VERSION);
      reply->m_params->emplace(orv::ORV_PARAM_KEY_EVENT_MANAGER_VERSION_STRING,
                               std::string(orv_tts::kTtsVersion));
      post(m_listener, reply, 0);
    } else if (message->m_name == orv_tts::kTtsSpeak) {
      speak(message);
    }
  }

  void release_instance() override {
    if (m_queue) m_queue->cancel_sync();
    shutDown();
  }

  orv_weak_ptr<EventManager> m_listener;

 private:
  // eSpeak NG's callback, on the module's queue inside espeak_Synth.
  static int onSamples(short* wav, int count, espeak_EVENT* events) {
    TtsManager* self = static_cast<TtsManager*>(events ? events->user_data : nullptr);
    if (self && wav && count > 0) self->take(wav, count);
    return 0;
  }

  void take(const short* wav, int count) {
    m_samples.insert(m_samples.end(), wav, wav + count);
    if (m_outRate == m_rate) sendAudio(wav, count);
  }

  void speak(orv_shared_ptr<Message>& message) {
    std::string text = text_param(message, orv_tts::kTtsParamText, "");
    std::string voice = text_param(message, orv_tts::kTtsParamVoice, "en-us");
    std::string wavPath = text_param(message, orv_tts::kTtsParamWavPath, "");
    if (!m_initialised) {
      std::string problem = initialise();
      if (!problem.empty()) return reportError("eSpeak NG could not start: " + problem);
    }
    m_outRate = orv_sample::int_param(message, orv::PARAM_KEY_SAMPLE_RATE_INT, m_rate);
    if (m_outRate < 8000 || m_outRate > 48000)
      return reportError("unsupported sample rate " + std::to_string(m_outRate));
    if (text.empty()) return reportError("nothing to say");
    if (espeak_SetVoiceByName(voice.c_str()) != EE_OK)
      return reportError("unknown voice \"" + voice + "\"");

    orv_shared_ptr<Message> started = status(orv_tts::kTtsStatusStarted);
    started->m_params->emplace(orv::CALLBACK_COMBINED_TTS_HEADER,
                               "audio/L16;rate=" + std::to_string(m_outRate) + ";channels=1");
    started->m_params->emplace(orv::PARAM_KEY_SAMPLE_RATE_INT, m_outRate);
    post(m_listener, started, 0);

    m_samples.clear();
    long long before = thread_cpu_ns();
    espeak_ERROR result = espeak_Synth(text.c_str(), text.size() + 1, 0, POS_CHARACTER, 0,
                                       espeakCHARS_UTF8, nullptr, this);
    espeak_Synchronize();
    std::vector<int16_t> out = m_outRate == m_rate ? m_samples : resample(m_samples, m_rate, m_outRate);
    long long cpuNs = thread_cpu_ns() - before;
    if (result != EE_OK) return reportError("eSpeak NG refused the text");
    if (m_outRate != m_rate) {
      const int frame = m_outRate / 10;
      for (size_t at = 0; at < out.size(); at += frame) {
        size_t left = out.size() - at;
        sendAudio(out.data() + at, static_cast<int>(left < static_cast<size_t>(frame) ? left : frame));
      }
    }
    orv_shared_ptr<Message> finished = status(orv_tts::kTtsStatusFinished);
    finished->m_params->emplace(orv_tts::kTtsParamSamples, static_cast<int>(out.size()));
    finished->m_params->emplace(orv_tts::kTtsParamSynthCpuUs, static_cast<int>(cpuNs / 1000));
    if (!wavPath.empty()) {
      if (!write_wav(wavPath, out, m_outRate)) return reportError("cannot write " + wavPath);
      finished->m_params->emplace(orv_tts::kTtsParamWavPath, wavPath);
    }
    post(m_listener, finished, 0);
  }

  // The status-returning start (the older one ends the process when the
  // voice data is missing). "" when ready.
  std::string initialise() {
    espeak_ng_InitializePath(nullptr);
    espeak_ng_ERROR_CONTEXT context = nullptr;
    espeak_ng_STATUS status = espeak_ng_Initialize(&context);
    espeak_ng_ClearErrorContext(&context);
    if (status == ENS_OK)
      status = espeak_ng_InitializeOutput(ENOUTPUT_MODE_SYNCHRONOUS, kSynthBufferMs, nullptr);
    if (status != ENS_OK) {
      char text[512] = "";
      espeak_ng_GetStatusCodeMessage(status, text, sizeof(text));
      return text;
    }
    m_rate = espeak_ng_GetSampleRate();
    espeak_SetSynthCallback(&TtsManager::onSamples);
    m_initialised = true;
    return std::string();
  }

  void sendAudio(const int16_t* samples, int count) {
    orv_shared_ptr<Message> audio = status(orv_tts::kTtsStatusAudio);
    orv_sample::attach_bytes(audio, samples, count * 2);
    audio->m_params->emplace(orv::CALLBACK_COMBINED_TTS_DATA_LEN, count * 2);
    post(m_listener, audio, 0);
  }

  void shutDown() {
    if (m_initialised) espeak_Terminate();
    m_initialised = false;
  }

  orv_shared_ptr<Message> status(int value) {
    orv_shared_ptr<Message> message = new_message(orv_tts::kTtsCallbackName);
    message->m_params->emplace(orv::ORV_PARAM_KEY_STATUS, value);
    return message;
  }

  void reportError(const std::string& text) {
    orv_shared_ptr<Message> message = status(orv_tts::kTtsStatusError);
    message->m_params->emplace(orv::ORV_PARAM_KEY_ERROR_CODE, -1);
    message->m_params->emplace(orv::ORV_PARAM_KEY_ERROR_DESCRIPTION, text);
    post(m_listener, message, 0);
  }

  // Touched only on the module's queue (and by release_instance once idle).
  bool m_initialised = false;
  int m_rate = 0;
  int m_outRate = 0;
  std::vector<int16_t> m_samples;
};

orv_shared_ptr<EventManager> load(orv_weak_ptr<orv::Context> context,
                                  orv_weak_ptr<EventManager> listener) {
  orv_shared_ptr<EventManager> manager(new TtsManager(context, listener));
  manager->m_self = manager;
  return manager;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) void VeltoSpeechTts_INIT() {
  orv::SpeechSDKModuleLoader::registerLoadFunction(load, orv_tts::kTtsModuleName);
}
