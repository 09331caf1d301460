#include "core/orv_SDK_common_key_definitions.h"

namespace orv {

const int ORV_CORE_PLATFORM_CUSTOM_COMMAND_ERROR_UNKNOWN_COMMAND = -1;
const int ORV_CORE_PLATFORM_CUSTOM_COMMAND_ERROR_UNKNOWN_RECEIVER = -2;
const int ORV_CORE_PLATFORM_CUSTOM_COMMAND_ERROR_RECEIVER_NOT_AVAILABLE = -3;

// Constructed in this order by the static initialiser.
const std::string ORV_COMMAND_GET_EVENT_MANAGER_VERSION = "orv.cmd.get_event_manager_version";
const std::string ORV_CALLBACK_EVENT_MANAGER_VERSION = "orv.return.get_event_manager_version";
const std::string ORV_PARAM_KEY_EVENT_MANAGER_VERSION_STRING = "orv.event_manager_version_info.string";
const std::string ORV_COMMAND_SET_WRITABLE_LIBRARY_DATA_PATH = "orv.cmd.set_writable_library_data_path";
const std::string ORV_COMMAND_SET_WRITABLE_USER_DATA_PATH = "orv.cmd.set_writable_user_data_path";
const std::string ORV_CMD_KEY_CMD_ID_STRING = "orv.command.param.command_id.string";
const std::string ORV_PARAM_KEY_ERROR_DOMAIN = "orv.error_domain.int32_t";
const std::string ORV_PARAM_KEY_ERROR_CODE = "orv.error_code.int32_t";
const std::string ORV_PARAM_KEY_ERROR_DESCRIPTION = "orv.error_message.string";
const std::string ORV_PARAM_KEY_SERIAL_NUM = "orv.sn.string";
const std::string ORV_PARAM_KEY_STATUS = "orv.status.int32_t";
const std::string ORV_PARAM_KEY_WRITABLE_LIBRARY_DATA_PATH = "orv.writable_library_data_path";
const std::string ORV_PARAM_KEY_WRITABLE_USER_DATA_PATH = "orv.writable_library_data_path";
const std::string ORV_ERROR_MESSAGE_OK = "OK";
const std::string AUDIO_PARAM_KEY_PACKAGE_TAG = "audio.package.tag.int";
const std::string asr_callback_name = "ASR.callback";
const std::string wakeup_callback_name = "WAKEUP.callback";
const std::string CALLBACK_SOUND_LOCATION = "location.callback";
const std::string upload_callback_name = "UPLOAD.callback";
const std::string kra_callback_name = "KRA.callback";
const std::string CALLBACK_KRA_STATUS = "cb.kra.status.int";
const std::string CALLBACK_ASR_STATUS = "cb.asr.status.int";
const std::string CALLBACK_ASR_LEVEL = "cb.asr.level.int";
const std::string CALLBACK_ASR_RESULT = "cb.asr.result.string";
const std::string CALLBACK_ASR_WAKEUP_RESULT = "cb.asr.wakeup.result.int";
const std::string CALLBACK_WAK_STATUS = "cb.wak.status.int";
const std::string CALLBACK_WAK_RESULT = "cb.wak.result.string";
const std::string CALLBACK_COMBINED_TTS_HEADER = "cb.combined.tts.header.string";
const std::string CALLBACK_COMBINED_TTS_DATA = "cb.combined.tts.data.int8_t";
const std::string CALLBACK_COMBINED_TTS_DATA_LEN = "cb.combined.tts.data.len.int32_t";
const std::string ORV_PLATFORM_INFO_PACKAGE = "orv.custom.subcommand.plat_info.string";
const std::string ORV_PLATFORM_INFO_SDK_VERSION = "orv.plat_info.sdk_version.string";
const std::string ORV_PLATFORM_INFO_APP_NAME = "orv.plat_info.app_name.string";
const std::string ORV_PLATFORM_INFO_PACKAGE_NAME = "orv.plat_info.package_name.string";
const std::string ORV_PLATFORM_INFO_OPERATING_SYSTEM = "orv.plat_info.operating_system.string";
const std::string ORV_PLATFORM_INFO_SCREEN_WIDTH = "orv.plat_info.screen_width.string";
const std::string ORV_PLATFORM_INFO_SCREEN_HEIHT = "orv.plat_info.screen_height.string";
const std::string ORV_PLATFORM_INFO_SDK_NAME = "orv.plat_info.sdk_name.string";
const std::string ORV_PLATFORM_INFO_NET_TYPE = "orv.plat_info.net_type.string";
const std::string ORV_PLATFORM_INFO_DEVICE_MODEL = "orv.plat_info.device_model.string";
const std::string ORV_PLATFORM_INFO_SYSTEM_VERSION = "orv.plat_info.system_version.string";
const std::string COMMON_PARAM_KEY_DEBUG_LOG_LEVEL = "common_param_key_debug_log_level.int";
const std::string ORV_CORE_PLATFORM_CUSTOM_COMMAND = "orv.cmd.platform.custom.command";
const std::string ORV_CORE_PLATFORM_CUSTOM_COMMAND_NAME_STRING = "orv.platform.custom.command.name.string";
const std::string ORV_CORE_PLATFORM_CUSTOM_COMMAND_PARAM_CMD_RECEIVERS_STRVECT = "orv.platform.custom.command.receivers.vector<string>";
const std::string ORV_CORE_PLATFORM_CUSTOM_COMMAND_PARAM_TARGET_STRING = "orv.platform.custom.command.target.string";
const std::string ORV_CORE_PLATFORM_CUSTOM_COMMAND_DO_NOT_RESPOND_FLAG_BOOL = "orv.platform.custom.command.do_not_reply.bool";
const std::string ORV_CORE_PLATFORM_CUSTOM_COMMAND_RESULT = "orv.return.platform.custom.command";
const std::string ORV_CORE_PLATFORM_CUSTOM_COMMAND_ERROR_UNKNOWN_COMMAND_DESC = "This module does not support command: ";
const std::string ORV_CORE_PLATFORM_CUSTOM_COMMAND_ERROR_UNKNOWN_RECEIVER_DESC = "Receiver module is unknown: ";
const std::string ORV_CORE_PLATFORM_CUSTOM_COMMAND_ERROR_RECEIVER_NOT_AVAILABLE_DESC = "Receiver module is not loaded: ";
const std::string ORV_CORE_PLATFORM_CUSTOM_EVENT = "orv.cmd.platform.custom.event";
const std::string ORV_CORE_PLATFORM_CUSTOM_EVENT_NAME_STRING = "orv.platform.custom.event.name.string";
const std::string ASR_ONLINE_PARAM_KEY_SERVER_URL = "server_url.string";
const std::string ASR_ONLINE_PARAM_KEY_CHUNK_KEY = "chunk_key.string";
const std::string ASR_ONLINE_PARAM_KEY_PDT_STRING = "pdt.string";
const std::string ASR_ONLINE_PARAM_KEY_PLATFORM_STRING = "platform.string";
const std::string ASR_ONLINE_PARAM_KEY_SAMPLE_RATE_INT = "audio_sample_rate.int";
const std::string ASR_ONLINE_PARAM_KEY_NET_INT = "net.int";
const std::string MODULE_PARAM_KEY_MODULE_FLAG = "moudle.flag.int";
const std::string PARAM_KEY_CUID = "cuid.string";
const std::string PARAM_KEY_SERVER_URL = "server_url.string";
const std::string PARAM_KEY_CHUNK_KEY = "chunk_key.string";
const std::string PARAM_KEY_PRODUCT_ID = "pdt.string";
const std::string PARAM_KEY_PLATFORM = "platform.string";
const std::string PARAM_KEY_SDK_VERSION = "ver.string";
const std::string PARAM_KEY_SAMPLE_RATE_INT = "audio_sample_rate.int";
const std::string PARAM_KEY_NET_INT = "net.int";
const std::string PARAM_KEY_SN_STRING = "sn.string";
const std::string PARAM_KEY_SDK_LISTENER = "sdk.listener";
const std::string PARAM_KEY_LOCATION = "location.int";
const std::string PARAM_KEY_HTTP_HEADER_LIST = "http.header.list";
const std::string PARAM_KEY_DNS_TYPE = "http.dns.type";

}  // namespace orv
