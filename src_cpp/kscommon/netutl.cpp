// Network interfaces from the settings tree, their listeners, and kernel queries.
//
// The interface list and the listener list have a mutex each and are never locked together:
// notify_listeners reloads and copies the lists first, then calls the listeners. The service
// thread waits with poll on its stop pipe and the refresh key's descriptor (poll rather than
// select, which cannot watch descriptor numbers past FD_SETSIZE in a busy daemon).
#include <kssetter/ksmonitoredkey.h>
#include <kssetter/kssetmgmt.h>
#include <ksutils/error.h>
#include <ksutils/fork.h>
#include <ksutils/kslog.h>
#include <ksutils/netutl.h>
#include <ksutils/unique_fd.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <new>
#include <thread>

namespace ks::netMgmt {

namespace {

constexpr const char* kConfigKey = "/network/interfaces/config";
constexpr const char* kRefreshKey = "/network/interfaces/config_refresh";
constexpr int kWaitMs = 5000;

struct InterfaceList {
    std::mutex mutex;
    std::vector<Interface> list;
};
InterfaceList& interfaces() {
    static InterfaceList state;
    return state;
}

struct ListenerList {
    std::mutex mutex;
    std::vector<InterfaceListener> listeners;
    int last_id = 0;
};
ListenerList& listeners() {
    static ListenerList state;
    return state;
}

struct Service {
    std::mutex mutex;
    std::atomic<int> count{0};
    std::thread thread;
    unique_fd stop_read, stop_write;
    long channel = -1;
    bool fork_handler = false;
};
Service& service() {
    static Service state;
    return state;
}

unsigned long channel() { return static_cast<unsigned long>(service().channel < 0 ? 0 : service().channel); }

std::string key_of(const std::string& name, const char* field) {
    return std::string(kConfigKey) + "/" + name + "/" + field;
}

std::string ips_text(const IpSet& ips) {
    std::string text = "[";
    for (const auto& [addr, mask] : ips) {
        if (text.size() > 1) text += ", ";
        text += fmt::format("{}/{:d}", addr.to_string(false), mask.to_prefix());
    }
    return text + "]";
}

// A child forked while the service runs gets a fresh, unlocked service mutex.
void reinit_after_fork() { new (&service().mutex) std::mutex(); }

// Opens the log channel, connects the settings client and registers the fork handler: the
// steps the service and the handle share. Called under the service mutex.
int start_common() {
    Service& s = service();
    const long ch = static_cast<long>(log::open_channel(log::kKSNetMgmtChannel));
    if (ch < 0) {
        _get_kserrno().set(E_FAULT, "Could not open log channel {}", ks::string_view(log::kKSNetMgmtChannel));
        return -1;
    }
    s.channel = ch;
    if (setMgmt::init() != 0) {
        KSLOG_ERROR(channel(), "ks::setMgmt error: {}", _get_kserrno().message_view());
        log::close_channel(static_cast<unsigned long>(ch));
        s.channel = -1;
        return -1;
    }
    if (!s.fork_handler) {
        ks::lib_atfork(reinit_after_fork);
        s.fork_handler = true;
    }
    return 0;
}

void thread_function(bool loaded) {
    Service& s = service();
    setMgmt::MonitoredKey key(kRefreshKey, [](const ks::path& changed, void*) {
        KSLOG_DEBUG(channel(), "Changed key {}", changed.str());
        InterfacesMgmt::notify_listeners();
        return true;
    });
    for (;;) {
        const int fd = key.get_fd();
        if (fd <= 0) {
            KSLOG_ERROR(channel(), "could not get notification fd for {}", kRefreshKey);
            Interfaces::clear();
            loaded = false;
        } else if (!loaded) {
            loaded = Interfaces::load();
        }
        pollfd fds[2] = {{s.stop_read.get(), POLLIN, 0}, {fd > 0 ? fd : -1, POLLIN, 0}};
        const int ready = ::poll(fds, 2, kWaitMs);
        if (ready < 0) {
            if (errno == EINTR) KSLOG_DEBUG(channel(), "system() was interrupted. Continuing...");
            else KSLOG_ERROR(channel(), "Error at select: errno={:d} ({:s})", errno, ks::string_view(std::strerror(errno)));
            continue;
        }
        if (fds[0].revents) break;
        if (fds[1].revents) key.read_notifications();
    }
    KSLOG_INFO(channel(), "stopping netutl thread...");
    key.cancel();
}

}  // namespace

const char* to_string(InterfaceType type) noexcept { return type == InterfaceType::wan ? "wan" : "lan"; }

std::string to_string(const Interface& iface) {
    return fmt::format("name={:s}, type={:s}, mac={}, ipv4={}, ipv6={}, is_guest={:d}", iface.name,
                       to_string(iface.type), iface.mac.to_string(false), ips_text(iface.ipv4), ips_text(iface.ipv6),
                       iface.is_guest ? 1 : 0);
}

void parse_ips(const std::string& text, sockutl::network_proto proto, IpSet& out) {
    size_t start = 0;
    while (start <= text.size() && !text.empty()) {
        const size_t comma = std::min(text.find(',', start), text.size());
        const std::string entry = text.substr(start, comma - start);
        start = comma + 1;
        const size_t slash = entry.find('/');
        if (slash == std::string::npos || entry.find('/', slash + 1) != std::string::npos) {
            KSLOG_ERROR(channel(), "Invalid ips {:s}", text);
            continue;
        }
        const std::string prefix = entry.substr(slash + 1);
        int length;
        try {
            length = std::stoi(prefix);
        } catch (const std::exception&) {
            KSLOG_ERROR(channel(), "Failed to convert value {:s} of prefix to int", prefix);
            continue;
        }
        // Any length outside 0..255 is the host mask, like every length past the address size,
        // rather than the length modulo 256 (/300 is not /44).
        if (length < 0 || length > 255) length = 255;
        out.emplace(sockutl::address(ks::string_view(entry.data(), slash)),
                    sockutl::address(static_cast<unsigned char>(length), proto));
    }
}

bool Interfaces::load() {
    KSLOG_INFO(channel(), "loading interfaces");
    InterfaceList& state = interfaces();
    std::lock_guard<std::mutex> lock(state.mutex);
    std::vector<std::string> names;
    if (setMgmt::enumSubkeys(kConfigKey, names) < 0) {
        KSLOG_ERROR(channel(), "could not get subkeys for {}", kConfigKey);
        return false;
    }
    state.list.clear();
    for (const auto& name : names) {
        std::string type, mac, ipv4, ipv6;
        if (setMgmt::getKey(key_of(name, "type"), type) < 0) {
            KSLOG_WARN(channel(), "failed to retrieve interface type {:s}", name);
            continue;
        }
        if (setMgmt::getKey(key_of(name, "mac"), mac) < 0)
            KSLOG_DEBUG(channel(), "interface {:s} does not have a mac address", name);
        if (setMgmt::getKey(key_of(name, "ipv4"), ipv4) < 0)
            KSLOG_DEBUG(channel(), "interface {:s} does not have an ipv4", name);
        // The IPv4 wording for the IPv6 key too: operators' filters match this text.
        if (setMgmt::getKey(key_of(name, "ipv6"), ipv6) < 0)
            KSLOG_DEBUG(channel(), "interface {:s} does not have an ipv4", name);
        Interface iface;
        iface.name = name;
        iface.type = type == "wan" ? InterfaceType::wan : InterfaceType::lan;
        sockutl::macaddr::parse_str(ks::string_view(mac), iface.mac);
        parse_ips(ipv4, sockutl::network_proto::ipv4, iface.ipv4);
        parse_ips(ipv6, sockutl::network_proto::ipv6, iface.ipv6);
        iface.is_guest = setMgmt::getKeyValue(key_of(name, "is_guest"), "false") == "true";
        KSLOG_INFO(channel(), "Interface {}", iface);
        state.list.push_back(std::move(iface));
    }
    return true;
}

void Interfaces::clear() {
    std::lock_guard<std::mutex> lock(interfaces().mutex);
    interfaces().list.clear();
}

void Interfaces::update(const std::vector<Interface>& list) {
    std::lock_guard<std::mutex> lock(interfaces().mutex);
    interfaces().list = list;
}

int Interfaces::get_interfaces_with_type(InterfaceType type, std::vector<Interface>& out) {
    std::lock_guard<std::mutex> lock(interfaces().mutex);
    int found = 0;
    for (const auto& iface : interfaces().list)
        if (iface.type == type) out.push_back(iface), ++found;
    return found ? 0 : -1;
}

void Interfaces::get_wan_lan_interfaces(std::vector<Interface>& wan, std::vector<Interface>& lan) {
    std::lock_guard<std::mutex> lock(interfaces().mutex);
    for (const auto& iface : interfaces().list) {
        if (iface.type == InterfaceType::wan) wan.push_back(iface);
        else if (iface.type == InterfaceType::lan) lan.push_back(iface);
    }
}

int Interfaces::get_wan_interface_with_ipv4(Interface& out) {
    std::lock_guard<std::mutex> lock(interfaces().mutex);
    for (const auto& iface : interfaces().list)
        if (iface.type == InterfaceType::wan && !iface.ipv4.empty()) {
            out = iface;
            return 0;
        }
    return -1;
}

int InterfacesMgmt::add_listener(InterfaceCallback callback, InterfaceType type) {
    ListenerList& state = listeners();
    std::lock_guard<std::mutex> lock(state.mutex);
    state.listeners.push_back({++state.last_id, type, std::move(callback)});
    return state.last_id;
}

void InterfacesMgmt::del_listener(int id) {
    ListenerList& state = listeners();
    std::lock_guard<std::mutex> lock(state.mutex);
    auto& l = state.listeners;
    l.erase(std::remove_if(l.begin(), l.end(), [id](const InterfaceListener& x) { return x.id == id; }), l.end());
}

void InterfacesMgmt::notify_listeners() {
    Interfaces::load();
    std::vector<Interface> wan, lan;
    Interfaces::get_wan_lan_interfaces(wan, lan);
    ListenerList& state = listeners();
    std::lock_guard<std::mutex> lock(state.mutex);
    for (const auto& l : state.listeners) {
        if (l.type == InterfaceType::wan) l.callback(wan);
        else if (l.type == InterfaceType::lan) l.callback(lan);
    }
}

int init(bool start_thread) {
    Service& s = service();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.count > 0) {
        ++s.count;
        return 0;
    }
    if (start_common() != 0) return -1;
    const bool loaded = Interfaces::load();
    if (start_thread) {
        int pipe_fds[2];
        if (::pipe2(pipe_fds, O_NONBLOCK | O_CLOEXEC) != 0) {
            _get_kserrno().set(E_SYSTEM);
            setMgmt::uninit();
            log::close_channel(channel());
            s.channel = -1;
            return -1;
        }
        s.stop_read.reset(pipe_fds[0]);
        s.stop_write.reset(pipe_fds[1]);
        s.thread = std::thread(thread_function, loaded);
    }
    KSLOG_DEBUG(channel(), "ks::netMgmt successfully initialized");
    ++s.count;
    return 0;
}

