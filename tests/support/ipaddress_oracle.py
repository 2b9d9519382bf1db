"""Independent answers for the address tests, from Python's ipaddress module.

One answer line per case line, in the C++ test's own format, to compare line by line:
  P text            -> "v4 TEXT ll=0" | "v6 TEXT ll=B" | "invalid"
  M bits prefix     -> the netmask of prefix for a 32- or 128-bit address
  N text            -> "prefix=N netmask=B"
  S text net prefix -> "in=B subnet=TEXT"
  C hex             -> the RFC 1071 checksum of the bytes, big-endian, as a number
Printing follows the C library's inet_ntop, which writes an IPv4-compatible or -mapped
IPv6 address with a dotted tail (RFC 4291); Python writes those in hex groups.
"""
import ipaddress
import sys

LINK_LOCAL = ipaddress.ip_network("fe80::/64")


def text(a):
    if a.version == 6:
        w = [int.from_bytes(a.packed[i:i + 2], "big") for i in range(0, 16, 2)]
        tail = str(ipaddress.IPv4Address(a.packed[12:]))
        if w[:6] == [0] * 6 and w[6] != 0:
            return "::" + tail
        if w[:5] == [0] * 5 and w[5] == 0xFFFF:
            return "::ffff:" + tail
    return str(a)


def parse(t):
    try:
        return ipaddress.ip_address(t)
    except ValueError:
        return None


def leading_ones(a):
    return len(format(int(a), "0%db" % a.max_prefixlen).split("0")[0])


def answer(words):
    kind = words[0]
    if kind == "P":
        a = parse(words[1]) if len(words) > 1 else None
        if a is None:
            return "invalid"
        return "v%d %s ll=%d" % (a.version, text(a), a.version == 6 and a in LINK_LOCAL)
    if kind == "M":
        bits, prefix = int(words[1]), int(words[2])
        net = ipaddress.ip_network("%s/%d" % ("0.0.0.0" if bits == 32 else "::", min(prefix, bits)))
        return text(net.netmask)
    if kind == "N":
        a = parse(words[1])
        ones = leading_ones(a)
        mask = ((1 << a.max_prefixlen) - 1) ^ ((1 << (a.max_prefixlen - ones)) - 1)
        return "prefix=%d netmask=%d" % (ones, int(a) == mask)
    if kind == "S":
        a, prefix = parse(words[1]), int(words[3])
        net = ipaddress.ip_network("%s/%d" % (words[2], prefix), strict=False)
        return "in=%d subnet=%s" % (a in net, text(net.network_address))
    if kind == "C":
        data = bytes.fromhex(words[1]) if len(words) > 1 else b""
        if len(data) % 2:
            data += b"\0"
        s = sum(int.from_bytes(data[i:i + 2], "big") for i in range(0, len(data), 2))
        while s > 0xFFFF:
            s = (s & 0xFFFF) + (s >> 16)
        return str(~s & 0xFFFF)
    return "?"


for line in sys.stdin:
    print(answer(line.rstrip("\n").split(" ")))
