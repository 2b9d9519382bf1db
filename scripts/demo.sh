#!/usr/bin/env bash
# The demo: one daemon's life on a throw-away installation.
#
# Sets up the machine (Debian 12 packages), builds the library and the programs it needs,
# creates a temporary install root with a fresh log key pair, starts the settings server
# and the example daemon (detached), changes the settings key the daemon watches, hands the
# running daemon a new log configuration with "-execute-log-config", stops everything and
# decrypts the daemon's log with kslogreader. Whatever happens, the trap stops every
# process it started and removes every file it made.
#
#   scripts/demo.sh            (BUILD_DIR=dir to use another build directory)
set -euo pipefail
cd "$(dirname "$0")/.."

BUILD_DIR=${BUILD_DIR:-build}
JOBS=${JOBS:-$(nproc)}

step() { printf '\n\033[1m== %s\033[0m\n' "$*"; }

step "Setting up and building (${BUILD_DIR})"
scripts/install-deps.sh
cmake -S . -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$BUILD_DIR" -j "$JOBS" --target ksutils kssetter kssetmgmt kslogreader example_daemon >/dev/null
DAEMON=$PWD/$BUILD_DIR/examples/example_daemon
SETTER=$PWD/$BUILD_DIR/tools/kssetter
SETMGMT=$PWD/$BUILD_DIR/tools/kssetmgmt
READER=$PWD/$BUILD_DIR/tools/kslogreader

started=$(date +%s)
WORK=$(mktemp -d "${TMPDIR:-/tmp}/ksdemo.XXXXXX")
ROOT=$WORK/root
KEY=$WORK/logs-priv.pem
SETTER_PID=""
export KS_INSTALL_ROOT=$ROOT

daemon_pid() { [ -s "$ROOT/var/run/example_daemon.pid" ] && head -n1 "$ROOT/var/run/example_daemon.pid" || true; }

cleanup() {
  local status=$?
  set +e
  local pid
  pid=$(daemon_pid)
  if [ -n "$pid" ] && kill -0 "$pid" 2>/dev/null; then
    kill -TERM "$pid" 2>/dev/null
    for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
    kill -KILL "$pid" 2>/dev/null
  fi
  if [ -n "$SETTER_PID" ] && kill -0 "$SETTER_PID" 2>/dev/null; then
    kill -TERM "$SETTER_PID" 2>/dev/null
    for _ in $(seq 50); do kill -0 "$SETTER_PID" 2>/dev/null || break; sleep 0.1; done
    kill -KILL "$SETTER_PID" 2>/dev/null
  fi
  rm -rf "$WORK" "/tmp/kslogs$ROOT"
  rmdir -p "$(dirname "/tmp/kslogs$ROOT")" 2>/dev/null
  if [ $status -ne 0 ]; then echo "demo failed (status $status); everything it started is stopped" >&2; fi
  exit $status
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# Waits up to 10 s for a condition given as a command.
wait_until() {
  for _ in $(seq 100); do "$@" && return 0; sleep 0.1; done
  echo "timed out waiting for: $*" >&2
  return 1
}

step "A throw-away install root with a fresh log key pair: $ROOT"
mkdir -p "$ROOT/etc/logging" "$ROOT/var/log" "$ROOT/var/run"
openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out "$KEY" 2>/dev/null
openssl pkey -in "$KEY" -pubout -out "$ROOT/etc/logs-pub.pem" 2>/dev/null
echo "public key: etc/logs-pub.pem (logs are encrypted with it); private key kept outside the root"

step "Starting the settings server"
setsid "$SETTER" -root "$ROOT" >"$WORK/kssetter.out" 2>&1 </dev/null &
SETTER_PID=$!
wait_until test -S "$ROOT/var/run/kssetmgmt.skt"
echo "kssetter running, pid $SETTER_PID"

step "Starting example_daemon detached, logging at info level"
cat >"$WORK/start.json" <<'EOF'
{ "action": "update",
  "channels": {
    "default": [ { "file": "$INSTALL_PATH/var/log/$IDENTITY", "level": "info" } ],
    "example": [ { "file": "$INSTALL_PATH/var/log/$IDENTITY", "level": "info" } ] } }
EOF
echo "\$ example_daemon -start -log-config=start.json"
"$DAEMON" -start -log-config="$WORK/start.json"
wait_until test -n "$(daemon_pid)"
echo "running, pid $(daemon_pid) (var/run/example_daemon.pid is locked by it)"

step "Changing the key the daemon watches"
sleep 0.5
echo "\$ kssetmgmt set /example_daemon/message 'hello from the demo'"
"$SETMGMT" -root "$ROOT" set /example_daemon/message "hello from the demo"
sleep 0.5

step "Handing the running daemon a new log configuration"
cat >"$WORK/runtime.json" <<'EOF'
{ "action": "update",
  "channels": {
    "example": [ { "file": "$INSTALL_PATH/var/log/$IDENTITY", "level": "info" },
                 { "file": "$INSTALL_PATH/var/log/$IDENTITY.$CHANNEL_NAME", "level": "debug" } ] } }
EOF
echo "\$ example_daemon -execute-log-config -log-config=runtime.json"
"$DAEMON" -execute-log-config -log-config="$WORK/runtime.json"
wait_until test -e "$ROOT/var/log/example_daemon.example.lock"
echo "\$ kssetmgmt set /example_daemon/message 'logged twice now'"
"$SETMGMT" -root "$ROOT" set /example_daemon/message "logged twice now"
wait_until test -s "$ROOT/var/log/example_daemon.example.0"

echo "An invalid configuration is refused before it reaches the daemon:"
echo '{ "action": "update", "channels": 42 }' >"$WORK/invalid.json"
echo "\$ example_daemon -execute-log-config -log-config=invalid.json"
"$DAEMON" -execute-log-config -log-config="$WORK/invalid.json" && exit 1 || echo "(exit status $?)"

step "Stopping the daemon and the server"
pid=$(daemon_pid)
echo "\$ example_daemon -stop"
"$DAEMON" -stop
wait_until sh -c "! kill -0 $pid 2>/dev/null"
kill -TERM "$SETTER_PID"
wait "$SETTER_PID" 2>/dev/null || true
SETTER_PID=""

step "The daemon's log, decrypted with kslogreader"
ls -l "$ROOT/var/log" | grep -v lock
for log in "$ROOT"/var/log/example_daemon.0 "$ROOT"/var/log/example_daemon.example.0; do
  echo "--- $(basename "$log")"
  "$READER" -k "$KEY" "$log"
done

step "Done in $(($(date +%s) - started)) s; cleaning up"
