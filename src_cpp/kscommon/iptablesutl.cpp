// Firewall rules as one idempotent shell script per call.
//
// The lines are run under "set -e" and end with "exit 0": a check-then-change line whose
// check fails for a benign reason (removing a rule that is absent) is a non-final part of
// an AND-OR list and so does not stop the shell, while a change that fails ends the script
// at once with its status. Without them a failing middle line would be masked by a later
// success, and removing an absent rule on the last line would be reported as a failure.
//
// A batch costs four program runs whatever its size: a save and a restore per family. The
// rules present are matched as the save program prints them ("-A CHAIN spec", addresses with
// their prefix length), so each rule is written here in that same form.
#include <ksutils/error.h>
#include <ksutils/executl.h>
#include <ksutils/iptablesutl.h>
#include <ksutils/kslog.h>
#include <ksutils/unique_fd.h>

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <unordered_map>
#include <vector>

#include "kssys.h"

namespace ks {

namespace {

constexpr unsigned long kChannel = 0;
constexpr size_t kMaxChainLength = 28;

using line = std::vector<std::string>;
using script = std::vector<line>;

bool is_chain_char(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-';
}

bool is_path_char(char c) { return is_chain_char(c) || c == '/' || c == '.' || c == '+'; }

// The one check every text that reaches the shell passes through.
bool check_chain(const std::string& chain) {
    if (chain.empty() || chain.size() > kMaxChainLength || chain.front() == '-' ||
        !std::all_of(chain.begin(), chain.end(), is_chain_char)) {
        _get_kserrno().set(E_INVAL, "invalid chain name \"{:s}\": use 1 to 28 letters, digits, '_' or '-'", chain);
        return false;
    }
    return true;
}

bool resolve(const install_path& program, std::string& out) {
    out = program.str();
    if (out.empty()) {
        _get_kserrno().set(E_NOENT, "the install root is unknown: cannot locate the firewall programs");
        return false;
    }
    if (!std::all_of(out.begin(), out.end(), is_path_char)) {
        _get_kserrno().set(E_INVAL, "firewall program path \"{:s}\" contains characters unsafe for the shell", out);
        return false;
    }
    return true;
}

// Resolved program texts and the script under construction for one call.
struct rule_script {
    std::string iptables;
    std::string ip6tables;
    script lines{{"set", "-e"}};

    bool prepare(const std::string& chain) {
        return check_chain(chain) && resolve(kBoxIptables, iptables) && resolve(kBoxIp6tables, ip6tables);
    }

    // "-j TARGET ||" inserts when the check fails; "-j TARGET &&" deletes when it succeeds.
    void add(const std::string& prog, const std::string& chain, const char* match, const std::string& value,
             const char* checked_target, const char* change, const char* target) {
        lines.push_back({prog, "-C", chain, match, value, checked_target, prog, change, chain, match, value, target});
    }

    void add_mac(const std::string& mac, const std::string& chain, const char* checked_target, const char* change,
                 const char* target) {
        add(iptables, chain, "-m mac --mac-source", mac, checked_target, change, target);
        add(ip6tables, chain, "-m mac --mac-source", mac, checked_target, change, target);
    }

    void add_ips(const ip_set& ips, const std::string& chain, bool insert) {
        for (const auto& ip : ips)
            add(ip.is_v4() ? iptables : ip6tables, chain, "-d", ip.to_string(false), insert ? "-j DROP ||" : "-j DROP &&",
                insert ? "-I" : "-D", "-j DROP");
    }

