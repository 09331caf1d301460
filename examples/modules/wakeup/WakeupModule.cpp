// The Wakeup module: see WakeupModule.h for its message protocol.
#include "WakeupModule.h"

#include <pocketsphinx.h>
#include <time.h>

#include <string>

#include <orv/orv.h>

#include "examples/modules/common/module_messages.h"

namespace {

using orv::EventManager;
using orv::Message;
using orv::Memory::orv_shared_ptr;
using orv::Memory::orv_weak_ptr;
using orv_sample::new_message;
using orv_sample::text_param;

const int kBytesPerFrame = 320;       // one 10 ms spotter frame at 16 kHz
const int kQueueBytes = 64 * 1024;    // the ring between the host's frames and the spotter
const int kFeedBytes = 3200;          // what the spotter gets at a time

long long thread_cpu_ns() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<long long>(now.tv_sec) * 1000000000LL + now.tv_nsec;
}

class WakeupManager : public EventManager {
 public:
  WakeupManager(orv_weak_ptr<orv::Context>& context, orv_weak_ptr<EventManager>& listener)
      : EventManager(context), m_listener(listener) {
    // Own queue: audio frames keep their order and the spotter's work never
    // holds up the deliveries of the host and the other modules.
    m_useOwnQueue = 1;
    m_pcm = orv::PCMQueue::newQueue(kQueueBytes);
  }

  ~WakeupManager() override { unload(); }

  void send(orv_shared_ptr<Message>& message) override {
    const std::string& name = message->m_name;
    if (name == orv::ORV_COMMAND_GET_EVENT_MANAGER_VERSION) {
      orv_shared_ptr<Message> reply = new_message(orv::ORV_CALLBACK_EVENT_MANAGER_VERSION);
      reply->m_params->emplace(orv::ORV_PARAM_KEY_EVENT_MANAGER_VERSION_STRING,
                               std::string(orv_wakeup::kWakeupVersion));
      post(m_listener, reply, 0);
    } else if (name == orv_wakeup::kWakeupStart) {
      start(message);
    } else if (name == orv_wakeup::kWakeupAudio) {
      feed(reinterpret_cast<const unsigned char*>(message->m_data.getPTR()),
           message->m_data ? message->m_dataLength : 0);
    } else if (name == orv_wakeup::kWakeupStop) {
      unload();
      orv_shared_ptr<Message> stopped = status(orv_wakeup::kWakeupStatusStopped);
      stopped->m_params->emplace(orv_wakeup::kWakeupParamDecodeCpuUs, cpuMicros());
      post(m_listener, stopped, 0);
    }
  }

  // From the host's thread: no delivery runs after the queue is cancelled.
  void release_instance() override {
    if (m_queue) m_queue->cancel_sync();
    unload();
  }

  orv_weak_ptr<EventManager> m_listener;

 private:
  void start(orv_shared_ptr<Message>& message) {
    unload();
    m_phrase = text_param(message, orv_wakeup::kWakeupParamPhrase, orv_wakeup::kWakeupDefaultPhrase);
    std::string threshold =
        text_param(message, orv_wakeup::kWakeupParamThreshold, orv_wakeup::kWakeupDefaultThreshold);
    std::string model =
        text_param(message, orv_wakeup::kWakeupParamModelDir, orv_wakeup::kWakeupDefaultModelDir);
    std::string hmm = model + "/en-us";
    std::string dict = model + "/cmudict-en-us.dict";
    m_config = cmd_ln_init(nullptr, ps_args(), TRUE, "-hmm", hmm.c_str(), "-dict", dict.c_str(),
                           "-keyphrase", m_phrase.c_str(), "-kws_threshold", threshold.c_str(),
                           "-logfn", "/dev/null", nullptr);
    m_decoder = m_config ? ps_init(m_config) : nullptr;
    if (!m_decoder || ps_start_utt(m_decoder) < 0) {
      unload();
      reportError("cannot load the spotter for \"" + m_phrase + "\", threshold " + threshold +
                  " (model " + model + "; is every word in its dictionary?)");
      return;
    }
    // The spotter numbers its frames from its creation on, across utterances.
    m_decoderStart = m_pcm->m_logicalPos;
    m_cpuNs = 0;
    orv_shared_ptr<Message> listening = status(orv_wakeup::kWakeupStatusListening);
    listening->m_params->emplace(orv::CALLBACK_WAK_RESULT, m_phrase);
    post(m_listener, listening, 0);
  }