int uninit() {
    Service& s = service();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.count <= 0 || --s.count > 0) return 0;
    if (s.thread.joinable()) {
        (void)!::write(s.stop_write.get(), "x", 1);
        s.thread.join();
        s.stop_read.reset();
        s.stop_write.reset();
    }
    Interfaces::clear();
    if (setMgmt::uninit() != 0) KSLOG_ERROR(channel(), "ks::setMgmt error: {}", _get_kserrno().message_view());
    KSLOG_DEBUG(channel(), "ks::netMgmt successfully uninitialized");
    log::close_channel(channel());
    s.channel = -1;
    return 0;
}

int set_on_wan_interface_change(InterfaceCallback callback) {
    return InterfacesMgmt::add_listener(std::move(callback), InterfaceType::wan);
}

int set_on_lan_interface_change(InterfaceCallback callback) {
    return InterfacesMgmt::add_listener(std::move(callback), InterfaceType::lan);
}

void unset_on_interface_change(int id) { InterfacesMgmt::del_listener(id); }

int get_wan_interfaces(std::vector<Interface>& out) {
    return Interfaces::get_interfaces_with_type(InterfaceType::wan, out);
}

int get_lan_interfaces(std::vector<Interface>& out) {
    return Interfaces::get_interfaces_with_type(InterfaceType::lan, out);
}

