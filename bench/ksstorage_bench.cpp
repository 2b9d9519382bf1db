// Settings store benchmark: a 100,000-key settings file (keys 3 to 5 components deep,
// values of 10 to 60 bytes) loaded, checked and saved, next to baselines measured in the
// same run on the same machine: Jansson loading the same tree as a JSON document, and
// sha256sum over the same file. Times are medians of several runs; peak memory is the
// maximum resident size of a fresh process doing one operation, less that of a fresh
// process doing nothing.
//
//   ksstorage_bench [keys]
#include <kssetter/ksstorage.h>
#include <ksutils/crypto.h>
#include <ksutils/streams.h>

#include <jansson.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kRuns = 7;

const unsigned char* bytes(const std::string& s) { return reinterpret_cast<const unsigned char*>(s.data()); }

double ms_since(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

double median(std::vector<double> ms) {
    std::sort(ms.begin(), ms.end());
    return ms[ms.size() / 2];
}

double median_ms(const std::function<void()>& op) {
    std::vector<double> ms;
    for (int i = 0; i < kRuns; ++i) {
        const auto start = Clock::now();
        op();
        ms.push_back(ms_since(start));
    }
    return median(ms);
}

// Median times of building something and of freeing it again, measured apart.
template <class Make, class Free>
std::pair<double, double> median_make_free(Make make, Free release) {
    std::vector<double> made, freed;
    for (int i = 0; i < kRuns; ++i) {
        auto start = Clock::now();
        auto object = make();
        made.push_back(ms_since(start));
        start = Clock::now();
        release(object);
        freed.push_back(ms_since(start));
    }
    return {median(made), median(freed)};
}

// The same tree as a store and as a JSON document: leaves carry the values, so every
// inner node is an object.
void build(size_t keys, ks::storage::Store& store, json_t* json) {
    static const char* const names[] = {"network", "interfaces", "wan",     "lan",    "dhcp",
                                        "devices", "config",     "parental", "cloud", "firewall",
                                        "dns",     "wifi",       "users",   "rules",  "schedule"};
    static const char alphabet[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789 .:-_,/";
    std::mt19937 rng(42);
    for (size_t i = 0; i < keys; ++i) {
        const size_t depth = 3 + rng() % 3;
        std::string key;
        json_t* node = json;
        for (size_t d = 0; d + 1 < depth; ++d) {
            const std::string name = std::string(names[rng() % 15]) + std::to_string(rng() % 8);
            key += "/" + name;
            json_t* child = json_object_get(node, name.c_str());
            if (child == nullptr) {
                child = json_object();
                json_object_set_new(node, name.c_str(), child);
            }
            node = child;
        }
        const std::string leaf = "k" + std::to_string(i);
        key += "/" + leaf;
        std::string value(10 + rng() % 51, ' ');
        for (auto& ch : value) ch = alphabet[rng() % (sizeof alphabet - 1)];
        store.setKey(key, bytes(value), ks::storage::String, value.size());
        json_object_set_new(node, leaf.c_str(), json_stringn(value.data(), value.size()));
    }
}

// Peak resident kilobytes of a fresh copy of this program running `mode` on `file`. The
// child reports its own high-water mark: the resource usage of a spawned child would carry
// the parent's peak over from before the exec.
long peak_kib(const char* self, const std::string& mode, const std::string& file) {
    const std::string command = std::string("'") + self + "' --peak '" + mode + "' '" + file + "'";
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return -1;
    long kib = -1;
    if (std::fscanf(pipe, "%ld", &kib) != 1) kib = -1;
    return pclose(pipe) == 0 ? kib : -1;
}

long own_peak_kib() {
    FILE* status = std::fopen("/proc/self/status", "r");
    if (status == nullptr) return -1;
    char line[256];
    long kib = -1;
    while (std::fgets(line, sizeof line, status) != nullptr)
        if (std::sscanf(line, "VmHWM: %ld kB", &kib) == 1) break;
    std::fclose(status);
    return kib;
}

// The child side of peak_kib.
int run_operation(const std::string& mode, const std::string& file) {
    if (mode == "none") return 0;
    if (mode == "load" || mode == "load+save") {
        ks::storage::Store store;
        if (store.load(file) != 0) return 1;
        if (mode == "load+save") {
            store.setKey("/bench", bytes("x"), ks::storage::String, 1);
            store.save({file + ".copy"});
        }
        return 0;
    }
    if (mode == "checkHash") return ks::storage::Store::checkHash(file) == 0 ? 0 : 1;
    if (mode == "jansson") {
        json_error_t error;
        json_t* doc = json_load_file(file.c_str(), 0, &error);
        if (doc == nullptr) return 1;
        json_decref(doc);
        return 0;
    }
    return 2;
}

int run_peak(const std::string& mode, const std::string& file) {
    const int rc = run_operation(mode, file);
    std::printf("%ld\n", own_peak_kib());
    return rc;
}

std::string mib(double bytes) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f MiB", bytes / (1024.0 * 1024.0));
    return text;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::strcmp(argv[1], "--peak") == 0) return run_peak(argv[2], argv[3]);
    const size_t keys = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 100000;

    char dirTemplate[] = "/tmp/ksstorage_bench.XXXXXX";
    if (mkdtemp(dirTemplate) == nullptr) return 1;
    const std::string dir = dirTemplate;
    const std::string settings = dir + "/settings";
    const std::string jsonFile = dir + "/settings.json";

    {
        ks::storage::Store store;
        json_t* json = json_object();
        build(keys, store, json);
        store.save({settings});
        json_dump_file(json, jsonFile.c_str(), JSON_COMPACT);
        json_decref(json);
    }
    ks::basic_memstream fileBytes;
    fileBytes.read_file(settings, true);
    ks::basic_memstream jsonBytes;
    jsonBytes.read_file(jsonFile, true);
    std::printf("ksstorage_bench: %zu keys (3 to 5 components, values of 10 to 60 bytes)\n", keys);
    std::printf("settings file %s, equivalent compact JSON %s, median of %d runs\n\n",
                mib(static_cast<double>(fileBytes.size())).c_str(), mib(static_cast<double>(jsonBytes.size())).c_str(),
                kRuns);

    const auto [janssonMs, decrefMs] = median_make_free(
        [&] {
            json_error_t error;
            return json_load_file(jsonFile.c_str(), 0, &error);
        },
        [](json_t* doc) { json_decref(doc); });
    const auto [loadMs, destroyMs] = median_make_free(
        [&] {
            auto store = std::make_unique<ks::storage::Store>();
            store->load(settings);
            return store;
        },
        [](std::unique_ptr<ks::storage::Store>& store) { store.reset(); });
    ks::storage::Store loaded;
    loaded.load(settings);
    const std::string sha256sumCommand = "sha256sum '" + settings + "' > /dev/null";
    const double sha256sumMs = median_ms([&] { (void)std::system(sha256sumCommand.c_str()); });
    const double shellMs = median_ms([&] { (void)std::system("true"); });
    const double digestMs =
        median_ms([&] { ks::compute_hash(ks::HashFunction::SHA256, fileBytes.view().data(), 0, fileBytes.size()); });
    const double checkMs = median_ms([&] { ks::storage::Store::checkHash(settings); });
    const double saveMs = median_ms([&] {
        loaded.setKey("/bench", bytes("x"), ks::storage::String, 1);
        loaded.save({dir + "/saved"});
    });

    const long baseKiB = peak_kib(argv[0], "none", settings);
    auto peak = [&](const char* mode, const std::string& file) {
        const long kib = peak_kib(argv[0], mode, file);
        return kib < 0 || baseKiB < 0 ? std::string("?") : mib(static_cast<double>(kib - baseKiB) * 1024.0);
    };

    std::printf("%-34s %10s %8s %12s\n", "operation", "ms", "ratio", "peak memory");
    std::printf("%-34s %10.2f %8.2f %12s\n", "Jansson json_load_file (baseline)", janssonMs, 1.0,
                peak("jansson", jsonFile).c_str());
    std::printf("%-34s %10.2f %8.2f %12s\n", "Store::load", loadMs, loadMs / janssonMs, peak("load", settings).c_str());
    std::printf("%-34s %10.2f %8s %12s\n", "Store::load + Store::save", loadMs + saveMs, "",
                peak("load+save", settings).c_str());
    std::printf("%-34s %10.2f %8.2f\n", "json_decref of the document", decrefMs, decrefMs / janssonMs);
    std::printf("%-34s %10.2f %8.2f\n", "~Store of the loaded store", destroyMs, destroyMs / janssonMs);
    std::printf("%-34s %10.2f %8.2f %12s\n", "Store::save (fsync included)", saveMs, saveMs / janssonMs, "");
    std::printf("\n%-34s %10.2f %8.2f\n", "sha256sum command (baseline)", sha256sumMs, 1.0);
    std::printf("%-34s %10.2f %8.2f\n", "  of which shell start-up", shellMs, shellMs / sha256sumMs);
    std::printf("%-34s %10.2f %8.2f %12s\n", "Store::checkHash", checkMs, checkMs / sha256sumMs,
                peak("checkHash", settings).c_str());
    std::printf("%-34s %10.2f %8.2f\n", "SHA-256 of the bytes in memory", digestMs, digestMs / sha256sumMs);
    std::printf("\nStore::load is %.2fx the speed of Jansson on the equivalent document (target: > 1)\n",
                janssonMs / loadMs);

    std::string cleanup = "rm -rf '" + dir + "'";
    return std::system(cleanup.c_str()) == 0 ? 0 : 1;
}
