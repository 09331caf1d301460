/// @file
/// Small stateless helpers shared by the library and the speech modules:
/// error-code packing, UTF-8 counting, URL encoding and URL pieces, file
/// reading, a Boyer-Moore byte search, number/string conversion, JSON access
/// over cJSON, string splitting and the wake-up-words file reader.
///
/// None of them keeps state or takes a lock: any thread may call them, as long
/// as the arguments themselves are not shared. Bad arguments (null pointers,
/// zero or negative lengths) give an empty result, never a crash.
///
/// The cJSON interface is re-exported into namespace orv (orv::cJSON,
/// orv::cJSON_Parse, ...); it is the cJSON library itself, linked in.
#ifndef ORV_CORE_UTILITY_ORV_UTILITY_H
#define ORV_CORE_UTILITY_ORV_UTILITY_H

#include <stdio.h>

#include <string>
#include <vector>

#include <cjson/cJSON.h>

#include "core/orv_api.h"

namespace orv {

/// cJSON, usable as orv::cJSON_... (the cJSON_* macros stay global).
using ::cJSON;
using ::cJSON_Hooks;
using ::cJSON_bool;
using ::cJSON_Version;
using ::cJSON_InitHooks;
using ::cJSON_Parse;
using ::cJSON_ParseWithLength;
using ::cJSON_ParseWithOpts;
using ::cJSON_ParseWithLengthOpts;
using ::cJSON_Print;
using ::cJSON_PrintUnformatted;
using ::cJSON_PrintBuffered;
using ::cJSON_PrintPreallocated;
using ::cJSON_Delete;
using ::cJSON_GetArraySize;
using ::cJSON_GetArrayItem;
using ::cJSON_GetObjectItem;
using ::cJSON_GetObjectItemCaseSensitive;
using ::cJSON_HasObjectItem;
using ::cJSON_GetErrorPtr;
using ::cJSON_GetStringValue;
using ::cJSON_GetNumberValue;
using ::cJSON_IsInvalid;
using ::cJSON_IsFalse;
using ::cJSON_IsTrue;
using ::cJSON_IsBool;
using ::cJSON_IsNull;
using ::cJSON_IsNumber;
using ::cJSON_IsString;
using ::cJSON_IsArray;
using ::cJSON_IsObject;
using ::cJSON_IsRaw;
using ::cJSON_CreateNull;
using ::cJSON_CreateTrue;
using ::cJSON_CreateFalse;
using ::cJSON_CreateBool;
using ::cJSON_CreateNumber;
using ::cJSON_CreateString;
using ::cJSON_CreateRaw;
using ::cJSON_CreateArray;
using ::cJSON_CreateObject;
using ::cJSON_CreateStringReference;
using ::cJSON_CreateObjectReference;
using ::cJSON_CreateArrayReference;
using ::cJSON_CreateIntArray;
using ::cJSON_CreateFloatArray;
using ::cJSON_CreateDoubleArray;
using ::cJSON_CreateStringArray;
using ::cJSON_AddItemToArray;
using ::cJSON_AddItemToObject;
using ::cJSON_AddItemToObjectCS;
using ::cJSON_AddItemReferenceToArray;
using ::cJSON_AddItemReferenceToObject;
using ::cJSON_DetachItemViaPointer;
using ::cJSON_DetachItemFromArray;
using ::cJSON_DeleteItemFromArray;
using ::cJSON_DetachItemFromObject;
using ::cJSON_DetachItemFromObjectCaseSensitive;
using ::cJSON_DeleteItemFromObject;
using ::cJSON_DeleteItemFromObjectCaseSensitive;
using ::cJSON_InsertItemInArray;
using ::cJSON_ReplaceItemViaPointer;
using ::cJSON_ReplaceItemInArray;
using ::cJSON_ReplaceItemInObject;
using ::cJSON_ReplaceItemInObjectCaseSensitive;
using ::cJSON_Duplicate;
using ::cJSON_Compare;
using ::cJSON_Minify;
using ::cJSON_AddNullToObject;
using ::cJSON_AddTrueToObject;
using ::cJSON_AddFalseToObject;
using ::cJSON_AddBoolToObject;
using ::cJSON_AddNumberToObject;
using ::cJSON_AddStringToObject;
using ::cJSON_AddRawToObject;
using ::cJSON_AddObjectToObject;
using ::cJSON_AddArrayToObject;
using ::cJSON_SetNumberHelper;
using ::cJSON_SetValuestring;
using ::cJSON_malloc;
using ::cJSON_free;

/// ---- Error codes ----------------------------------------------------------

/// (high << 16) | (low & 0xFFFF).
ORV_API int encode_error(short high, short low);
/// high = code >> 16 (keeps the sign), low = the low 16 bits.
ORV_API void decode_error(int code, short& high, short& low);

/// ---- UTF-8 -----------------------------------------------------------------
/// Stepping rule: a byte below 0x80 is a one-byte character; any other byte is
/// a lead byte whose count of leading 1 bits is the sequence length
/// (continuation bytes are not inspected, so a stray continuation byte counts
/// as one character). Scanning stops at a NUL lead byte or at the end.

/// Characters in the first len bytes; a sequence cut off by the end of the
/// range is not counted. Null s, len <= 0 or a range that wraps: 0.
ORV_API int UTF8StrLen(const unsigned char* s, int len);
/// Address of character number index (from 0), or of the NUL byte met before
/// it. Null for null s, len <= 0, a negative index, or an index at or past the
/// last complete character.
ORV_API const unsigned char* ptrToUTF8SymbolOffset(int index, const unsigned char* s, int len);

/// ---- URLs ------------------------------------------------------------------

/// Percent-encodes every byte outside A-Z a-z 0-9 - _ . ~ as %XX (uppercase);
/// a blank becomes %20. Null s or len 0: "".
ORV_API std::string URLEncode(const unsigned char* s, unsigned len);
ORV_API std::string URLEncode(const std::string& s);
/// URLEncode(key) + "=" + URLEncode(value)
ORV_API std::string URLEncodedKEV(const std::string& key, const std::string& value);
/// True for 0-9, a-f, A-F.
ORV_API bool ishex(int c);
/// "+" becomes a blank, %XX that byte. A "%" without two hex digits after it
/// makes the whole result "". The result ends at the first decoded NUL byte.
/// Null s: "".
ORV_API std::string URLDecode(const char* s, unsigned size);
/// Text between the first "//" and the next "/" ("host" or "host:port"); "" when
/// "//" is missing or at position 0, or no "/" follows the host.
ORV_API std::string get_host_from_url(std::string url);
/// For "http://" or "https://" URLs with a "/" after the host: domain = host (and
/// port), directory = the rest from that "/". Any other URL (no such scheme, or
/// nothing after the host) sets both to "", as get_host_from_url gives "".
ORV_API void get_url_domain_directory(std::string url, std::string& domain, std::string& directory);
/// The URL with its host (and port) replaced by ip; "" in the cases where
/// get_host_from_url gives "".
ORV_API std::string get_resolve_ip_url(std::string url, std::string ip);

/// ---- Files and strings -----------------------------------------------------

/// Size of the open file in bytes; the file position is restored. Streams that
/// cannot seek to their end are counted by reading from the start. Null f: -1.
ORV_API long getFileSize(FILE* f);
/// Whole file as text, cut at its first NUL byte; "" for an empty path or a
/// file that cannot be opened or read.
ORV_API std::string read_all_content(std::string path);
/// malloc copy of s (free it); null for null s or when malloc fails.
ORV_API char* clone_str(const char* s);
/// Whether the sLen bytes of s end with the suffixLen bytes of suffix. False
/// for a null pointer or suffixLen > sLen; an empty suffix matches.
ORV_API bool str_ends_with(const char* s, unsigned sLen, const char* suffix, unsigned suffixLen);
/// One int read with a stream's >>: leading blanks skipped, stops at the first
/// non-digit; 0 when no number starts the text, INT_MAX / INT_MIN on overflow.
ORV_API int string_to_int(std::string s);
ORV_API std::string int_to_string(int value);
ORV_API std::string ll_to_string(long long value);
/// Cuts s at every character found in delimiters. Empty pieces are kept, so n
/// delimiter characters always give n + 1 pieces ("" gives one empty piece;
/// ",a," with "," gives "", "a", ""). Empty delimiters: s whole.
ORV_API std::vector<std::string> split(std::string s, std::string delimiters);

/// ---- Boyer-Moore byte search -----------------------------------------------

/// Address of the first occurrence of pattern in text, or null (also for any
/// null pointer or zero length).
ORV_API unsigned char* boyer_moore(unsigned char* text, unsigned textLen, unsigned char* pattern,
                                   unsigned patternLen);
/// Bad-character table (256 entries): patternLen for bytes absent from the
/// pattern's first patternLen - 1 bytes, else the distance of the byte's last
/// occurrence there from the pattern's end.
ORV_API void make_delta1(int* delta1, const unsigned char* pattern, int patternLen);
/// True when word[pos..] is also a prefix of word.
ORV_API bool is_prefix(const unsigned char* word, int wordLen, int pos);
/// Length of the longest common suffix of word[0..pos] and word, capped at
/// pos (make_delta2's prefix pass covers the longer case).
ORV_API int suffix_length(const unsigned char* word, int wordLen, int pos);
/// Good-suffix table: one entry per pattern byte.
ORV_API void make_delta2(int* delta2, const unsigned char* pattern, int patternLen);

/// ---- JSON ------------------------------------------------------------------

/// cJSON_Parse(text); null for null or empty text. The caller cJSON_Deletes it.
ORV_API cJSON* read_json(const char* text);
/// Null for a null object or key, else cJSON_GetObjectItem.
ORV_API cJSON* get_json_item(cJSON* obj, const char* key);
/// Null for a null array, else cJSON_GetArrayItem (null past the end).
ORV_API cJSON* get_json_array_item(cJSON* arr, unsigned index);
/// Appends the integer values of the array json[key] to out and returns 1; 0
/// when the text is empty or does not parse, key is missing, or the array is
/// empty. Elements that are not numbers give 0.
ORV_API int json_to_int_vector(std::string json, std::string key, std::vector<int>& out);
/// The same with string values; elements that are not strings give "".
ORV_API int json_to_str_vector(std::string json, std::string key, std::vector<std::string>& out);

/// ---- Wake-up words ---------------------------------------------------------

/// Reads the wake-up-words file (every byte stored complemented): the words of
/// its first line (ended by "\r\n"), separated by ",", empty ones included,
/// are appended to words. A file without "\r\n" adds nothing.
ORV_API void decode_wakeup_words(const std::string& path, std::vector<std::string>& words);

}  // namespace orv

#endif  // ORV_CORE_UTILITY_ORV_UTILITY_H