int get_wan_interface_with_ipv4(Interface& out) { return Interfaces::get_wan_interface_with_ipv4(out); }

void update(const std::vector<Interface>& list) { Interfaces::update(list); }

// ---- the handle -------------------------------------------------------------------------

struct netmgmt_t {
    std::vector<Interface> wan;
    std::vector<Interface> lan;
    std::vector<InterfaceListener> listeners;
    int last_id = 0;
    bool loaded = false;
    setMgmt::MonitoredKey key;

    netmgmt_t() : key(kRefreshKey, [this](const ks::path&, void*) { return refresh(); }) {}

    bool refresh() {
        Interfaces::load();
        wan.clear();
        lan.clear();
        Interfaces::get_wan_lan_interfaces(wan, lan);
        loaded = true;
        for (const auto& l : listeners) {
            if (l.type == InterfaceType::wan) l.callback(wan);
            else if (l.type == InterfaceType::lan) l.callback(lan);
        }
        return true;
    }
};

netmgmt_t* init_eventloop() {
    {
        Service& s = service();
        std::lock_guard<std::mutex> lock(s.mutex);
        if (s.count == 0) {
            if (start_common() != 0) return nullptr;
            KSLOG_DEBUG(channel(), "ks::netMgmt successfully initialized");
        }
        ++s.count;
    }
    netmgmt_t* handle = new (std::nothrow) netmgmt_t();
    if (!handle) uninit();
    return handle;
}

