/// @file
/// The shared vocabulary of the speech modules and their host: command,
/// callback and parameter key names, and the custom-command error codes with
/// their texts (each text ends in a blank; the command or receiver name is
/// appended). The library defines each name once; it never looks them up.
///
/// Some values are kept exactly as modules already use them, oddities included:
/// ORV_PARAM_KEY_WRITABLE_USER_DATA_PATH equals
/// ORV_PARAM_KEY_WRITABLE_LIBRARY_DATA_PATH; MODULE_PARAM_KEY_MODULE_FLAG is
/// "moudle.flag.int"; the ASR_ONLINE_PARAM_KEY_... and PARAM_KEY_... keys of one
/// meaning share one string.
///
/// The constants exist from the library's static initialisation to its
/// static finalisation: do not use them from a module's own static
/// initialisers. Read-only: safe on any thread.
#ifndef ORV_CORE_ORV_SDK_COMMON_KEY_DEFINITIONS_H
#define ORV_CORE_ORV_SDK_COMMON_KEY_DEFINITIONS_H

#include <string>

#include "core/orv_api.h"

namespace orv {

extern ORV_API const int ORV_CORE_PLATFORM_CUSTOM_COMMAND_ERROR_UNKNOWN_COMMAND;     ///< -1
extern ORV_API const int ORV_CORE_PLATFORM_CUSTOM_COMMAND_ERROR_UNKNOWN_RECEIVER;    ///< -2
extern ORV_API const int ORV_CORE_PLATFORM_CUSTOM_COMMAND_ERROR_RECEIVER_NOT_AVAILABLE;  ///< -3

extern ORV_API const std::string ORV_COMMAND_GET_EVENT_MANAGER_VERSION;
extern ORV_API const std::string ORV_CALLBACK_EVENT_MANAGER_VERSION;
extern ORV_API const std::string ORV_PARAM_KEY_EVENT_MANAGER_VERSION_STRING;
extern ORV_API const std::string ORV_COMMAND_SET_WRITABLE_LIBRARY_DATA_PATH;
extern ORV_API const std::string ORV_COMMAND_SET_WRITABLE_USER_DATA_PATH;
extern ORV_API const std::string ORV_CMD_KEY_CMD_ID_STRING;
extern ORV_API const std::string ORV_PARAM_KEY_ERROR_DOMAIN;
extern ORV_API const std::string ORV_PARAM_KEY_ERROR_CODE;
extern ORV_API const std::string ORV_PARAM_KEY_ERROR_DESCRIPTION;
extern ORV_API const std::string ORV_PARAM_KEY_SERIAL_NUM;
extern ORV_API const std::string ORV_PARAM_KEY_STATUS;
extern ORV_API const std::string ORV_PARAM_KEY_WRITABLE_LIBRARY_DATA_PATH;
extern ORV_API const std::string ORV_PARAM_KEY_WRITABLE_USER_DATA_PATH;
extern ORV_API const std::string ORV_ERROR_MESSAGE_OK;
extern ORV_API const std::string AUDIO_PARAM_KEY_PACKAGE_TAG;
extern ORV_API const std::string asr_callback_name;
extern ORV_API const std::string wakeup_callback_name;
extern ORV_API const std::string CALLBACK_SOUND_LOCATION;
extern ORV_API const std::string upload_callback_name;
extern ORV_API const std::string kra_callback_name;
extern ORV_API const std::string CALLBACK_KRA_STATUS;
extern ORV_API const std::string CALLBACK_ASR_STATUS;
extern ORV_API const std::string CALLBACK_ASR_LEVEL;
extern ORV_API const std::string CALLBACK_ASR_RESULT;
extern ORV_API const std::string CALLBACK_ASR_WAKEUP_RESULT;
extern ORV_API const std::string CALLBACK_WAK_STATUS;
extern ORV_API const std::string CALLBACK_WAK_RESULT;
extern ORV_API const std::string CALLBACK_COMBINED_TTS_HEADER;
extern ORV_API const std::string CALLBACK_COMBINED_TTS_DATA;
extern ORV_API const std::string CALLBACK_COMBINED_TTS_DATA_LEN;
extern ORV_API const std::string ORV_PLATFORM_INFO_PACKAGE;
extern ORV_API const std::string ORV_PLATFORM_INFO_SDK_VERSION;
extern ORV_API const std::string ORV_PLATFORM_INFO_APP_NAME;
extern ORV_API const std::string ORV_PLATFORM_INFO_PACKAGE_NAME;
extern ORV_API const std::string ORV_PLATFORM_INFO_OPERATING_SYSTEM;
extern ORV_API const std::string ORV_PLATFORM_INFO_SCREEN_WIDTH;
extern ORV_API const std::string ORV_PLATFORM_INFO_SCREEN_HEIHT;
extern ORV_API const std::string ORV_PLATFORM_INFO_SDK_NAME;
extern ORV_API const std::string ORV_PLATFORM_INFO_NET_TYPE;
extern ORV_API const std::string ORV_PLATFORM_INFO_DEVICE_MODEL;
extern ORV_API const std::string ORV_PLATFORM_INFO_SYSTEM_VERSION;
extern ORV_API const std::string COMMON_PARAM_KEY_DEBUG_LOG_LEVEL;
extern ORV_API const std::string ORV_CORE_PLATFORM_CUSTOM_COMMAND;
extern ORV_API const std::string ORV_CORE_PLATFORM_CUSTOM_COMMAND_NAME_STRING;
extern ORV_API const std::string ORV_CORE_PLATFORM_CUSTOM_COMMAND_PARAM_CMD_RECEIVERS_STRVECT;
extern ORV_API const std::string ORV_CORE_PLATFORM_CUSTOM_COMMAND_PARAM_TARGET_STRING;
extern ORV_API const std::string ORV_CORE_PLATFORM_CUSTOM_COMMAND_DO_NOT_RESPOND_FLAG_BOOL;
extern ORV_API const std::string ORV_CORE_PLATFORM_CUSTOM_COMMAND_RESULT;
extern ORV_API const std::string ORV_CORE_PLATFORM_CUSTOM_COMMAND_ERROR_UNKNOWN_COMMAND_DESC;
extern ORV_API const std::string ORV_CORE_PLATFORM_CUSTOM_COMMAND_ERROR_UNKNOWN_RECEIVER_DESC;
extern ORV_API const std::string ORV_CORE_PLATFORM_CUSTOM_COMMAND_ERROR_RECEIVER_NOT_AVAILABLE_DESC;
extern ORV_API const std::string ORV_CORE_PLATFORM_CUSTOM_EVENT;
extern ORV_API const std::string ORV_CORE_PLATFORM_CUSTOM_EVENT_NAME_STRING;
extern ORV_API const std::string ASR_ONLINE_PARAM_KEY_SERVER_URL;
extern ORV_API const std::string ASR_ONLINE_PARAM_KEY_CHUNK_KEY;
extern ORV_API const std::string ASR_ONLINE_PARAM_KEY_PDT_STRING;
extern ORV_API const std::string ASR_ONLINE_PARAM_KEY_PLATFORM_STRING;
extern ORV_API const std::string ASR_ONLINE_PARAM_KEY_SAMPLE_RATE_INT;
extern ORV_API const std::string ASR_ONLINE_PARAM_KEY_NET_INT;
extern ORV_API const std::string MODULE_PARAM_KEY_MODULE_FLAG;
extern ORV_API const std::string PARAM_KEY_CUID;
extern ORV_API const std::string PARAM_KEY_SERVER_URL;
extern ORV_API const std::string PARAM_KEY_CHUNK_KEY;
extern ORV_API const std::string PARAM_KEY_PRODUCT_ID;
extern ORV_API const std::string PARAM_KEY_PLATFORM;
extern ORV_API const std::string PARAM_KEY_SDK_VERSION;
extern ORV_API const std::string PARAM_KEY_SAMPLE_RATE_INT;
extern ORV_API const std::string PARAM_KEY_NET_INT;
extern ORV_API const std::string PARAM_KEY_SN_STRING;
extern ORV_API const std::string PARAM_KEY_SDK_LISTENER;
extern ORV_API const std::string PARAM_KEY_LOCATION;
extern ORV_API const std::string PARAM_KEY_HTTP_HEADER_LIST;
extern ORV_API const std::string PARAM_KEY_DNS_TYPE;

}  // namespace orv

#endif  // ORV_CORE_ORV_SDK_COMMON_KEY_DEFINITIONS_H
