// JSON helpers: Jansson documents with owned references and errors in the thread's record.
#include <ksutils/error.h>
#include <ksutils/jsonutl.h>

#include <cerrno>
#include <cstdlib>

namespace ks {

namespace {

json_ptr loaded(json_t* doc, const json_error_t& error, ks::string_view source) {
    if (!doc) {
        const int code = error.line < 0 && error.position == 0 ? E_NOENT : E_INVAL;
        _get_kserrno().set(code, "{:s}: {:s} at line {:d}, column {:d}", source, ks::string_view(error.text),
                           error.line, error.column);
    }
    return json_ptr(doc);
}

const char* type_name(const json_t* value) {
    switch (json_typeof(value)) {
        case JSON_OBJECT: return "an object";
        case JSON_ARRAY: return "an array";
        case JSON_STRING: return "a string";
        case JSON_INTEGER: return "an integer";
        case JSON_REAL: return "a real number";
        case JSON_TRUE:
        case JSON_FALSE: return "a boolean";
        default: return "null";
    }
}

// The member when it exists and passes `is`, else null with the record set.
const json_t* member(const json_t* object, const char* key, bool (*is)(const json_t*), const char* wanted) {
    const json_t* value = json_is_object(object) ? json_object_get(object, key) : nullptr;
    if (!value) {
        _get_kserrno().set(E_NOENT, "member \"{:s}\" is missing", ks::string_view(key));
        return nullptr;
    }
    if (!is(value)) {
        _get_kserrno().set(E_INVAL, "member \"{:s}\" is {:s}, not {:s}", ks::string_view(key),
                           ks::string_view(type_name(value)), ks::string_view(wanted));
        return nullptr;
    }
    _get_kserrno().set(E_OK);
    return value;
}

bool is_string(const json_t* v) { return json_is_string(v); }
bool is_integer(const json_t* v) { return json_is_integer(v); }
bool is_boolean(const json_t* v) { return json_is_boolean(v); }
bool is_object(const json_t* v) { return json_is_object(v); }
bool is_array(const json_t* v) { return json_is_array(v); }

}  // namespace

json_ptr json_load_file(const std::string& file) {
    json_error_t error;
    return loaded(::json_load_file(file.c_str(), JSON_DECODE_ANY, &error), error, ks::string_view(file));
}

json_ptr json_load_string(ks::string_view text) {
    json_error_t error;
    return loaded(::json_loadb(text.data(), text.size(), JSON_DECODE_ANY, &error), error, "JSON text");
}

std::string json_get_string(const json_t* object, const char* key, const std::string& fallback) {
    const json_t* v = member(object, key, is_string, "a string");
    return v ? std::string(json_string_value(v), json_string_length(v)) : fallback;
}

int64_t json_get_int(const json_t* object, const char* key, int64_t fallback) {
    const json_t* v = member(object, key, is_integer, "an integer");
    return v ? static_cast<int64_t>(json_integer_value(v)) : fallback;
}

bool json_get_bool(const json_t* object, const char* key, bool fallback) {
    const json_t* v = member(object, key, is_boolean, "a boolean");
    return v ? json_is_true(v) : fallback;
}

const json_t* json_get_object(const json_t* object, const char* key, const json_t* fallback) {
    const json_t* v = member(object, key, is_object, "an object");
    return v ? v : fallback;
}

const json_t* json_get_array(const json_t* object, const char* key, const json_t* fallback) {
    const json_t* v = member(object, key, is_array, "an array");
    return v ? v : fallback;
}

json_ptr to_json_array(const std::vector<std::string>& values) {
    json_ptr array(json_array());
    for (const auto& v : values) json_array_append_new(array.get(), json_stringn(v.data(), v.size()));
    return array;
}

json_ptr to_json_array(const std::vector<int64_t>& values) {
    json_ptr array(json_array());
    for (int64_t v : values) json_array_append_new(array.get(), json_integer(static_cast<json_int_t>(v)));
    return array;
}

bool json_response_status(const json_t* response, int64_t& status) {
    const json_t* v = json_is_object(response) ? json_object_get(response, "status") : nullptr;
    if (!v) {
        _get_kserrno().set(E_NOENT, "response has no \"status\"");
        return false;
    }
    if (json_is_integer(v)) {
        status = static_cast<int64_t>(json_integer_value(v));
        return true;
    }
    if (json_is_string(v)) {
        const char* text = json_string_value(v);
        char* end = nullptr;
        errno = 0;
        const long long parsed = std::strtoll(text, &end, 10);
        if (*text && end && *end == '\0' && errno == 0) {
            status = parsed;
            return true;
        }
    }
    _get_kserrno().set(E_INVAL, "response \"status\" is {:s}, not a number", ks::string_view(type_name(v)));
    return false;
}

}  // namespace ks