    bool run() {
        lines.push_back({"exit", "0"});
        return exec_script(lines, "/bin/sh") == 0;
    }
};

// What each per-device change logs and which rules it touches.
struct change_text {
    const char* intent;   // debug record before anything runs
    const char* failure;  // error record: the MAC and the error record's text
    const char* target;
    bool add;
    bool with_ips;
};

const change_text kWhitelist{"Adding whitelist rule for mac {} in chain {:s}",
                             "Failed to whitelist device with mac=\"{}\": {}", "WHITELIST", true, false};
const change_text kUnwhitelist{"Removing whitelist rule for mac {} in chain {:s}",
                               "Failed to unwhitelist device with mac=\"{}\": {}", "WHITELIST", false, false};
const change_text kBlock{"Adding block rule for mac {}, ips {} in chain {:s}",
                         "Failed to block device with mac=\"{}\": {}", "DROP", true, true};
const change_text kUnblock{"Removing block rule for mac {}, ips {} from chain {:s}",
                           "Failed to unblock device with mac=\"{}\": {}", "DROP", false, true};

std::string to_text(const ip_set& ips) {
    std::string text = "[";
    for (const auto& ip : ips) {
        if (text.size() > 1) text += ", ";
        text += ip.to_string(false);
    }
    return text + "]";
}

// The caller has logged its intent, so that the record names it.
bool mac_rules(const change_text& text, const sockutl::macaddr& mac, const ip_set& ips, const std::string& chain) {
    rule_script s;
    bool ok = s.prepare(chain);
    if (ok) {
        const std::string checked = std::string("-j ") + text.target + (text.add ? " ||" : " &&");
        const std::string final_target = std::string("-j ") + text.target;
        s.add_mac(mac.to_string(false), chain, checked.c_str(), text.add ? "-I" : "-D", final_target.c_str());
        if (text.with_ips) s.add_ips(ips, chain, text.add);
        ok = s.run();
    }
    if (!ok) KSLOG_ERROR(kChannel, fmt::runtime(text.failure), mac.to_string(false), _get_kserrno().message_view());
    return ok;
}

// Runs a program with `input` on its standard input and collects its standard output and
// error in `output`; no shell is involved. One socket pair serves all three descriptors, so
// a program that exits before reading everything ends the send with an error, never with
// SIGPIPE; its exit status then tells what happened. A restore program prints only a few
// lines and only when it gives up, so sending everything before reading cannot deadlock.
bool run_program(const char* const* argv, const std::string& input, std::string& output) {
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
        const int err = errno;
        _get_kserrno().set(E_FAULT, "socketpair failed: errno={:d}, {:s}", err, ks::string_view(std::strerror(err)));
        return false;
    }
    unique_fd ours(fds[0]), theirs(fds[1]);
    exec_command_ctx ctx;
    ctx.stdin_fd = ctx.stdout_fd = ctx.stderr_fd = theirs.get();
    ctx.wait = false;
    if (exec_command(const_cast<const char**>(argv), ctx) != 0) return false;
    theirs.reset();
    sys::send_full(ours.get(), input.data(), input.size());
    ::shutdown(ours.get(), SHUT_WR);
    char chunk[4096];
    for (ssize_t n; (n = sys::read_some(ours.get(), chunk, sizeof chunk)) > 0;)
        output.append(chunk, static_cast<size_t>(n));
    int status = 0;
    if (sys::wait_pid(ctx.pid, &status, 0) < 0) {
        _get_kserrno().set(E_FAULT, "waitpid failed: {:s}", ks::string_view(std::strerror(errno)));
        return false;
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        while (!output.empty() && std::isspace(static_cast<unsigned char>(output.back()))) output.pop_back();
        _get_kserrno().set(E_SYSTEM, "{:s} failed with status {:d}: {:s}", ks::string_view(argv[0]),
                           WIFEXITED(status) ? WEXITSTATUS(status) : -1, output);
        return false;
    }
    return true;
}

// The wanted state of each rule of one family, in the order first asked for.
struct family_rules {
    std::string program;
    std::vector<std::string> order;
    std::unordered_map<std::string, bool> wanted;

    void want(std::string rule, bool present) {
        const auto found = wanted.emplace(rule, present);
        if (found.second) order.push_back(std::move(rule));
        else found.first->second = present;
    }

    // Reads the filter table once, then inserts what is missing and deletes what is there.
    bool apply() const {
        if (order.empty()) return true;
        const std::string save = program + "-save", restore = program + "-restore";
        const char* const save_argv[] = {save.c_str(), "-t", "filter", nullptr};
        std::string saved;
        if (!run_program(save_argv, {}, saved)) return false;
        const std::unordered_set<std::string> present = rules_in(saved);
        std::string batch;
        for (const auto& rule : order) {
            const bool add = wanted.at(rule);
            if (add == (present.count(rule) != 0)) continue;
            batch += add ? "-I " : "-D ";
            batch += rule;
            batch += '\n';
        }
        if (batch.empty()) return true;
        const char* const restore_argv[] = {restore.c_str(), "--noflush", nullptr};
        std::string output;
        return run_program(restore_argv, "*filter\n" + batch + "COMMIT\n", output);
    }

    // "CHAIN spec" of every rule the save program printed; a MAC in either case matches ours.
    static std::unordered_set<std::string> rules_in(const std::string& saved) {
        static const std::string kMac = "--mac-source ";
        std::unordered_set<std::string> rules;
        size_t start = 0;
        while (start < saved.size()) {
            size_t end = saved.find('\n', start);
            if (end == std::string::npos) end = saved.size();
            if (saved.compare(start, 3, "-A ") == 0) {
                std::string rule = saved.substr(start + 3, end - start - 3);
                const size_t mac = rule.find(kMac);
                if (mac != std::string::npos)
                    for (size_t i = mac + kMac.size(); i < rule.size() && rule[i] != ' '; ++i)
                        rule[i] = static_cast<char>(std::tolower(static_cast<unsigned char>(rule[i])));
                rules.insert(std::move(rule));
            }
            start = end + 1;
        }
        return rules;
    }
};

std::string mac_rule(const std::string& chain, const sockutl::macaddr& mac, const char* target) {
    return chain + " -m mac --mac-source " + mac.to_string(false) + " -j " + target;
}

std::string ip_rule(const std::string& chain, const sockutl::address& ip) {
    return chain + " -d " + ip.to_string(false) + (ip.is_v4() ? "/32" : "/128") + " -j DROP";
}

// The save and restore programs beside a configured one; all must exist before anything runs.
bool resolve_family(const install_path& program, std::string& out) {
    if (!resolve(program, out)) return false;
    for (const char* suffix : {"-save", "-restore"}) {
        const std::string sibling = out + suffix;
        if (::access(sibling.c_str(), X_OK) != 0) {
            _get_kserrno().set(E_NOENT, "firewall program \"{:s}\" is missing", sibling);
            return false;
        }
    }
    return true;
}

// Indexed by firewall_batch's change, in its order.
const change_text* const kBatchTexts[] = {&kWhitelist, &kUnwhitelist, &kBlock, &kUnblock};

}  // namespace

