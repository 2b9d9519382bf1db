"""Python's ipaddress answers to the address test's cases, one line each (P parse, M netmask,
N prefix of a mask, S subnet membership, C RFC 1071 checksum of hex bytes)."""
import ipaddress
import sys

LINK_LOCAL = ipaddress.ip_network("fe80::/64")


def text(a):
    """As inet_ntop writes it: IPv4-compatible and -mapped IPv6 addresses with a dotted tail."""
    mapped = a.version == 6 and a.ipv4_mapped is not None
    if mapped or (a.version == 6 and 0x10000 <= int(a) < 1 << 32):
        return ("::ffff:" if mapped else "::") + str(ipaddress.IPv4Address(a.packed[12:]))
    return str(a)


def answer(kind, *args):
    try:
        a = ipaddress.ip_address(args[0]) if kind in "PNS" else None
    except ValueError:
        return "invalid"
    if kind == "P":
        return "v%d %s ll=%d" % (a.version, text(a), a.version == 6 and a in LINK_LOCAL)
    if kind == "M":
        bits, prefix = int(args[0]), int(args[1])
        return text(ipaddress.ip_network("%s/%d" % ("0.0.0.0" if bits == 32 else "::", min(prefix, bits))).netmask)
    if kind == "N":
        ones = len(format(int(a), "0%db" % a.max_prefixlen).split("0")[0])
        mask = ((1 << a.max_prefixlen) - 1) ^ ((1 << (a.max_prefixlen - ones)) - 1)
        return "prefix=%d netmask=%d" % (ones, int(a) == mask)
    if kind == "S":
        net = ipaddress.ip_network("%s/%s" % (args[1], args[2]), strict=False)
        return "in=%d subnet=%s" % (a in net, text(net.network_address))
    data = bytes.fromhex(args[0])
    s = sum(int.from_bytes(data[i:i + 2].ljust(2, b"\0"), "big") for i in range(0, len(data), 2))
    while s > 0xFFFF:
        s = (s & 0xFFFF) + (s >> 16)
    return str(~s & 0xFFFF)


for line in sys.stdin:
    print(answer(*line.rstrip("\n").split(" ")))