  // Every byte goes through the ring, so its logical position counts the
  // stream; the spotter takes whole frames from it.
  void feed(const unsigned char* data, int length) {
    while (length > 0) {
      int piece = length < kQueueBytes / 2 ? length : kQueueBytes / 2;
      m_pcm->queueAudio(data, piece);
      data += piece;
      length -= piece;
      unsigned char block[kFeedBytes];
      while (m_pcm->m_size >= kBytesPerFrame) {
        int take = m_pcm->m_size < kFeedBytes ? m_pcm->m_size : kFeedBytes;
        take -= take % kBytesPerFrame;
        m_pcm->dequeSamples(block, take, false);
        if (m_decoder) spot(block, take);
      }
    }
  }

  void spot(const unsigned char* block, int length) {
    long long before = thread_cpu_ns();
    ps_process_raw(m_decoder, reinterpret_cast<const int16*>(block), length / 2, FALSE, FALSE);
    int32 unused = 0;
    const char* hyp = ps_get_hyp(m_decoder, &unused);
    bool detected = hyp && *hyp;
    int endFrame = -1;
    int32 score = 0;
    if (detected) {
      ps_seg_t* seg = ps_seg_iter(m_decoder);
      if (seg) {
        int startFrame = 0;
        int32 ascr = 0, lscr = 0, lback = 0;
        ps_seg_frames(seg, &startFrame, &endFrame);
        score = ps_seg_prob(seg, &ascr, &lscr, &lback);
        ps_seg_free(seg);
      }
      // Listening goes on in a fresh utterance.
      ps_end_utt(m_decoder);
      ps_start_utt(m_decoder);
    }
    m_cpuNs += thread_cpu_ns() - before;
    if (!detected) return;
    int consumed = m_pcm->m_logicalPos;
    int end = endFrame >= 0 ? m_decoderStart + (endFrame + 1) * kBytesPerFrame : consumed;
    if (end > consumed) end = consumed;
    orv_shared_ptr<Message> found = status(orv_wakeup::kWakeupStatusDetected);
    found->m_params->emplace(orv::CALLBACK_WAK_RESULT, m_phrase);
    found->m_params->emplace(orv_wakeup::kWakeupParamEndPosition, end);
    found->m_params->emplace(orv_wakeup::kWakeupParamScore, static_cast<int>(score));
    found->m_params->emplace(orv_wakeup::kWakeupParamDecodeCpuUs, cpuMicros());
    post(m_listener, found, 0);
  }

  void unload() {
    if (m_decoder) ps_free(m_decoder);
    m_decoder = nullptr;
    if (m_config) cmd_ln_free_r(m_config);
    m_config = nullptr;
  }

  int cpuMicros() const { return static_cast<int>(m_cpuNs / 1000); }

  orv_shared_ptr<Message> status(int value) {
    orv_shared_ptr<Message> message = new_message(orv::wakeup_callback_name);
    message->m_params->emplace(orv::CALLBACK_WAK_STATUS, value);
    return message;
  }

  void reportError(const std::string& text) {
    orv_shared_ptr<Message> message = status(orv_wakeup::kWakeupStatusError);
    message->m_params->emplace(orv::ORV_PARAM_KEY_ERROR_CODE, -1);
    message->m_params->emplace(orv::ORV_PARAM_KEY_ERROR_DESCRIPTION, text);
    post(m_listener, message, 0);
  }

  // Touched only on the module's queue (and by release_instance once the
  // queue is idle).
  orv_shared_ptr<orv::PCMQueue> m_pcm;
  cmd_ln_t* m_config = nullptr;
  ps_decoder_t* m_decoder = nullptr;
  std::string m_phrase;
  int m_decoderStart = 0;
  long long m_cpuNs = 0;
};

orv_shared_ptr<EventManager> load(orv_weak_ptr<orv::Context> context,
                                  orv_weak_ptr<EventManager> listener) {
  orv_shared_ptr<EventManager> manager(new WakeupManager(context, listener));
  manager->m_self = manager;
  return manager;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) void VeltoSpeechWakeup_INIT() {
  orv::SpeechSDKModuleLoader::registerLoadFunction(load, orv_wakeup::kWakeupModuleName);
}
