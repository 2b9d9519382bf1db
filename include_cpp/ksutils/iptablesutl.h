/// @file
/// Packet-filter rules that let a device through a whitelist chain or drop its traffic.
///
/// Each call builds one small shell script of iptables/ip6tables lines and runs it once
/// through /bin/sh. Every line checks (-C) before it inserts or deletes, so calling a
/// function twice has the effect of calling it once. MAC rules are always written for both
/// address families; an address rule goes to iptables for IPv4 and to ip6tables otherwise.
///
/// Only the chain name and the program paths come from outside as text, and both reach the
/// shell: a chain that is not a plain iptables chain name (letters, digits, '_', '-', at most
/// 28 characters, not starting with '-') is refused with E_INVAL before anything runs.
///
/// For many devices at once (a schedule switching a whole household) `firewall_batch` collects
/// the same changes and applies them with one iptables-restore and one ip6tables-restore run,
/// fed on standard input without a shell, after reading the filter table once per family.
#pragma once
#include <ksexport.h>
#include <ksutils/connectutl.h>
#include <ksutils/path.h>

#include <functional>
#include <string>
#include <unordered_set>
#include <vector>

namespace ks {

/// iptables, in the install root's "bin" directory.
KS_EXPORT extern const install_path kBoxIptables;
/// ip6tables, in the install root's "bin" directory.
KS_EXPORT extern const install_path kBoxIp6tables;

/// Hashes an address for ip_set.
struct KS_EXPORT ip_hasher {
    /// The hash of `a`.
    size_t operator()(const sockutl::address& a) const noexcept { return a.hash(false); }
};

/// A set of addresses.
using ip_set = std::unordered_set<sockutl::address, ip_hasher, std::equal_to<sockutl::address>>;

/// @name Per-device rules
/// Each returns true when the script ran and every line succeeded; on false the thread's
/// error record says why (E_INVAL for a refused chain, else what running the script reported).
/// @{

/// Sends the traffic from `mac` to the "WHITELIST" target in `chain`.
KS_EXPORT bool whitelist_mac(const sockutl::macaddr& mac, const std::string& chain);
/// Removes the whitelist rules of `mac` from `chain`.
KS_EXPORT bool unwhitelist_mac(const sockutl::macaddr& mac, const std::string& chain);
/// Drops the traffic from `mac` and to each of `ips` in `chain`.
KS_EXPORT bool block_device(const sockutl::macaddr& mac, const ip_set& ips, const std::string& chain);
/// Removes the rules block_device() inserts.
KS_EXPORT bool unblock_device(const sockutl::macaddr& mac, const ip_set& ips, const std::string& chain);
/// Removes every rule of old_ips, then inserts every rule of new_ips; addresses in both
/// sets are removed and inserted again.
KS_EXPORT bool update_blocked_ip(const ip_set& old_ips, const ip_set& new_ips, const std::string& chain);

/// @}

/// The four per-device changes, collected and applied together. apply() reads the rules
/// present (iptables-save / ip6tables-save), then inserts only the missing ones and deletes
/// only the present ones in one restore run per family (a family with nothing to change runs
/// no restore); the programs are the "-save" and "-restore" siblings of kBoxIptables and
/// kBoxIp6tables. When the same rule is asked for several times, the last request wins.
/// apply() logs what the per-device functions log for each device, leaves the batch as it
/// was (apply it again, or clear() it), and returns false with the thread's error record set:
/// E_INVAL for a refused chain (nothing runs), E_NOENT for a missing program, else the
/// failing program's status and output. A failed restore changes nothing of its family.
class KS_EXPORT firewall_batch {
public:
    /// Collects whitelist_mac().
    void whitelist(const sockutl::macaddr& mac, const std::string& chain);
    /// Collects unwhitelist_mac().
    void unwhitelist(const sockutl::macaddr& mac, const std::string& chain);
    /// Collects block_device().
    void block(const sockutl::macaddr& mac, const ip_set& ips, const std::string& chain);
    /// Collects unblock_device().
    void unblock(const sockutl::macaddr& mac, const ip_set& ips, const std::string& chain);

    /// Applies the collected changes (see the class description).
    bool apply() const;
    /// True when nothing is collected.
    bool empty() const noexcept { return devices_.empty(); }
    /// Forgets the collected changes.
    void clear() noexcept { devices_.clear(); }

private:
    enum class change : unsigned char { whitelist, unwhitelist, block, unblock };
    struct device {
        change what;
        sockutl::macaddr mac;
        ip_set ips;
        std::string chain;
    };
    std::vector<device> devices_;
};

}  // namespace ks
