#!/usr/bin/env bash
# Installs a built tree into a temporary prefix, checks the exported symbols, and builds the
# consumer (scripts/consumer/) against it, once through pkg-config and once through
# find_package(ksutils), then runs both.
set -euo pipefail
build=${1:?usage: check-install.sh BUILD_DIR}
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT

cmake --install "$build" --prefix "$prefix" >/dev/null

# The exported surface: the foundation's C functions are there unmangled, and nothing but
# C functions with a module prefix and the ks:: class interface is exported.
lib=$(find "$prefix" -name 'libksutils.so.*' -type f | head -n 1)
symbols=$(nm -D --defined-only "$lib" | awk '{print $3}')
for fn in kspath_default_install_path kspath_set_install_path get_userhome kslib_atfork ksfork \
          plock_open plock_lock plock_wait_lock plock_unlock plock_get_pid plock_is_locked plock_close \
          write_all writev_all; do
  grep -qx "$fn" <<<"$symbols" || { echo "missing export: $fn"; exit 1; }
done
stray=$(nm -D --defined-only "$lib" | awk '{print $3}' | c++filt | grep -v -E \
  '^(ks::|(typeinfo|typeinfo name|vtable|VTT|guard variable|TLS init function|TLS wrapper function) for ks::|(non-)?virtual thunk to ks::|(kslog|kschlog|crypto|aes|rsa|kscrypto|kspath|plock)_|get_userhome$|kslib_atfork$|ksfork$|writev?_all$|[A-Za-z]+_py_wrapper$)' || true)
if [ -n "$stray" ]; then echo "unexpected exports:"; echo "$stray" | head -n 20; exit 1; fi

"$(dirname "$0")/consumer/check.sh" --prefix "$prefix"
echo "install check: pkg-config and find_package consumers built and ran"
