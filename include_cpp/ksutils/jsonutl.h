/// @file
/// JSON helpers on Jansson for the daemons: documents owned through ks::PtrDeleter, loading
/// with the parser's line and column in the error, typed members with a fallback, arrays
/// from vectors, and the status of a service's response.
///
/// Every getter sets the thread's error record: E_OK when the member was there with the
/// right type, E_NOENT when it is absent, E_INVAL when it has another type (the fallback is
/// returned in both failure cases). A caller that must tell a stored value equal to the
/// fallback from a missing member reads the record's code after the call.
///
/// @code
///   ks::json_ptr doc = ks::json_load_string(text);
///   if (!doc) return fail(ks::_get_kserrno().message_view());  // "... at line 3, column 7"
///   int64_t port = ks::json_get_int(doc.get(), "port", 53);
/// @endcode
#pragma once
#include <ksexport.h>
#include <ksutils/miscutl.h>
#include <ksutils/string_view.h>

#include <jansson.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace ks {

/// An owned JSON document (or value).
using json_ptr = std::unique_ptr<json_t, PtrDeleter>;

/// A document from a file or a text (any JSON value at the root); null with E_INVAL and
/// "SOURCE: TEXT at line L, column C" (E_NOENT for a file that cannot be opened).
KS_EXPORT json_ptr json_load_file(const std::string& file);
/// The document in `text`.
KS_EXPORT json_ptr json_load_string(ks::string_view text);

/// @name Members
/// Members of `object` (which may be null or not an object: the member is then absent).
/// @{

/// The string member `key`, or `fallback`.
KS_EXPORT std::string json_get_string(const json_t* object, const char* key, const std::string& fallback);
/// The integer member `key`, or `fallback`.
KS_EXPORT int64_t json_get_int(const json_t* object, const char* key, int64_t fallback);
/// The boolean member `key`, or `fallback`.
KS_EXPORT bool json_get_bool(const json_t* object, const char* key, bool fallback);
/// The object member `key`, or `fallback`. Borrowed references, valid while `object` lives.
KS_EXPORT const json_t* json_get_object(const json_t* object, const char* key, const json_t* fallback = nullptr);
/// The array member `key`, or `fallback` (borrowed, as for json_get_object()).
KS_EXPORT const json_t* json_get_array(const json_t* object, const char* key, const json_t* fallback = nullptr);
/// @}

/// A JSON array of the strings.
KS_EXPORT json_ptr to_json_array(const std::vector<std::string>& values);
/// A JSON array of the integers.
KS_EXPORT json_ptr to_json_array(const std::vector<int64_t>& values);

/// The "status" member of a response, an integer or a text holding one ("200"); false with
/// E_NOENT when it is absent and E_INVAL when it is anything else.
KS_EXPORT bool json_response_status(const json_t* response, int64_t& status);

}  // namespace ks
