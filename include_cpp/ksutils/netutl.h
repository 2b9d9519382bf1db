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

/// The side of the appliance an interface is on.
enum class InterfaceType : int32_t { lan = 0, wan = 1 };

/// (address, netmask) pairs, ordered and without duplicates.
using IpSet = std::set<std::pair<sockutl::address, sockutl::address>>;

/// One interface as configuration describes it.
struct Interface {
    std::string name;  ///< "eth0", ...
    InterfaceType type = InterfaceType::lan;  ///< from "type"
    sockutl::macaddr mac;  ///< from "mac"
    IpSet ipv4;  ///< from "ipv4"
    IpSet ipv6;  ///< from "ipv6"
    bool is_guest = false;  ///< from "is_guest"
};

/// "name=eth0, type=wan, mac=00:11:22:33:44:55, ipv4=[192.168.1.2/24], ipv6=[], is_guest=0"
KS_EXPORT std::string to_string(const Interface& iface);
/// "lan" or "wan".
KS_EXPORT const char* to_string(InterfaceType type) noexcept;

/// Called with the interfaces of the listener's type.
using InterfaceCallback = std::function<void(const std::vector<Interface>&)>;

/// A registered listener.
struct InterfaceListener {
    int id;  ///< what add_listener() returned
    InterfaceType type;  ///< the interfaces it is called with
    InterfaceCallback callback;  ///< the callback
};

/// The process-wide list of interfaces last loaded.
class KS_EXPORT Interfaces {
public:
    /// Reloads from the settings tree; false (previous list kept) when it cannot be listed.
    static bool load();
    /// Empties the list.
    static void clear();
    /// Replaces the list (no listener is called).
    static void update(const std::vector<Interface>& list);
    /// Appends copies of the interfaces of `type`; 0 if at least one matched, else -1.
    static int get_interfaces_with_type(InterfaceType type, std::vector<Interface>& out);
    /// Appends copies of the WAN interfaces to `wan` and of the LAN interfaces to `lan`.
    static void get_wan_lan_interfaces(std::vector<Interface>& wan, std::vector<Interface>& lan);
    /// Copies the first WAN interface with an IPv4 address to `out`; 0, or -1 when there is none.
    static int get_wan_interface_with_ipv4(Interface& out);
};

/// The process-wide listeners of the service.
class KS_EXPORT InterfacesMgmt {
public:
    /// Registers `callback` for the interfaces of `type`; returns its id.
    static int add_listener(InterfaceCallback callback, InterfaceType type);
    /// Unregisters the listener `id`.
    static void del_listener(int id);
    /// Reloads, then calls every listener with the list of its type, in registration order.
    static void notify_listeners();
};

/// "A/P,B/Q": each entry an address and a prefix length; bad entries are logged and skipped.
KS_EXPORT void parse_ips(const std::string& text, sockutl::network_proto proto, IpSet& out);

/// @name The service
/// The service, reference-counted: the thread starts with the first init(true) and stops
/// with the last uninit().
/// @{

/// Takes a reference on the service; the first one loads the list and, with `start_thread`,
/// starts the thread. 0 or -1.
KS_EXPORT int init(bool start_thread);
/// Drops a reference; the last one stops the thread. 0.
KS_EXPORT int uninit();
/// Registers a listener for the WAN interfaces; returns its id.
KS_EXPORT int set_on_wan_interface_change(InterfaceCallback callback);
/// Registers a listener for the LAN interfaces; returns its id.
KS_EXPORT int set_on_lan_interface_change(InterfaceCallback callback);
/// Unregisters the listener `id`.
KS_EXPORT void unset_on_interface_change(int id);
/// Appends copies of the WAN interfaces; 0 if there was one, else -1.
KS_EXPORT int get_wan_interfaces(std::vector<Interface>& out);
/// Appends copies of the LAN interfaces; 0 if there was one, else -1.
KS_EXPORT int get_lan_interfaces(std::vector<Interface>& out);
/// Interfaces::get_wan_interface_with_ipv4().
KS_EXPORT int get_wan_interface_with_ipv4(Interface& out);
/// Interfaces::update().
KS_EXPORT void update(const std::vector<Interface>& list);
/// @}

/// The handle for a caller's own event loop; used by one thread. uninit(handle) frees it.
struct netmgmt_t;
/// A new handle (it holds a reference on the service), or null on failure.
KS_EXPORT netmgmt_t* init_eventloop();
/// The refresh key's notification descriptor (-1 without one); the first success also loads
/// the lists and calls the handle's listeners once.
KS_EXPORT int get_fd(netmgmt_t* handle);
/// Call when the descriptor is readable: reloads and calls the listeners on a change.
KS_EXPORT bool read_fd(netmgmt_t* handle);
/// Registers a listener on the handle; returns its id, -1 for a null handle.
KS_EXPORT int set_on_if_change(netmgmt_t* handle, InterfaceType type, InterfaceCallback callback);
/// Unregisters the handle's listener `id`.
KS_EXPORT void unset_on_if_change(netmgmt_t* handle, int id);
/// Replaces `out` with the handle's interfaces of `type`.
KS_EXPORT void get_ifaces(netmgmt_t* handle, InterfaceType type, std::vector<Interface>& out);
/// Frees the handle and drops its reference on the service.
KS_EXPORT void uninit(netmgmt_t* handle);
/// An owner of a handle, for callers that keep one as a member.
struct netmgmt_deleter {
    /// uninit(handle).
    void operator()(netmgmt_t* handle) const { uninit(handle); }
};
/// An owned handle.
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
