// Tts: a sample speech module that synthesises speech with eSpeak NG: text in,
// 16-bit mono PCM frames out as messages, and a WAV file when asked.
//
// Building: the shared library libVeltoSpeechTts.so, whose only exported
// symbol is the prepare function VeltoSpeechTts_INIT; the host loads it with
// SpeechSDKModuleLoader::loadModule("Tts", context, listener, error).
//
// Message protocol (Message::m_name is the command):
//
//   ORV_COMMAND_GET_EVENT_MANAGER_VERSION
//       reply ORV_CALLBACK_EVENT_MANAGER_VERSION with
//       ORV_PARAM_KEY_EVENT_MANAGER_VERSION_STRING = kTtsVersion.
//   kTtsSpeak, kTtsParamText (string, UTF-8), optional kTtsParamVoice (string,
//   an eSpeak NG voice name, default "en-us"), PARAM_KEY_SAMPLE_RATE_INT (int:
//   the output rate; default the synthesiser's own, kTtsNativeRate),
//   kTtsParamWavPath (string: also write the audio to this WAV file)
//       synthesises the text. At the synthesiser's own rate the frames go out
//       as they are made; at any other rate the whole text is made first, then
//       resampled and sent in 100 ms frames.
//
// Reports, all on the channel kTtsCallbackName, the status in
// ORV_PARAM_KEY_STATUS (int):
//   kTtsStatusStarted   CALLBACK_COMBINED_TTS_HEADER = "audio/L16;rate=R;channels=1"
//                       and PARAM_KEY_SAMPLE_RATE_INT = R
//   kTtsStatusAudio     the PCM bytes (16-bit little-endian mono) in
//                       Message::m_data, their count in m_dataLength and in
//                       CALLBACK_COMBINED_TTS_DATA_LEN (int)
//   kTtsStatusFinished  kTtsParamSamples (int), kTtsParamSynthCpuUs (int: CPU
//                       time spent in the synthesiser), kTtsParamWavPath when
//                       a file was written
//   kTtsStatusError     ORV_PARAM_KEY_ERROR_CODE (-1), ORV_PARAM_KEY_ERROR_DESCRIPTION
//
// Threading: commands run on the module's own serial queue (m_useOwnQueue),
// never on the host's thread; eSpeak NG (one per process) is used only there.
// release_instance() (from the host's thread) waits for the queue to go idle
// and shuts the synthesiser down.
#ifndef ORV_EXAMPLES_MODULES_TTS_TTSMODULE_H
#define ORV_EXAMPLES_MODULES_TTS_TTSMODULE_H

namespace orv_tts {

inline const char* const kTtsModuleName = "Tts";
inline const char* const kTtsVersion = "tts 1.0.0";
inline const char* const kTtsCallbackName = "TTS.callback";
inline const int kTtsNativeRate = 22050;

inline const char* const kTtsSpeak = "tts.cmd.speak";

inline const char* const kTtsParamText = "tts.text.string";
inline const char* const kTtsParamVoice = "tts.voice.string";
inline const char* const kTtsParamWavPath = "tts.wav_path.string";
inline const char* const kTtsParamSamples = "tts.samples.int";
inline const char* const kTtsParamSynthCpuUs = "tts.synth_cpu_us.int";

inline const int kTtsStatusStarted = 1;
inline const int kTtsStatusAudio = 2;
inline const int kTtsStatusFinished = 3;
inline const int kTtsStatusError = 4;

}  // namespace orv_tts

#endif  // ORV_EXAMPLES_MODULES_TTS_TTSMODULE_H
