// Settings store benchmark: a 100,000-key settings file (keys 3 to 5 components deep,
// values of 10 to 60 bytes) loaded, checked and saved, next to baselines measured in the
// same run on the same machine: Jansson loading the same tree as a JSON document, and
// sha256sum over the same file.
//
// Every operation runs in a fresh copy of this program, several times over, so that no
// measurement inherits the heap another one left behind. Times are medians, as processor
// time (which other work on the machine does not inflate) and as wall time; ratios are of
// processor time. Peak memory is the high-water mark of that process less the one of a
// process that does nothing.
//
//   ksstorage_bench [keys]
#include <kssetter/ksstorage.h>
#include <ksutils/crypto.h>
#include <ksutils/streams.h>

#include <jansson.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kRuns = 9;

const unsigned char* bytes(const std::string& s) { return reinterpret_cast<const unsigned char*>(s.data()); }

// Processor time of this process and its finished children, in milliseconds.
double cpu_ms() {
    struct rusage self {}, children {};
    getrusage(RUSAGE_SELF, &self);
    getrusage(RUSAGE_CHILDREN, &children);
    auto ms = [](const timeval& t) { return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_usec) / 1e3; };
    return ms(self.ru_utime) + ms(self.ru_stime) + ms(children.ru_utime) + ms(children.ru_stime);
}

double median(std::vector<double> values) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

struct Times {
    std::vector<double> cpu, wall;
    // Runs `op` once, adding its times.
    template <class Op>
    auto operator()(Op op) {
        const double cpu0 = cpu_ms();
        const auto wall0 = Clock::now();
        auto result = op();
        wall.push_back(std::chrono::duration<double, std::milli>(Clock::now() - wall0).count());
        cpu.push_back(cpu_ms() - cpu0);
        return result;
    }
};

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

