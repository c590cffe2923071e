// Common declarations shared by every part of the service: the log macros, thread naming,
// device paths and the common utilities of truck_main/common.
#ifndef TRUCK_INCLUDE_COMMONDEFINE_H
#define TRUCK_INCLUDE_COMMONDEFINE_H

#include <stdint.h>
#include <stdlib.h>
#include <string>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <json/json.h>

#include "JQ_LOG.h"

// TRUCK_LOG_SOURCE names the source file (its path below the repository root, without
// extension); the build defines it for every file of the plug-in.
#define TRUCK_LOG(level, format, ...) \
    JQ_LOG_Output("TRUCK", (level), TRUCK_LOG_SOURCE, __func__, __LINE__, format, ##__VA_ARGS__)
#define APPCOM_LOG(level, format, ...) \
    JQ_LOG_Output("APPCOM", (level), TRUCK_LOG_SOURCE, __func__, __LINE__, format, ##__VA_ARGS__)

// Names the calling thread (the kernel keeps 15 characters) and says so in the log; every
// named thread of the service calls it first.
inline void TRUCK_THREAD_INFO_PRINT(const char* name) {
    prctl(PR_SET_NAME, name, 0, 0, 0);
    JQ_LOG_Output("TRUCK", 0, "include/CommonDefine", "TRUCK_THREAD_INFO_PRINT", __LINE__,
                  "Thread: Create thread, name = %s, pid = %d, tid = %d\n", name, (int)getpid(),
                  (int)syscall(SYS_gettid));
}

// The service opens fixed absolute device paths. On the device the prefix is empty; a host
// that simulates the device (or a test) points TRUCK_SYSROOT at a folder that stands for "/".
inline std::string TruckDevicePath(const char* devicePath) {
    const char* root = getenv("TRUCK_SYSROOT");
    std::string path = (root != nullptr) ? root : "";
    while (!path.empty() && path.back() == '/') {
        path.pop_back();
    }
    return path + (devicePath != nullptr ? devicePath : "");
}

// strerror is not safe when several threads fail at once. strerror_r answers in one of two
// flavours, XSI's status or GNU's text, depending on the C library; both land here.
inline const char* TruckErrorText(int result, const char* buffer) {
    return result == 0 ? buffer : "Unknown error";
}
inline const char* TruckErrorText(const char* result, const char*) {
    return result;
}

// ---- Little-endian records ----
// Records exchanged with the platform and the bus are little-endian at fixed offsets; these
// read and write them byte by byte, whatever the host's byte order and alignment.
inline void TruckPutLE16(unsigned char* at, uint16_t value) {
    at[0] = static_cast<unsigned char>(value);
    at[1] = static_cast<unsigned char>(value >> 8);
}
inline void TruckPutLE32(unsigned char* at, uint32_t value) {
    at[0] = static_cast<unsigned char>(value);
    at[1] = static_cast<unsigned char>(value >> 8);
    at[2] = static_cast<unsigned char>(value >> 16);
    at[3] = static_cast<unsigned char>(value >> 24);
}
inline uint32_t TruckGetLE32(const unsigned char* at) {
    return static_cast<uint32_t>(at[0]) | (static_cast<uint32_t>(at[1]) << 8) |
           (static_cast<uint32_t>(at[2]) << 16) | (static_cast<uint32_t>(at[3]) << 24);
}

// ---- JSON access helpers (truck_main/common/src/CommonDefine.cpp) ----

// Typed reads out of JSON documents (GetJsonIntegral is in AppLibCommon.h). The Get functions
// return 0 when the value was read and -1 when it was not; the conversions return true when
// done. No exception of the JSON library reaches the caller, except from ParseJsonContext and
// JsonToString, which leave that to the caller.

// Clears all `size` bytes of dst, then copies what fits of src; dst is always terminated.
// A null dst or a size of 0 writes nothing, a null src leaves dst cleared. Always 0.
int StringCopy(char* dst, unsigned int size, const char* src);

// Copies a string value into buf (cut to size - 1 characters). Anything else clears the
// whole buffer and gives -1.
int GetJsonCString(const Json::Value& v, char* buf, int size);
int GetJsonCString(const Json::Value& v, unsigned char* buf, int size);

// Numbers are read as they are, strings through atof ("abc" reads as 0); anything else gives
// defaultValue and -1.
int GetJsonFloat(const Json::Value& v, float& out, float defaultValue);

// Parses exactly `length` bytes (no terminator needed), keeping comments. false when the text
// is refused, including nesting deeper than the reader allows.
bool ConvertStringToJson(const char* text, unsigned int length, Json::Value& root);

// Whether the containers of a JSON text nest no deeper than maxDepth, counting brackets
// outside strings and outside comments, which the reader skips too; a cheap scan for a text
// that arrives on a thread whose stack is not ours to size, before the recursive parser sees it.
bool JsonNestingWithin(const char* text, unsigned int length, int maxDepth);

// Compact one-line serialisation ending in a newline. text is left unchanged on failure.
bool ConvertJsonToString(const Json::Value& v, std::string& text);
void JsonToString(const Json::Value& v, std::string& text);

// 0 = parsed into root, -1 = cannot open or parse, -22 = null path.
int LoadJsonFile(const char* path, Json::Value& root);

// Merges src into dst, depth first. With overwrite, the leaves of src replace those of dst;
// without it, dst only gains what it lacked and the "?" leaves of src are filled in from
// dst. A node whose kinds cannot be merged (an array or object of src against a scalar or
// the other container in dst) is left as it is in both.
void JsonValueMerge(Json::Value& dst, Json::Value& src, bool overwrite);

// From the system configuration: the customer type number of "CUSTOMER_NAME" (0 when unknown)
// and the text of "PRODUCT_TYPE" (empty when absent).
int ParseCustomerType(const Json::Value& systemConfig);
std::string ParseProductType(const Json::Value& systemConfig);

// The member `key` of v, created null when absent (v turns from null into an object). A v
// that cannot have members, or a null key, gives a detached null value instead.
Json::Value& GetJsonValue(Json::Value& v, const char* key);

// Member tests and defaulted member reads. A key is tested only when v is an object; indexes
// are int so that callers can loop against GetArrayMemberSize without sign casts. The Get
// members leave their out-reference untouched when they return false.
namespace JsonUtils {

// Parses exactly `length` bytes, keeping comments; a length below 1 gives false. Unlike
// ConvertStringToJson it does not catch: nesting deeper than the reader allows throws.
bool ParseJsonContext(const char* text, int length, Json::Value& root);

bool IsMember(const Json::Value& v, const char* key);
bool IsObjectMember(const Json::Value& v, const char* key);
bool IsArrayMember(const Json::Value& v, const char* key);
bool IsValidArrayMember(const Json::Value& v, const char* key, int index);
bool IsArrayMember(const Json::Value& v, const char* key, int index);
bool IsValidArrayIndex(const Json::Value& v, int index);
int GetArrayMemberSize(const Json::Value& v, const char* key);
int GetArrayMemberSize(const Json::Value& v, const char* key, int index);
bool IsStringMember(const Json::Value& v, const char* key);
bool IsBoolMember(const Json::Value& v, const char* key);
bool IsIntMember(const Json::Value& v, const char* key);
bool IsUIntMember(const Json::Value& v, const char* key);
bool IsInt64Member(const Json::Value& v, const char* key);
bool IsInt64ArrayMember(const Json::Value& v, int index);
bool IsUInt64ArrayMember(const Json::Value& v, int index);

bool GetStringMember(const Json::Value& v, const char* key, std::string& out);
std::string AsStringMember(const Json::Value& v, const char* key);
// The pointer lives as long as v is not changed.
const char* AsCStringMember(const Json::Value& v, const char* key);
// strncpy semantics: a text of len bytes or more leaves dst unterminated.
bool GetCStringMember(const Json::Value& v, const char* key, char* dst, int len);
bool GetBoolMember(const Json::Value& v, const char* key, bool& out);
bool GetIntMember(const Json::Value& v, const char* key, int& out);
bool GetUIntMember(const Json::Value& v, const char* key, unsigned int& out);
bool GetInt64Member(const Json::Value& v, const char* key, long long& out);

int AsIntMember(const Json::Value& v, const char* key, int defaultValue);
int AsIntArrayMember(const Json::Value& v, const char* key, int index, int defaultValue);
int AsArrayIntMember(const Json::Value& v, int index, const char* key, int defaultValue);
unsigned int AsUIntMember(const Json::Value& v, const char* key, unsigned int defaultValue);
unsigned int AsUIntMember(const Json::Value& v, const char* key, int index, unsigned int defaultValue);
unsigned int AsUIntArrayMember(const Json::Value& v, int index, const char* key, unsigned int defaultValue);
unsigned long long AsUInt64Member(const Json::Value& v, const char* key, unsigned long long defaultValue);
unsigned long long AsUInt64ArrayMember(const Json::Value& v, const char* key, int index,
                                       unsigned long long defaultValue);

}  // namespace JsonUtils

// ---- Text encoding (truck_main/common/src/CommonEncoding.cpp) ----

// Overlay texts arrive as UTF-8; the device's fonts are indexed by GB2312 codes.

// Length of the UTF-8 sequence that starts with `first`: its count of leading one bits (1 for
// ASCII, 0 for a continuation byte, up to 8 for 0xFF; no length is refused here).
int GetUtf8ByteNumber(unsigned char first);

// Decodes one NUL-terminated UTF-8 sequence of 2, 3 or 4 bytes (its strlen decides; the bytes
// are not validated) into the little-endian bytes of its code point: 2 bytes for the 2- and
// 3-byte forms, 3 for the 4-byte form. Any other length logs and gives -1 without writing; a
// null output gives -1 as well.
int convert_utf8_unicode(const char* sequence, char* codePoint);

// GB2312 code of an ideograph U+4E00..U+9FA5 from "./fonts/gb2312fonttable" (relative to the
// working directory): the entry's two bytes copied as they are, so the code's bytes lie in
// memory in text order. 0, or -1 on a file error with gbCode unchanged. A code point outside
// the table prints a line and gives 0 without writing gbCode: preset it when that matters.
// Messages go to standard output.
int UnicodeToGb2312(unsigned long codePoint, unsigned short& gbCode);

// The last component of path (a pointer into it); path itself when it has no '/' or ends in
// one. A null path gives null.
const char* file_name(const char* path);

// ---- Media value conversions (truck_main/common/src/CommonMedia.cpp) ----

// The media interfaces' enumerations, as far as the conversions need them: each names the
// value its conversion falls back to. The underlying type is fixed so that any number the
// platform puts in them is a valid value.
enum eVideoEncodeType : int { VIDEO_ENCODE_TYPE_UNKNOWN = 3 };
enum eVideoResolution : int { VIDEO_RESOLUTION_UNKNOWN = 30 };
enum eVideoEncodeBirateCtrlType : int { VIDEO_BITRATE_CTRL_UNKNOWN = 3 };
enum eAudioFormat : int { AUDIO_FORMAT_UNKNOWN = 7 };
enum eG726Bps : int { G726_BPS_UNKNOWN = 8 };
enum eVideoOutputResolution : int { VIDEO_OUTPUT_RESOLUTION_UNKNOWN = 20 };

// Stored parameter byte <-> enumeration. With toEnum the byte is read and the enumeration
// written (the UNKNOWN value for a byte without meaning); without it the enumeration is read
// and the byte written (0xFF for a value without a stored form). 0, or -1 for a null argument.
int Value2VideoEncodeType(unsigned char* stored, eVideoEncodeType* value, bool toEnum);
int Value2VideoEncodeBitrateMode(unsigned char* stored, eVideoEncodeBirateCtrlType* value, bool toEnum);
int Value2AudioEncodeFormat(unsigned char* stored, eAudioFormat* value, bool toEnum);
int Value2AudioG726Bps(unsigned char* stored, eG726Bps* value, bool toEnum);
int Value2VideoOutputResolution(unsigned char* stored, eVideoOutputResolution* value, bool toEnum);
// Stored bytes 0..29 are the enumeration itself and larger ones 30; back, the low byte.
int Value2VideoEncodeResolution(unsigned char* stored, eVideoResolution* value, bool toEnum);

// Pixel size of an output resolution; unknown ones are 1024 x 768. Always 0.
int GetVideoOutputSize(eVideoOutputResolution resolution, unsigned int& width, unsigned int& height);

// ---- File, time and string helpers (truck_main/common/src/CommonFile.cpp) ----

#include <stdio.h>

#include <list>

#include "JQ_SDK_DateTime.h"

// Creates every missing directory of an absolute path (at most 255 characters, no "//").
// true when the directory exists afterwards.
bool make_directory(const char* path);

// Appends to names every entry of folder ("." and ".." included) whose name contains
// pattern. 0, or -1 when the folder can't be opened or an argument is null.
int FindFileInFolder(const char* folder, const char* pattern, std::list<std::string>& names);

// Size in bytes, 0 when it can't be learnt; a size beyond a long (2 GiB on the device) gives
// LONG_MAX. The FILE form leaves the file positioned at its end.
long GetNormalFileSize(FILE* file);
long GetNormalFileSize(const char* path);

// Logs title and a hex dump of data (16 bytes a row, each full row followed by its printable
// characters) as one line at level 0.
void OutputHexDump(const char* title, const char* data, unsigned int length);

// Erases the trailing run of text made of `characters`; a text made only of them is kept.
void FilterCharacters(std::string& text, std::string characters);

// Sleeps with select, so a signal ends it early; select's result.
int mSleep(unsigned int milliseconds);

// Re-armable delay on the platform's seconds clock: *first == 1 arms it (clears *first, sets
// *since to now). true once `seconds` have passed since *since, counting a clock that went back
// as elapsed time too. Null arguments give false.
bool ProcessDelayTime(unsigned char* first, unsigned int* since, unsigned int seconds);

// Milliseconds within the current second of the time of day, 0..999.
int GetMicroOfSecond();

// Every field in range (the day is not checked against the month).
bool CheckDateTimeCorrect(tagDateTime& dateTime);

// Business id: type in bits 32..63, group in 16..31, index in 0..15.
unsigned long long ComposeBusinessId(unsigned int type, unsigned short group, unsigned short index);
int DecomposeBusinessId(unsigned long long id, unsigned int& type, unsigned short& group,
                        unsigned short& index);

#endif
