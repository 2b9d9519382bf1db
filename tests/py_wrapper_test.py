#!/usr/bin/env python3
"""The settings client's plain functions as a Python program sees them through ctypes.

Usage: py_wrapper_test.py LIBKSUTILS INSTALL_ROOT  (a settings server must serve the root
and hold /py/name = "box", /py/list/one and /py/list/two). Exits 0 when all checks pass.
"""
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

    lib.getKey_py_wrapper.restype = ctypes.c_int64
    lib.getKey_py_wrapper.argtypes = [ctypes.c_char_p, ctypes.POINTER(ctypes.POINTER(ctypes.c_char))]
    lib.enumSubkeys_py_wrapper.argtypes = [ctypes.c_char_p, ctypes.POINTER(ctypes.POINTER(ctypes.c_char))]
    libc.free.argtypes = [ctypes.c_void_p]

    def get(key):
        out = ctypes.POINTER(ctypes.c_char)()
        n = lib.getKey_py_wrapper(key, ctypes.byref(out))
        text = ctypes.cast(out, ctypes.c_char_p).value
        libc.free(out)
        return n, text

    failures = []

    def check(what, got, expected):
        if got != expected:
            failures.append(f"{what}: got {got!r}, expected {expected!r}")

    check("init", lib.init_py_wrapper(), 0)
    check("getKey", get(b"/py/name"), (3, b"box"))
    check("getKey missing", get(b"/py/missing"), (-1, b""))
    check("getKey bad key", get(b"py"), (-1, b""))

    slots = (ctypes.POINTER(ctypes.c_char) * 8)()
    n = lib.enumSubkeys_py_wrapper(b"/py/list", slots)
    names = sorted(ctypes.cast(slots[i], ctypes.c_char_p).value for i in range(max(n, 0)))
    for i in range(max(n, 0)):
        libc.free(slots[i])
    check("enumSubkeys", (n, names), (2, [b"one", b"two"]))
    check("enumSubkeys missing", lib.enumSubkeys_py_wrapper(b"/py/missing", slots), -1)
    check("uninit", lib.uninit_py_wrapper(), 0)

    lib.kslog_uninit()
    return "\n".join(failures) or None


if __name__ == "__main__":
    error = main()
    if error:
        print(error)
        sys.exit(1)
