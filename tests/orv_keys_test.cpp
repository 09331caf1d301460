#include <string>

#include "gtest/gtest.h"
#include "orv/orv.h"

namespace {

struct KeyRow {
  const char* name;
  const std::string* constant;
  const char* value;
};

// Every exported key, in definition order, with its exact text (deliberate
// misspellings and the keys that share a value included).
const KeyRow kKeys[] = {
      {"ORV_COMMAND_GET_EVENT_MANAGER_VERSION", &orv::ORV_COMMAND_GET_EVENT_MANAGER_VERSION, "orv.cmd.get_event_manager_version"},
      {"ORV_CALLBACK_EVENT_MANAGER_VERSION", &orv::ORV_CALLBACK_EVENT_MANAGER_VERSION, "orv.return.get_event_manager_version"},
      {"ORV_PARAM_KEY_EVENT_MANAGER_VERSION_STRING", &orv::ORV_PARAM_KEY_EVENT_MANAGER_VERSION_STRING, "orv.event_manager_version_info.string"},
      {"ORV_COMMAND_SET_WRITABLE_LIBRARY_DATA_PATH", &orv::ORV_COMMAND_SET_WRITABLE_LIBRARY_DATA_PATH, "orv.cmd.set_writable_library_data_path"},
      {"ORV_COMMAND_SET_WRITABLE_USER_DATA_PATH", &orv::ORV_COMMAND_SET_WRITABLE_USER_DATA_PATH, "orv.cmd.set_writable_user_data_path"},
      {"ORV_CMD_KEY_CMD_ID_STRING", &orv::ORV_CMD_KEY_CMD_ID_STRING, "orv.command.param.command_id.string"},
      {"ORV_PARAM_KEY_ERROR_DOMAIN", &orv::ORV_PARAM_KEY_ERROR_DOMAIN, "orv.error_domain.int32_t"},
      {"ORV_PARAM_KEY_ERROR_CODE", &orv::ORV_PARAM_KEY_ERROR_CODE, "orv.error_code.int32_t"},
      {"ORV_PARAM_KEY_ERROR_DESCRIPTION", &orv::ORV_PARAM_KEY_ERROR_DESCRIPTION, "orv.error_message.string"},
      {"ORV_PARAM_KEY_SERIAL_NUM", &orv::ORV_PARAM_KEY_SERIAL_NUM, "orv.sn.string"},
      {"ORV_PARAM_KEY_STATUS", &orv::ORV_PARAM_KEY_STATUS, "orv.status.int32_t"},
      {"ORV_PARAM_KEY_WRITABLE_LIBRARY_DATA_PATH", &orv::ORV_PARAM_KEY_WRITABLE_LIBRARY_DATA_PATH, "orv.writable_library_data_path"},
      {"ORV_PARAM_KEY_WRITABLE_USER_DATA_PATH", &orv::ORV_PARAM_KEY_WRITABLE_USER_DATA_PATH, "orv.writable_library_data_path"},
      {"ORV_ERROR_MESSAGE_OK", &orv::ORV_ERROR_MESSAGE_OK, "OK"},
      {"AUDIO_PARAM_KEY_PACKAGE_TAG", &orv::AUDIO_PARAM_KEY_PACKAGE_TAG, "audio.package.tag.int"},
      {"asr_callback_name", &orv::asr_callback_name, "ASR.callback"},
      {"wakeup_callback_name", &orv::wakeup_callback_name, "WAKEUP.callback"},
      {"CALLBACK_SOUND_LOCATION", &orv::CALLBACK_SOUND_LOCATION, "location.callback"},
      {"upload_callback_name", &orv::upload_callback_name, "UPLOAD.callback"},
      {"kra_callback_name", &orv::kra_callback_name, "KRA.callback"},
      {"CALLBACK_KRA_STATUS", &orv::CALLBACK_KRA_STATUS, "cb.kra.status.int"},
      {"CALLBACK_ASR_STATUS", &orv::CALLBACK_ASR_STATUS, "cb.asr.status.int"},
      {"CALLBACK_ASR_LEVEL", &orv::CALLBACK_ASR_LEVEL, "cb.asr.level.int"},
      {"CALLBACK_ASR_RESULT", &orv::CALLBACK_ASR_RESULT, "cb.asr.result.string"},
      {"CALLBACK_ASR_WAKEUP_RESULT", &orv::CALLBACK_ASR_WAKEUP_RESULT, "cb.asr.wakeup.result.int"},
      {"CALLBACK_WAK_STATUS", &orv::CALLBACK_WAK_STATUS, "cb.wak.status.int"},
      {"CALLBACK_WAK_RESULT", &orv::CALLBACK_WAK_RESULT, "cb.wak.result.string"},
      {"CALLBACK_COMBINED_TTS_HEADER", &orv::CALLBACK_COMBINED_TTS_HEADER, "cb.combined.tts.header.string"},
      {"CALLBACK_COMBINED_TTS_DATA", &orv::CALLBACK_COMBINED_TTS_DATA, "cb.combined.tts.data.int8_t"},
      {"CALLBACK_COMBINED_TTS_DATA_LEN", &orv::CALLBACK_COMBINED_TTS_DATA_LEN, "cb.combined.tts.data.len.int32_t"},
      {"ORV_PLATFORM_INFO_PACKAGE", &orv::ORV_PLATFORM_INFO_PACKAGE, "orv.custom.subcommand.plat_info.string"},
      {"ORV_PLATFORM_INFO_SDK_VERSION", &orv::ORV_PLATFORM_INFO_SDK_VERSION, "orv.plat_info.sdk_version.string"},
      {"ORV_PLATFORM_INFO_APP_NAME", &orv::ORV_PLATFORM_INFO_APP_NAME, "orv.plat_info.app_name.string"},
      {"ORV_PLATFORM_INFO_PACKAGE_NAME", &orv::ORV_PLATFORM_INFO_PACKAGE_NAME, "orv.plat_info.package_name.string"},
      {"ORV_PLATFORM_INFO_OPERATING_SYSTEM", &orv::ORV_PLATFORM_INFO_OPERATING_SYSTEM, "orv.plat_info.operating_system.string"},
      {"ORV_PLATFORM_INFO_SCREEN_WIDTH", &orv::ORV_PLATFORM_INFO_SCREEN_WIDTH, "orv.plat_info.screen_width.string"},
      {"ORV_PLATFORM_INFO_SCREEN_HEIHT", &orv::ORV_PLATFORM_INFO_SCREEN_HEIHT, "orv.plat_info.screen_height.string"},
      {"ORV_PLATFORM_INFO_SDK_NAME", &orv::ORV_PLATFORM_INFO_SDK_NAME, "orv.plat_info.sdk_name.string"},
      {"ORV_PLATFORM_INFO_NET_TYPE", &orv::ORV_PLATFORM_INFO_NET_TYPE, "orv.plat_info.net_type.string"},
      {"ORV_PLATFORM_INFO_DEVICE_MODEL", &orv::ORV_PLATFORM_INFO_DEVICE_MODEL, "orv.plat_info.device_model.string"},
      {"ORV_PLATFORM_INFO_SYSTEM_VERSION", &orv::ORV_PLATFORM_INFO_SYSTEM_VERSION, "orv.plat_info.system_version.string"},
      {"COMMON_PARAM_KEY_DEBUG_LOG_LEVEL", &orv::COMMON_PARAM_KEY_DEBUG_LOG_LEVEL, "common_param_key_debug_log_level.int"},
      {"ORV_CORE_PLATFORM_CUSTOM_COMMAND", &orv::ORV_CORE_PLATFORM_CUSTOM_COMMAND, "orv.cmd.platform.custom.command"},
      {"ORV_CORE_PLATFORM_CUSTOM_COMMAND_NAME_STRING", &orv::ORV_CORE_PLATFORM_CUSTOM_COMMAND_NAME_STRING, "orv.platform.custom.command.name.string"},
      {"ORV_CORE_PLATFORM_CUSTOM_COMMAND_PARAM_CMD_RECEIVERS_STRVECT", &orv::ORV_CORE_PLATFORM_CUSTOM_COMMAND_PARAM_CMD_RECEIVERS_STRVECT, "orv.platform.custom.command.receivers.vector<string>"},
      {"ORV_CORE_PLATFORM_CUSTOM_COMMAND_PARAM_TARGET_STRING", &orv::ORV_CORE_PLATFORM_CUSTOM_COMMAND_PARAM_TARGET_STRING, "orv.platform.custom.command.target.string"},
      {"ORV_CORE_PLATFORM_CUSTOM_COMMAND_DO_NOT_RESPOND_FLAG_BOOL", &orv::ORV_CORE_PLATFORM_CUSTOM_COMMAND_DO_NOT_RESPOND_FLAG_BOOL, "orv.platform.custom.command.do_not_reply.bool"},
      {"ORV_CORE_PLATFORM_CUSTOM_COMMAND_RESULT", &orv::ORV_CORE_PLATFORM_CUSTOM_COMMAND_RESULT, "orv.return.platform.custom.command"},
      {"ORV_CORE_PLATFORM_CUSTOM_COMMAND_ERROR_UNKNOWN_COMMAND_DESC", &orv::ORV_CORE_PLATFORM_CUSTOM_COMMAND_ERROR_UNKNOWN_COMMAND_DESC, "This module does not support command: "},
      {"ORV_CORE_PLATFORM_CUSTOM_COMMAND_ERROR_UNKNOWN_RECEIVER_DESC", &orv::ORV_CORE_PLATFORM_CUSTOM_COMMAND_ERROR_UNKNOWN_RECEIVER_DESC, "Receiver module is unknown: "},
      {"ORV_CORE_PLATFORM_CUSTOM_COMMAND_ERROR_RECEIVER_NOT_AVAILABLE_DESC", &orv::ORV_CORE_PLATFORM_CUSTOM_COMMAND_ERROR_RECEIVER_NOT_AVAILABLE_DESC, "Receiver module is not loaded: "},
      {"ORV_CORE_PLATFORM_CUSTOM_EVENT", &orv::ORV_CORE_PLATFORM_CUSTOM_EVENT, "orv.cmd.platform.custom.event"},
      {"ORV_CORE_PLATFORM_CUSTOM_EVENT_NAME_STRING", &orv::ORV_CORE_PLATFORM_CUSTOM_EVENT_NAME_STRING, "orv.platform.custom.event.name.string"},
      {"ASR_ONLINE_PARAM_KEY_SERVER_URL", &orv::ASR_ONLINE_PARAM_KEY_SERVER_URL, "server_url.string"},
      {"ASR_ONLINE_PARAM_KEY_CHUNK_KEY", &orv::ASR_ONLINE_PARAM_KEY_CHUNK_KEY, "chunk_key.string"},
      {"ASR_ONLINE_PARAM_KEY_PDT_STRING", &orv::ASR_ONLINE_PARAM_KEY_PDT_STRING, "pdt.string"},
      {"ASR_ONLINE_PARAM_KEY_PLATFORM_STRING", &orv::ASR_ONLINE_PARAM_KEY_PLATFORM_STRING, "platform.string"},
      {"ASR_ONLINE_PARAM_KEY_SAMPLE_RATE_INT", &orv::ASR_ONLINE_PARAM_KEY_SAMPLE_RATE_INT, "audio_sample_rate.int"},
      {"ASR_ONLINE_PARAM_KEY_NET_INT", &orv::ASR_ONLINE_PARAM_KEY_NET_INT, "net.int"},
      {"MODULE_PARAM_KEY_MODULE_FLAG", &orv::MODULE_PARAM_KEY_MODULE_FLAG, "moudle.flag.int"},
      {"PARAM_KEY_CUID", &orv::PARAM_KEY_CUID, "cuid.string"},
      {"PARAM_KEY_SERVER_URL", &orv::PARAM_KEY_SERVER_URL, "server_url.string"},
      {"PARAM_KEY_CHUNK_KEY", &orv::PARAM_KEY_CHUNK_KEY, "chunk_key.string"},
      {"PARAM_KEY_PRODUCT_ID", &orv::PARAM_KEY_PRODUCT_ID, "pdt.string"},
      {"PARAM_KEY_PLATFORM", &orv::PARAM_KEY_PLATFORM, "platform.string"},
      {"PARAM_KEY_SDK_VERSION", &orv::PARAM_KEY_SDK_VERSION, "ver.string"},
      {"PARAM_KEY_SAMPLE_RATE_INT", &orv::PARAM_KEY_SAMPLE_RATE_INT, "audio_sample_rate.int"},
      {"PARAM_KEY_NET_INT", &orv::PARAM_KEY_NET_INT, "net.int"},
      {"PARAM_KEY_SN_STRING", &orv::PARAM_KEY_SN_STRING, "sn.string"},
      {"PARAM_KEY_SDK_LISTENER", &orv::PARAM_KEY_SDK_LISTENER, "sdk.listener"},
      {"PARAM_KEY_LOCATION", &orv::PARAM_KEY_LOCATION, "location.int"},
      {"PARAM_KEY_HTTP_HEADER_LIST", &orv::PARAM_KEY_HTTP_HEADER_LIST, "http.header.list"},
      {"PARAM_KEY_DNS_TYPE", &orv::PARAM_KEY_DNS_TYPE, "http.dns.type"},
};

TEST(SharedKeys, EveryKeyHasItsExactText) {
  EXPECT_EQ(sizeof(kKeys) / sizeof(kKeys[0]), 73u);
  for (const KeyRow& row : kKeys) {
    EXPECT_EQ(*row.constant, row.value) << row.name;
  }
}

TEST(SharedKeys, CustomCommandErrors) {
  EXPECT_EQ(orv::ORV_CORE_PLATFORM_CUSTOM_COMMAND_ERROR_UNKNOWN_COMMAND, -1);
  EXPECT_EQ(orv::ORV_CORE_PLATFORM_CUSTOM_COMMAND_ERROR_UNKNOWN_RECEIVER, -2);
  EXPECT_EQ(orv::ORV_CORE_PLATFORM_CUSTOM_COMMAND_ERROR_RECEIVER_NOT_AVAILABLE, -3);
  EXPECT_EQ(orv::ORV_CORE_PLATFORM_CUSTOM_COMMAND_ERROR_UNKNOWN_COMMAND_DESC,
            "This module does not support command: ");
  EXPECT_EQ(orv::ORV_CORE_PLATFORM_CUSTOM_COMMAND_ERROR_UNKNOWN_RECEIVER_DESC,
            "Receiver module is unknown: ");
  EXPECT_EQ(orv::ORV_CORE_PLATFORM_CUSTOM_COMMAND_ERROR_RECEIVER_NOT_AVAILABLE_DESC,
            "Receiver module is not loaded: ");
}

}  // namespace
