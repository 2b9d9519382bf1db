/// @file
/// The appliance's network interfaces as configuration describes them, and kernel queries.
///
/// Interfaces are not discovered from the kernel: they are read from the settings tree under
/// "/network/interfaces/config" (one subkey per interface: "type", "mac", "ipv4", "ipv6",
/// "is_guest"), and a write to "/network/interfaces/config_refresh" announces a change. Two
/// ways of use: the reference-counted service (init(true)) with a background thread that
/// reloads on each change and calls the WAN/LAN listeners, or a handle (init_eventloop) whose
/// notification descriptor the caller watches in its own event loop.
///
/// Listener callbacks of the service run on its thread with the listeners' lock held: a
/// callback must not add or remove listeners.
#pragma once
#include <ksexport.h>
#include <ksutils/connectutl.h>

#include <fmt/format.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace ks::netMgmt {

enum class InterfaceType : int32_t { lan = 0, wan = 1 };

/// (address, netmask) pairs, ordered and without duplicates.
using IpSet = std::set<std::pair<sockutl::address, sockutl::address>>;

struct Interface {
    std::string name;
    InterfaceType type = InterfaceType::lan;
    sockutl::macaddr mac;
    IpSet ipv4;
    IpSet ipv6;
    bool is_guest = false;
};

/// "name=eth0, type=wan, mac=00:11:22:33:44:55, ipv4=[192.168.1.2/24], ipv6=[], is_guest=0"
KS_EXPORT std::string to_string(const Interface& iface);
KS_EXPORT const char* to_string(InterfaceType type) noexcept;

using InterfaceCallback = std::function<void(const std::vector<Interface>&)>;

struct InterfaceListener {
    int id;
    InterfaceType type;
    InterfaceCallback callback;
};

/// The process-wide list of interfaces last loaded.
class KS_EXPORT Interfaces {
public:
    /// Reloads from the settings tree; false (previous list kept) when it cannot be listed.
    static bool load();
    static void clear();
    static void update(const std::vector<Interface>& list);
    /// Appends copies of the interfaces of `type`; 0 if at least one matched, else -1.
    static int get_interfaces_with_type(InterfaceType type, std::vector<Interface>& out);
    static void get_wan_lan_interfaces(std::vector<Interface>& wan, std::vector<Interface>& lan);
    static int get_wan_interface_with_ipv4(Interface& out);
};

/// The process-wide listeners of the service.
class KS_EXPORT InterfacesMgmt {
public:
    static int add_listener(InterfaceCallback callback, InterfaceType type);
    static void del_listener(int id);
    /// Reloads, then calls every listener with the list of its type, in registration order.
    static void notify_listeners();
};

/// "A/P,B/Q": each entry an address and a prefix length; bad entries are logged and skipped.
KS_EXPORT void parse_ips(const std::string& text, sockutl::network_proto proto, IpSet& out);

/// The service, reference-counted: the thread starts with the first init(true) and stops
/// with the last uninit().
KS_EXPORT int init(bool start_thread);
KS_EXPORT int uninit();
KS_EXPORT int set_on_wan_interface_change(InterfaceCallback callback);
KS_EXPORT int set_on_lan_interface_change(InterfaceCallback callback);
KS_EXPORT void unset_on_interface_change(int id);
KS_EXPORT int get_wan_interfaces(std::vector<Interface>& out);
KS_EXPORT int get_lan_interfaces(std::vector<Interface>& out);
KS_EXPORT int get_wan_interface_with_ipv4(Interface& out);
KS_EXPORT void update(const std::vector<Interface>& list);

/// The handle for a caller's own event loop; used by one thread. uninit(handle) frees it.
struct netmgmt_t;
KS_EXPORT netmgmt_t* init_eventloop();
/// The refresh key's notification descriptor (-1 without one); the first success also loads
/// the lists and calls the handle's listeners once.
KS_EXPORT int get_fd(netmgmt_t* handle);
/// Call when the descriptor is readable: reloads and calls the listeners on a change.
KS_EXPORT bool read_fd(netmgmt_t* handle);
KS_EXPORT int set_on_if_change(netmgmt_t* handle, InterfaceType type, InterfaceCallback callback);
KS_EXPORT void unset_on_if_change(netmgmt_t* handle, int id);
KS_EXPORT void get_ifaces(netmgmt_t* handle, InterfaceType type, std::vector<Interface>& out);
KS_EXPORT void uninit(netmgmt_t* handle);
/// An owner of a handle, for callers that keep one as a member.
struct netmgmt_deleter {
    void operator()(netmgmt_t* handle) const { uninit(handle); }
};
using unique_netmgmt = std::unique_ptr<netmgmt_t, netmgmt_deleter>;

}  // namespace ks::netMgmt

namespace ks {

/// Kernel queries for one interface by name; failures are logged and give false.
KS_EXPORT bool is_interface_up(const std::string& name);
/// Dotted IPv4 text.
KS_EXPORT bool get_ip_address(const std::string& name, std::string& out);
/// Upper-case "AA:BB:CC:DD:EE:FF".
KS_EXPORT bool get_mac_address(const std::string& name, std::string& out);

}  // namespace ks

template <>
struct fmt::formatter<ks::netMgmt::Interface> : fmt::formatter<std::string> {
    template <class FormatContext>
    auto format(const ks::netMgmt::Interface& iface, FormatContext& ctx) const {
        return fmt::formatter<std::string>::format(ks::netMgmt::to_string(iface), ctx);
    }
};