int get_fd(netmgmt_t* handle) {
    if (!handle) return -1;
    const int fd = handle->key.get_fd();
    if (fd >= 0 && !handle->loaded) handle->refresh();
    return fd;
}

bool read_fd(netmgmt_t* handle) { return handle && handle->key.read_notifications(); }

int set_on_if_change(netmgmt_t* handle, InterfaceType type, InterfaceCallback callback) {
    if (!handle) return -1;
    handle->listeners.push_back({++handle->last_id, type, std::move(callback)});
    return handle->last_id;
}

void unset_on_if_change(netmgmt_t* handle, int id) {
    if (!handle) return;
    auto& l = handle->listeners;
    l.erase(std::remove_if(l.begin(), l.end(), [id](const InterfaceListener& x) { return x.id == id; }), l.end());
}

void get_ifaces(netmgmt_t* handle, InterfaceType type, std::vector<Interface>& out) {
    if (!handle) return;
    if (type == InterfaceType::lan) out = handle->lan;
    else if (type == InterfaceType::wan) out = handle->wan;
    else KSLOG_ERROR(channel(), "BUG: Invalid interface type");
}

void uninit(netmgmt_t* handle) {
    if (!handle) return;
    handle->key.cancel();
    delete handle;
    uninit();
}

}  // namespace ks::netMgmt

namespace ks {

namespace {

unsigned long net_channel() { return netMgmt::channel(); }

// A datagram socket for one interface request; -1 with the error logged.
int request_socket() {
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) KSLOG_ERROR(net_channel(), "Failed to create socket: errno={:d}", errno);
    return fd;
}

}  // namespace

bool is_interface_up(const std::string& name) {
    unique_fd fd(::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_RAW));
    if (!fd) {
        KSLOG_ERROR(net_channel(), "socket() failed: {:s}", ks::string_view(std::strerror(errno)));
        return false;
    }
    ifreq req{};
    // A name longer than the kernel's limit cannot name an interface: it is cut, not overrun.
    std::strncpy(req.ifr_name, name.c_str(), IFNAMSIZ - 1);
    if (::ioctl(fd.get(), SIOCGIFFLAGS, &req) != 0) {
        KSLOG_ERROR(net_channel(), "ioctl() failed: {:s}", ks::string_view(std::strerror(errno)));
        return false;
    }
    return (req.ifr_flags & IFF_UP) != 0;
}

bool get_ip_address(const std::string& name, std::string& out) {
    ifreq req{};
    std::strncpy(req.ifr_name, name.c_str(), IFNAMSIZ - 1);
    unique_fd fd(request_socket());
    if (!fd) return false;
    req.ifr_addr.sa_family = AF_INET;
    if (::ioctl(fd.get(), SIOCGIFADDR, &req) != 0) {
        KSLOG_ERROR(net_channel(), "Failed to send SIOCGIFADDR request through ioctl: errno={:d}", errno);
        return false;
    }
    char text[INET_ADDRSTRLEN];
    ::inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(&req.ifr_addr)->sin_addr, text, sizeof text);
    out = text;
    KSLOG_INFO(net_channel(), "Interface {:s} has IP address {:s}", name, out);
    return true;
}

bool get_mac_address(const std::string& name, std::string& out) {
    ifreq req{};
    std::strncpy(req.ifr_name, name.c_str(), IFNAMSIZ - 1);
    unique_fd fd(request_socket());
    if (!fd) return false;
    if (::ioctl(fd.get(), SIOCGIFHWADDR, &req) != 0) {
        KSLOG_ERROR(net_channel(), "Failed to send SIOCGIFHWADDR request through ioctl: errno={:d}", errno);
        return false;
    }
    const auto* b = reinterpret_cast<const unsigned char*>(req.ifr_hwaddr.sa_data);
    out = fmt::format("{:02X}:{:02X}:{:02X}:{:02X}:{:02X}:{:02X}", b[0], b[1], b[2], b[3], b[4], b[5]);
    KSLOG_INFO(net_channel(), "Interface {:s} has MAC address {:s}", name, out);
    return true;
}

}  // namespace ks
