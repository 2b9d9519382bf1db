#!/usr/bin/env python3
"""The settings client's plain functions through ctypes. Usage: py_wrapper_test.py LIBKSUTILS ROOT
(a server on ROOT holding /py/name = "box", /py/list/one and /py/list/two)."""
import ctypes
import sys


def main():
    lib = ctypes.CDLL(sys.argv[1])
    libc = ctypes.CDLL(None)
    root = sys.argv[2].encode()
    lib.kspath_set_install_path(ctypes.c_char_p(root))
    # The client logs on its own channel, so logging comes first.
    if lib.kslog_init(b"py_wrapper_test", root, None) != 0:
        return "kslog_init failed"

    text = ctypes.POINTER(ctypes.c_char)
    lib.getKey_py_wrapper.restype = ctypes.c_int64
    lib.getKey_py_wrapper.argtypes = lib.enumSubkeys_py_wrapper.argtypes = [ctypes.c_char_p, ctypes.POINTER(text)]
    libc.free.argtypes = [ctypes.c_void_p]

    def take(p):  # the C string the library allocated, freed
        value = ctypes.cast(p, ctypes.c_char_p).value
        libc.free(p)
        return value

    def get(key):
        out = text()
        return lib.getKey_py_wrapper(key, ctypes.byref(out)), take(out)

    def enum(key):
        slots = (text * 8)()
        n = lib.enumSubkeys_py_wrapper(key, slots)
        return n, sorted(take(slots[i]) for i in range(max(n, 0)))

    checks = [  # in call order
        ("init", lib.init_py_wrapper(), 0),
        ("getKey", get(b"/py/name"), (3, b"box")),
        ("getKey missing", get(b"/py/missing"), (-1, b"")),
        ("enumSubkeys", enum(b"/py/list"), (2, [b"one", b"two"])),
        ("enumSubkeys missing", enum(b"/py/missing"), (-1, [])),
        ("uninit", lib.uninit_py_wrapper(), 0),
    ]
    lib.kslog_uninit()
    return "\n".join(f"{what}: got {got!r}, expected {want!r}" for what, got, want in checks if got != want) or None


if __name__ == "__main__":
    sys.exit(main())
