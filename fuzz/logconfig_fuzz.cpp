// Feeds arbitrary text to the log configuration checker as a JSON document. Any document
// that parses must be accepted or refused without a crash; the checker never changes the
// logger, so nothing carries over between inputs.
#include <ksutils/kslog.h>
#include <ksutils/miscutl.h>

#include <jansson.h>

#include <cstdint>
#include <memory>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::unique_ptr<json_t, ks::PtrDeleter> doc(
        json_loadb(reinterpret_cast<const char*>(data), size, JSON_DECODE_ANY, nullptr));
    if (doc) ks::log::is_valid_log_config(doc.get());
    return 0;
}
