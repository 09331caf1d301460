// Wakeup: a sample speech module that spots a wake phrase in the PCM audio the
// host feeds it (keyword spotting with PocketSphinx's en-us model).
//
// Building: the shared library libVeltoSpeechWakeup.so, whose only exported
// symbol is the prepare function VeltoSpeechWakeup_INIT; the host loads it
// with SpeechSDKModuleLoader::loadModule("Wakeup", context, listener, error).
//
// Audio: 16 kHz, 16-bit little-endian mono. Positions are byte offsets in the
// stream the module was fed since it was loaded (the logical position of its
// PCM queue): byte 0 is the first byte of the first kWakeupAudio.
//
// Message protocol (Message::m_name is the command):
//
//   ORV_COMMAND_GET_EVENT_MANAGER_VERSION
//       reply ORV_CALLBACK_EVENT_MANAGER_VERSION with
//       ORV_PARAM_KEY_EVENT_MANAGER_VERSION_STRING = kWakeupVersion.
//   kWakeupStart, optional kWakeupParamPhrase (string, default
//   kWakeupDefaultPhrase), kWakeupParamThreshold (string, a number such as
//   "1e-20"; default kWakeupDefaultThreshold: lower finds more, and more
//   falsely), kWakeupParamModelDir (string, default kWakeupDefaultModelDir)
//       loads the spotter (a start while listening starts over) and reports
//       kWakeupStatusListening, or kWakeupStatusError (a word of the phrase
//       missing from the dictionary, a missing model).
//   kWakeupAudio, the PCM bytes in Message::m_data / m_dataLength
//       feeds the spotter (ignored, but counted in the positions, while not
//       listening). Every detection is reported; listening goes on.
//   kWakeupStop
//       unloads the spotter and reports kWakeupStatusStopped.
//
// Reports, all on the channel wakeup_callback_name, the status in
// CALLBACK_WAK_STATUS (int):
//   kWakeupStatusListening  CALLBACK_WAK_RESULT = the phrase
//   kWakeupStatusDetected   CALLBACK_WAK_RESULT = the phrase,
//                           kWakeupParamEndPosition (int): where the phrase
//                           ended, kWakeupParamScore (int): the detection's
//                           log-probability (closer to 0 is surer),
//                           kWakeupParamDecodeCpuUs (int): CPU time spent in
//                           the spotter since start, in microseconds
//   kWakeupStatusStopped    kWakeupParamDecodeCpuUs
//   kWakeupStatusError      ORV_PARAM_KEY_ERROR_CODE (-1) and
//                           ORV_PARAM_KEY_ERROR_DESCRIPTION
//
// Threading: commands run on the module's own serial queue (m_useOwnQueue),
// one at a time, never on the host's thread; the spotter is touched only
// there. release_instance() (from the host's thread, not from a delivery)
// waits for the queue to go idle and unloads the spotter.
#ifndef ORV_EXAMPLES_MODULES_WAKEUP_WAKEUPMODULE_H
#define ORV_EXAMPLES_MODULES_WAKEUP_WAKEUPMODULE_H

namespace orv_wakeup {

inline const char* const kWakeupModuleName = "Wakeup";
inline const char* const kWakeupVersion = "wakeup 1.0.0";

// Chosen by measurement on eSpeak NG voices with microphone-like noise:
// detected in both en-us and en voices, never on ten sentences without it.
inline const char* const kWakeupDefaultPhrase = "listen robot";
inline const char* const kWakeupDefaultThreshold = "1e-20";
inline const char* const kWakeupDefaultModelDir = "/usr/share/pocketsphinx/model/en-us";

inline const char* const kWakeupStart = "wakeup.cmd.start";
inline const char* const kWakeupAudio = "wakeup.cmd.audio";
inline const char* const kWakeupStop = "wakeup.cmd.stop";

inline const char* const kWakeupParamPhrase = "wakeup.phrase.string";
inline const char* const kWakeupParamThreshold = "wakeup.threshold.string";
inline const char* const kWakeupParamModelDir = "wakeup.model_dir.string";
inline const char* const kWakeupParamEndPosition = "wakeup.end_position.int";
inline const char* const kWakeupParamScore = "wakeup.score.int";
inline const char* const kWakeupParamDecodeCpuUs = "wakeup.decode_cpu_us.int";

inline const int kWakeupStatusListening = 1;
inline const int kWakeupStatusDetected = 2;
inline const int kWakeupStatusStopped = 3;
inline const int kWakeupStatusError = 4;

}  // namespace orv_wakeup

#endif  // ORV_EXAMPLES_MODULES_WAKEUP_WAKEUPMODULE_H
