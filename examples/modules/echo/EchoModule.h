// Echo: a sample speech module. It answers the version query, refuses custom
// commands it does not know, and streams the PCM audio it is handed to a
// server as one chunked HTTP upload, reporting progress and the end.
//
// Building: the module is the shared library libVeltoSpeechEcho.so. Its only
// exported symbol is the prepare function VeltoSpeechEcho_INIT (extern "C"),
// which registers the load function under the module name "Echo"; everything
// else is hidden. The host gets the module with
//   SpeechSDKModuleLoader::loadModule("Echo", context, listener, error)
// where `listener` is the host's own EventManager: every reply and report of
// the module is posted to it.
//
// Message protocol (Message::m_name is the command; parameters in m_params):
//
//   ORV_COMMAND_GET_EVENT_MANAGER_VERSION
//       reply ORV_CALLBACK_EVENT_MANAGER_VERSION with
//       ORV_PARAM_KEY_EVENT_MANAGER_VERSION_STRING = kEchoVersion.
//
//   ORV_CORE_PLATFORM_CUSTOM_COMMAND, name in
//   ORV_CORE_PLATFORM_CUSTOM_COMMAND_NAME_STRING
//       reply ORV_CORE_PLATFORM_CUSTOM_COMMAND_RESULT with the same name and
//       ORV_PARAM_KEY_ERROR_CODE / ORV_PARAM_KEY_ERROR_DESCRIPTION:
//       kEchoCustomPing answers 0 / ORV_ERROR_MESSAGE_OK; any other name
//       answers ORV_CORE_PLATFORM_CUSTOM_COMMAND_ERROR_UNKNOWN_COMMAND /
//       ORV_CORE_PLATFORM_CUSTOM_COMMAND_ERROR_UNKNOWN_COMMAND_DESC + name.
//       With ORV_CORE_PLATFORM_CUSTOM_COMMAND_DO_NOT_RESPOND_FLAG_BOOL true
//       nothing is answered.
//
//   kEchoAudioStart, PARAM_KEY_SERVER_URL = the upload URL (string),
//   optional PARAM_KEY_SAMPLE_RATE_INT (int, default 16000; 16-bit mono)
//       opens a chunked upload (a start during an upload cancels the old one).
//   kEchoAudioData, the PCM bytes in Message::m_data, their count in
//   Message::m_dataLength
//       queues the bytes on the upload (they are copied; the sender may drop
//       its buffer at once).
//   kEchoAudioEnd
//       the last piece: the upload ends once everything queued has gone out.
//
// Reports, all on the channel asr_callback_name (Message::m_name) with the
// status in CALLBACK_ASR_STATUS (int):
//   kEchoStatusStarted   the upload is open
//   kEchoStatusProgress  kEchoParamBytes (int) bytes queued so far; sent
//                        after every second of audio and with the last piece
//   kEchoStatusFinished  the server answered; kEchoParamHttpStatus (int)
//   kEchoStatusError     ORV_PARAM_KEY_ERROR_CODE (the transfer's error code,
//                        or the HTTP status) and ORV_PARAM_KEY_ERROR_DESCRIPTION
// A server answering 201..299 ends the upload without a report (the streaming
// task is silent then): hosts bound their wait for the end.
//
// Threading: the module delivers its commands on its own serial queue
// (m_useOwnQueue), so they run one at a time, in order, on pool threads. The
// upload's reports come from the transfer thread; they only post.
// release_instance() (from the host's thread) ends the upload and waits for
// its transfer: no report is posted after it returns.
#ifndef ORV_EXAMPLES_MODULES_ECHO_ECHOMODULE_H
#define ORV_EXAMPLES_MODULES_ECHO_ECHOMODULE_H

namespace orv_echo {

// The module name given to the loader.
inline const char* const kEchoModuleName = "Echo";
inline const char* const kEchoVersion = "echo 1.0.0";

inline const char* const kEchoAudioStart = "echo.cmd.audio.start";
inline const char* const kEchoAudioData = "echo.cmd.audio.data";
inline const char* const kEchoAudioEnd = "echo.cmd.audio.end";

// The one custom command the module knows.
inline const char* const kEchoCustomPing = "echo.ping";

inline const int kEchoStatusStarted = 1;
inline const int kEchoStatusProgress = 2;
inline const int kEchoStatusFinished = 3;
inline const int kEchoStatusError = 4;

inline const char* const kEchoParamBytes = "echo.bytes.int";
inline const char* const kEchoParamHttpStatus = "echo.http_status.int";

}  // namespace orv_echo

#endif  // ORV_EXAMPLES_MODULES_ECHO_ECHOMODULE_H
