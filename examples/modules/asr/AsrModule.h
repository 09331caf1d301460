// Asr: a sample speech module, the streaming-recognition client of the speech
// service. A session fetches the access token, opens one duplex streaming
// transfer (the audio goes up as a chunked body while the service's results
// come down), forwards the partial results and the final one, and ends.
//
// Building: the shared library libVeltoSpeechAsr.so, whose only exported
// symbol is the prepare function VeltoSpeechAsr_INIT; the host loads it with
// SpeechSDKModuleLoader::loadModule("Asr", context, listener, error).
//
// Audio: 16 kHz, 16-bit little-endian mono, fed with kAsrAudio at all times.
// The module keeps the last kAsrPreRollSeconds in a ring PCMQueue, so that a
// session can start from a position already passed (the end of the wake
// phrase): positions are byte offsets in the stream fed since load.
//
// The service protocol: POST <url>?rate=16000 with "Authorization: Bearer
// <token>" and the chunked PCM body; the answer is a stream of JSON lines,
// {"type": "partial", "text": ...} any number of times, then
// {"type": "final", "text": ...}. Any other status ends the session with the
// answer's body in the error text.
//
// Message protocol (Message::m_name is the command):
//
//   ORV_COMMAND_GET_EVENT_MANAGER_VERSION
//       reply ORV_CALLBACK_EVENT_MANAGER_VERSION with
//       ORV_PARAM_KEY_EVENT_MANAGER_VERSION_STRING = kAsrVersion.
//   kAsrAudio, the PCM bytes in Message::m_data / m_dataLength
//       queued; during a session they go up at once.
//   kAsrAudioEnd
//       the audio has ended: the upload ends once everything queued is sent.
//   kAsrStart, PARAM_KEY_SERVER_URL (string, the recognition URL),
//   kAsrParamApiKey and kAsrParamSecretKey (strings, the client credentials
//   for the token; the token endpoint is the process-wide one of
//   orv_AccessToken), optional kAsrParamStartPosition (int, default: the
//   newest byte), kAsrParamFinalTimeoutMs (int, default 5000)
//       starts a session (a start during a session ends the old one first).
//   kAsrCancel
//       ends the session at once: token wait, transfer and timer released.
//
// Reports, all on the channel asr_callback_name, the status in
// CALLBACK_ASR_STATUS (int):
//   kAsrStatusStarted    the upload is open; kAsrParamStartPosition (int): the
//                        first byte sent
//   kAsrStatusPartial    CALLBACK_ASR_RESULT (string): the text so far
//   kAsrStatusFinal      CALLBACK_ASR_RESULT (string), kAsrParamJson (string:
//                        the service's line); the session is over
//   kAsrStatusError      ORV_PARAM_KEY_ERROR_CODE (one of kAsrError*) and
//                        ORV_PARAM_KEY_ERROR_DESCRIPTION; the session is over
//   kAsrStatusCancelled  kAsrParamOpenTransfers (int): transfers of this
//                        module still registered (0 once released)
// Nothing is reported for a session after its end.
//
// Timer: the session's RefreshTimer is pushed back by every line from the
// service; kAsrParamFinalTimeoutMs without one ends the session with
// kAsrErrorTimeout.
//
// Threading: commands and the session's events run on the module's own serial
// queue (m_useOwnQueue), never on the host's thread. The token is fetched on
// a pool thread, the transfer's callbacks come from its thread and the timer
// from the timer thread: all three only post to the module's queue. Transfer
// callbacks find their session through the task pointer in a registry that
// lives as long as the process, so a callback arriving after the session
// released its transfer is dropped, never handed freed data.
// release_instance() (from the host's thread) cancels the queue, waits for
// it to go idle and ends any session.
#ifndef ORV_EXAMPLES_MODULES_ASR_ASRMODULE_H
#define ORV_EXAMPLES_MODULES_ASR_ASRMODULE_H

namespace orv_asr {

inline const char* const kAsrModuleName = "Asr";
inline const char* const kAsrVersion = "asr 1.0.0";
inline const int kAsrPreRollSeconds = 10;

inline const char* const kAsrStart = "asr.cmd.start";
inline const char* const kAsrAudio = "asr.cmd.audio";
inline const char* const kAsrAudioEnd = "asr.cmd.audio.end";
inline const char* const kAsrCancel = "asr.cmd.cancel";

inline const char* const kAsrParamApiKey = "asr.api_key.string";
inline const char* const kAsrParamSecretKey = "asr.secret_key.string";
inline const char* const kAsrParamStartPosition = "asr.start_position.int";
inline const char* const kAsrParamFinalTimeoutMs = "asr.final_timeout_ms.int";
inline const char* const kAsrParamJson = "asr.json.string";
inline const char* const kAsrParamOpenTransfers = "asr.open_transfers.int";

inline const int kAsrStatusStarted = 1;
inline const int kAsrStatusPartial = 2;
inline const int kAsrStatusFinal = 3;
inline const int kAsrStatusError = 4;
inline const int kAsrStatusCancelled = 5;

inline const int kAsrErrorBadStart = 1;   // no URL, or no keys
inline const int kAsrErrorToken = 2;      // no access token
inline const int kAsrErrorService = 3;    // unreachable, refused, or ended without a final
inline const int kAsrErrorTimeout = 4;    // no word from the service in time

}  // namespace orv_asr

#endif  // ORV_EXAMPLES_MODULES_ASR_ASRMODULE_H
