#!/usr/bin/env bash
# Installs a built tree into a temporary prefix and builds a tiny consumer against it,
# once through pkg-config and once through find_package(ksutils), then runs both.
set -euo pipefail
build=${1:?usage: check-install.sh BUILD_DIR}
prefix=$(mktemp -d)
work=$(mktemp -d)
trap 'rm -rf "$prefix" "$work"' EXIT

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

cat >"$work/consumer.cpp" <<'CPP'
#include <ksutils/error.h>
#include <ksutils/path.h>
#include <kspath.h>
#include <cstdio>
int main() {
    kspath_set_install_path("/srv/ks");
    ks::path p(ks::common_path::log_config, "x.json");
    ks::_get_kserrno().set(ks::E_INVAL);
    std::printf("%s %s\n", p.c_str(), ks::_get_kserrno().name.c_str());
    return p.view() == "/srv/ks/etc/logging/x.json" ? 0 : 1;
}
CPP

export PKG_CONFIG_PATH="$prefix/lib/pkgconfig:$prefix/lib/$(gcc -print-multiarch)/pkgconfig"
# shellcheck disable=SC2046
g++ -std=c++17 -Wall -Wextra -Werror "$work/consumer.cpp" -o "$work/consumer-pc" $(pkg-config --cflags --libs ksutils)
LD_LIBRARY_PATH="$prefix/lib:$prefix/lib/$(gcc -print-multiarch)" "$work/consumer-pc"

cat >"$work/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.20)
project(consumer CXX)
set(CMAKE_CXX_STANDARD 17)
find_package(ksutils REQUIRED)
add_executable(consumer-cmake consumer.cpp)
target_link_libraries(consumer-cmake PRIVATE ksutils::ksutils)
CMAKE
cmake -S "$work" -B "$work/build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/build" >/dev/null
"$work/build/consumer-cmake"
echo "install check: pkg-config and find_package consumers built and ran"
