// Firewall rules as one idempotent shell script per call.
//
// The lines are run under "set -e" and end with "exit 0": a check-then-change line whose
// check fails for a benign reason (removing a rule that is absent) is a non-final part of
// an AND-OR list and so does not stop the shell, while a change that fails ends the script
// at once with its status. Without them a failing middle line would be masked by a later
// success, and removing an absent rule on the last line would be reported as a failure.
#include <ksutils/error.h>
#include <ksutils/executl.h>
#include <ksutils/iptablesutl.h>
#include <ksutils/kslog.h>

#include <algorithm>
#include <vector>

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

std::string to_text(const ip_set& ips) {
    std::string text = "[";
    for (const auto& ip : ips) {
        if (text.size() > 1) text += ", ";
        text += ip.to_string(false);
    }
    return text + "]";
}

bool mac_rules(const sockutl::macaddr& mac, const ip_set* ips, const std::string& chain, bool add_rules,
               const char* target, const char* failure) {
    const std::string mac_text = mac.to_string(false);
    rule_script s;
    bool ok = s.prepare(chain);
    if (ok) {
        const std::string checked = std::string("-j ") + target + (add_rules ? " ||" : " &&");
        const std::string final_target = std::string("-j ") + target;
        s.add_mac(mac_text, chain, checked.c_str(), add_rules ? "-I" : "-D", final_target.c_str());
        if (ips) s.add_ips(*ips, chain, add_rules);
        ok = s.run();
    }
    if (!ok) KSLOG_ERROR(kChannel, fmt::runtime(failure), mac_text, _get_kserrno().message_view());
    return ok;
}

}  // namespace

const install_path kBoxIptables(common_path::bin, "iptables");
const install_path kBoxIp6tables(common_path::bin, "ip6tables");

bool whitelist_mac(const sockutl::macaddr& mac, const std::string& chain) {
    KSLOG_DEBUG(kChannel, "Adding whitelist rule for mac {} in chain {:s}", mac.to_string(false), chain);
    return mac_rules(mac, nullptr, chain, true, "WHITELIST", "Failed to whitelist device with mac=\"{}\": {}");
}

bool unwhitelist_mac(const sockutl::macaddr& mac, const std::string& chain) {
    KSLOG_DEBUG(kChannel, "Removing whitelist rule for mac {} in chain {:s}", mac.to_string(false), chain);
    return mac_rules(mac, nullptr, chain, false, "WHITELIST", "Failed to unwhitelist device with mac=\"{}\": {}");
}

bool block_device(const sockutl::macaddr& mac, const ip_set& ips, const std::string& chain) {
    KSLOG_DEBUG(kChannel, "Adding block rule for mac {}, ips {} in chain {:s}", mac.to_string(false), to_text(ips),
                chain);
    return mac_rules(mac, &ips, chain, true, "DROP", "Failed to block device with mac=\"{}\": {}");
}

bool unblock_device(const sockutl::macaddr& mac, const ip_set& ips, const std::string& chain) {
    KSLOG_DEBUG(kChannel, "Removing block rule for mac {}, ips {} from chain {:s}", mac.to_string(false),
                to_text(ips), chain);
    return mac_rules(mac, &ips, chain, false, "DROP", "Failed to unblock device with mac=\"{}\": {}");
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

}  // namespace ks