const install_path kBoxIptables(common_path::bin, "iptables");
const install_path kBoxIp6tables(common_path::bin, "ip6tables");

bool whitelist_mac(const sockutl::macaddr& mac, const std::string& chain) {
    KSLOG_DEBUG(kChannel, fmt::runtime(kWhitelist.intent), mac.to_string(false), chain);
    return mac_rules(kWhitelist, mac, {}, chain);
}

bool unwhitelist_mac(const sockutl::macaddr& mac, const std::string& chain) {
    KSLOG_DEBUG(kChannel, fmt::runtime(kUnwhitelist.intent), mac.to_string(false), chain);
    return mac_rules(kUnwhitelist, mac, {}, chain);
}

bool block_device(const sockutl::macaddr& mac, const ip_set& ips, const std::string& chain) {
    KSLOG_DEBUG(kChannel, fmt::runtime(kBlock.intent), mac.to_string(false), to_text(ips), chain);
    return mac_rules(kBlock, mac, ips, chain);
}

bool unblock_device(const sockutl::macaddr& mac, const ip_set& ips, const std::string& chain) {
    KSLOG_DEBUG(kChannel, fmt::runtime(kUnblock.intent), mac.to_string(false), to_text(ips), chain);
    return mac_rules(kUnblock, mac, ips, chain);
}

bool update_blocked_ip(const ip_set& old_ips, const ip_set& new_ips, const std::string& chain) {
    KSLOG_DEBUG(kChannel, "Updating block rule ips from {} to {} in chain {:s}", to_text(old_ips), to_text(new_ips),
                chain);
    rule_script s;
    bool ok = s.prepare(chain);
    if (ok) {
        s.add_ips(old_ips, chain, false);
        s.add_ips(new_ips, chain, true);
        ok = s.run();
    }
    if (!ok) KSLOG_ERROR(kChannel, "Failed to update ips: {}", _get_kserrno().message_view());
    return ok;
}

void firewall_batch::whitelist(const sockutl::macaddr& mac, const std::string& chain) {
    devices_.push_back({change::whitelist, mac, {}, chain});
}

void firewall_batch::unwhitelist(const sockutl::macaddr& mac, const std::string& chain) {
    devices_.push_back({change::unwhitelist, mac, {}, chain});
}

void firewall_batch::block(const sockutl::macaddr& mac, const ip_set& ips, const std::string& chain) {
    devices_.push_back({change::block, mac, ips, chain});
}

void firewall_batch::unblock(const sockutl::macaddr& mac, const ip_set& ips, const std::string& chain) {
    devices_.push_back({change::unblock, mac, ips, chain});
}

bool firewall_batch::apply() const {
    const auto text_of = [](const device& d) -> const change_text& {
        return *kBatchTexts[static_cast<int>(d.what)];
    };
    for (const auto& d : devices_) {
        if (text_of(d).with_ips)
            KSLOG_DEBUG(kChannel, fmt::runtime(text_of(d).intent), d.mac.to_string(false), to_text(d.ips), d.chain);
        else
            KSLOG_DEBUG(kChannel, fmt::runtime(text_of(d).intent), d.mac.to_string(false), d.chain);
    }
    if (devices_.empty()) return true;
    // Every chain and program is checked before the first program runs.
    family_rules v4, v6;
    bool ok = true;
    for (auto d = devices_.begin(); ok && d != devices_.end(); ++d) {
        const change_text& text = text_of(*d);
        if (!(ok = check_chain(d->chain))) break;
        v4.want(mac_rule(d->chain, d->mac, text.target), text.add);
        v6.want(mac_rule(d->chain, d->mac, text.target), text.add);
        for (const auto& ip : d->ips) (ip.is_v4() ? v4 : v6).want(ip_rule(d->chain, ip), text.add);
    }
    ok = ok && resolve_family(kBoxIptables, v4.program) && resolve_family(kBoxIp6tables, v6.program);
    ok = ok && v4.apply() && v6.apply();
    if (!ok)
        for (const auto& d : devices_)
            KSLOG_ERROR(kChannel, fmt::runtime(text_of(d).failure), d.mac.to_string(false),
                        _get_kserrno().message_view());
    return ok;
}

}  // namespace ks