// The same tree as a store and as a JSON document: leaves carry the values, so every
// inner node is an object.
void build(size_t keys, ks::storage::Store& store, json_t* json) {
    static const char* const names[] = {"network", "interfaces", "wan",  "lan",   "dhcp",  "devices", "config", "parental",
                                        "cloud",   "firewall",   "dns",  "wifi",  "users", "rules",   "schedule"};
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

// The child side: runs one kind of operation kRuns times and prints the median processor
// and wall times of building and of freeing, and the peak resident kilobytes.
int run_child(const std::string& mode, const std::string& file) {
    Times make, release;
    if (mode == "jansson") {
        for (int i = 0; i < kRuns; ++i) {
            json_t* doc = make([&] {
                json_error_t error;
                return json_load_file(file.c_str(), 0, &error);
            });
            if (doc == nullptr) return 1;
            release([&] { return json_decref(doc), 0; });
        }
    } else if (mode == "load") {
        for (int i = 0; i < kRuns; ++i) {
            auto store = make([&] {
                auto fresh = std::make_unique<ks::storage::Store>();
                return fresh->load(file) == 0 ? std::move(fresh) : nullptr;
            });
            if (!store) return 1;
            release([&] { return store.reset(), 0; });
        }
    } else if (mode == "save") {
        ks::storage::Store store;
        if (store.load(file) != 0) return 1;
        for (int i = 0; i < kRuns; ++i) {
            store.setKey("/bench", bytes("x"), ks::storage::String, 1);
            make([&] { return store.save({file + ".saved"}); });
        }
    } else if (mode == "checkHash") {
        for (int i = 0; i < kRuns; ++i)
            if (make([&] { return ks::storage::Store::checkHash(file); }) != 0) return 1;
    } else if (mode == "digest") {
        ks::basic_memstream content;
        content.read_file(file, true);
        for (int i = 0; i < kRuns; ++i)
            make([&] { return ks::compute_hash(ks::HashFunction::SHA256, content.view().data(), 0, content.size()); });
    } else if (mode == "sha256sum") {
        const std::string command = "sha256sum '" + file + "' > /dev/null";
        for (int i = 0; i < kRuns; ++i) make([&] { return std::system(command.c_str()); });
    } else if (mode == "shell") {
        for (int i = 0; i < kRuns; ++i) make([&] { return std::system("true"); });
    } else if (mode != "none") {
        return 2;
    }
    std::printf("%f %f %f %f %ld\n", median(make.cpu), median(make.wall), median(release.cpu), median(release.wall),
                own_peak_kib());
    return 0;
}

struct Result {
    double cpu = 0, wall = 0, freeCpu = 0, freeWall = 0;
    long peakKiB = -1;
};

Result measure(const char* self, const std::string& mode, const std::string& file) {
    Result r;
    const std::string command = std::string("'") + self + "' --child '" + mode + "' '" + file + "'";
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return r;
    if (std::fscanf(pipe, "%lf %lf %lf %lf %ld", &r.cpu, &r.wall, &r.freeCpu, &r.freeWall, &r.peakKiB) != 5)
        r.peakKiB = -1;
    if (pclose(pipe) != 0) r.peakKiB = -1;
    return r;
}

std::string mib(double bytes) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f MiB", bytes / (1024.0 * 1024.0));
    return text;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::strcmp(argv[1], "--child") == 0) return run_child(argv[2], argv[3]);
    const size_t keys = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 100000;

    char dirTemplate[] = "/tmp/ksstorage_bench.XXXXXX";
    if (mkdtemp(dirTemplate) == nullptr) return 1;
    const std::string dir = dirTemplate, settings = dir + "/settings", jsonFile = dir + "/settings.json";
    {
        ks::storage::Store store;
        json_t* json = json_object();
        build(keys, store, json);
        store.save({settings});
        json_dump_file(json, jsonFile.c_str(), JSON_COMPACT);
        json_decref(json);
    }
    ks::basic_memstream fileBytes, jsonBytes;
    fileBytes.read_file(settings, true);
    jsonBytes.read_file(jsonFile, true);
    std::printf("ksstorage_bench: %zu keys (3 to 5 components, values of 10 to 60 bytes)\n", keys);
    std::printf("settings file %s, equivalent compact JSON %s; medians of %d runs, each kind in a fresh process\n\n",
                mib(static_cast<double>(fileBytes.size())).c_str(), mib(static_cast<double>(jsonBytes.size())).c_str(),
                kRuns);

    const Result none = measure(argv[0], "none", settings);
    const Result jansson = measure(argv[0], "jansson", jsonFile), load = measure(argv[0], "load", settings),
                 save = measure(argv[0], "save", settings), sha256sum = measure(argv[0], "sha256sum", settings),
                 shell = measure(argv[0], "shell", settings), check = measure(argv[0], "checkHash", settings),
                 digest = measure(argv[0], "digest", settings);

    auto memory = [&](const Result& r) {
        return r.peakKiB < 0 || none.peakKiB < 0 ? std::string("?")
                                                 : mib(static_cast<double>(r.peakKiB - none.peakKiB) * 1024.0);
    };
    auto row = [](const char* what, double cpu, double wall, double baseline, const std::string& peak) {
        std::printf("%-34s %9.2f %9.2f %7.2f %12s\n", what, cpu, wall, cpu / baseline, peak.c_str());
    };
    std::printf("%-34s %9s %9s %7s %12s\n", "operation", "cpu ms", "wall ms", "ratio", "peak memory");
    row("Jansson json_load_file (baseline)", jansson.cpu, jansson.wall, jansson.cpu, memory(jansson));
    row("Store::load", load.cpu, load.wall, jansson.cpu, memory(load));
    row("json_decref of the document", jansson.freeCpu, jansson.freeWall, jansson.cpu, "");
    row("~Store of the loaded store", load.freeCpu, load.freeWall, jansson.cpu, "");
    row("Store::save (fsync included)", save.cpu, save.wall, jansson.cpu, memory(save) + "*");
    std::printf("\n");
    row("sha256sum command (baseline)", sha256sum.cpu, sha256sum.wall, sha256sum.cpu, "");
    row("  of which starting the shell", shell.cpu, shell.wall, sha256sum.cpu, "");
    row("Store::checkHash", check.cpu, check.wall, sha256sum.cpu, memory(check));
    row("SHA-256 of the bytes in memory", digest.cpu, digest.wall, sha256sum.cpu, "");
    std::printf("\n* the loaded store and the save together\n");
    std::printf("Store::load takes %.2fx the processor time of Jansson on the equivalent document (target: below 1)\n",
                load.cpu / jansson.cpu);

    const std::string cleanup = "rm -rf '" + dir + "'";
    return std::system(cleanup.c_str()) == 0 ? 0 : 1;
}
