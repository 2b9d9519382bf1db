// Packet-filter rules that let a device through a whitelist chain or drop its traffic.
//
// Each call builds one small shell script of iptables/ip6tables lines and runs it once
// through /bin/sh. Every line checks (-C) before it inserts or deletes, so calling a
// function twice has the effect of calling it once. MAC rules are always written for both
// address families; an address rule goes to iptables for IPv4 and to ip6tables otherwise.
//
// Only the chain name and the program paths come from outside as text, and both reach the
// shell: a chain that is not a plain iptables chain name (letters, digits, '_', '-', at most
// 28 characters, not starting with '-') is refused with E_INVAL before anything runs.
#pragma once
#include <ksexport.h>
#include <ksutils/connectutl.h>
#include <ksutils/path.h>

#include <functional>
#include <string>
#include <unordered_set>

namespace ks {

// The two programs, inside the install root's "bin" directory.
KS_EXPORT extern const install_path kBoxIptables;
KS_EXPORT extern const install_path kBoxIp6tables;

struct KS_EXPORT ip_hasher {
    size_t operator()(const sockutl::address& a) const noexcept { return a.hash(false); }
};

using ip_set = std::unordered_set<sockutl::address, ip_hasher, std::equal_to<sockutl::address>>;

// Each returns true when the script ran and every line succeeded; on false the thread's
// error record says why (E_INVAL for a refused chain, else what running the script reported).
KS_EXPORT bool whitelist_mac(const sockutl::macaddr& mac, const std::string& chain);
KS_EXPORT bool unwhitelist_mac(const sockutl::macaddr& mac, const std::string& chain);
KS_EXPORT bool block_device(const sockutl::macaddr& mac, const ip_set& ips, const std::string& chain);
KS_EXPORT bool unblock_device(const sockutl::macaddr& mac, const ip_set& ips, const std::string& chain);
// Removes every rule of old_ips, then inserts every rule of new_ips; addresses in both
// sets are removed and inserted again.
KS_EXPORT bool update_blocked_ip(const ip_set& old_ips, const ip_set& new_ips, const std::string& chain);

}  // namespace ks
