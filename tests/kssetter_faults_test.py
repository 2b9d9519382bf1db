#!/usr/bin/env python3
"""The settings server under injected I/O errors, one failing system call per run.

A small workload (persistent sets and deletes, overwrites, a "/tmp" set, two clients at once)
runs against the real server under strace, which fails the Nth call of one system call on the
settings files with ENOSPC or EIO, that call alone or every call from it on; every N that the
start-up, the workload and the stop reach is run. Started again without faults, the server
must hold each acknowledged write's last value and no refused one, must never have died of
anything but the stop it was sent, and must leave a settings file that passes its checksum.

Usage: kssetter_faults_test.py KSSETTER KSSETMGMT
Exit status 0 when every run kept every acknowledged write, 1 otherwise, 77 without strace or
on an emulated target.
"""
import hashlib
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

# The calls that put a change on disk: the journal's append, sync and truncation, and the
# settings file's rewrite (open the shadow, write, fsync, rename, open and fsync the directory);
# and those that read both back at start-up.
SYSCALLS = ["write", "fdatasync", "openat", "fsync", "rename", "ftruncate", "read"]
ERRNOS = ["ENOSPC", "EIO"]
SETTINGS = ["etc/storage.data", "etc/storage.data.shadow", "etc/storage.data.journal",
            "etc/storage.data.journal.damaged", "etc"]

# Steps of the workload; the operations of one step run at once, each from its own client.
# Every persistent value is used once, so a refused one is recognised wherever it shows.
WORKLOAD = [
    [("set", "/p/a", "a1")],
    [("set", "/p/b", "b1")],
    [("set", "/tmp/v", "t1")],
    [("set", "/p/a", "a2")],
    [("delete", "/p/pre1")],
    [("get", "/p/a")],
    "pause",  # long enough for the rewrite that follows a change
    [("set", "/p/a", "a3"), ("set", "/p/c", "c1")],
    [("get", "/tmp/v"), ("get", "/p/c")],
    [("set", "/p/b", "b2"), ("delete", "/p/pre2")],
]
KEYS = ["/p/pre1", "/p/pre2", "/p/a", "/p/b", "/p/c"]


class Server:
    """kssetter on `root`, under strace when `strace` (its options) is given."""

    def __init__(self, root, strace=None):
        self.root = root
        command = [KSSETTER, "-root", root]
        if strace:
            command = ["strace", "-f", "-qq"] + strace + ["--"] + command
        with open(os.path.join(root, "..", "server.err"), "ab") as err:
            self.proc = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=err)
        self.pid = self.proc.pid
        self.ready = self._wait_listening()
        if strace and self.ready:  # signals go to the server, not to strace
            with open(f"/proc/{self.proc.pid}/task/{self.proc.pid}/children") as children:
                self.pid = int(children.read().split()[0])

    def _wait_listening(self):
        path = os.path.join(self.root, "var/run/kssetmgmt.skt")
        deadline = time.monotonic() + 20
        while time.monotonic() < deadline and self.proc.poll() is None:
            with socket.socket(socket.AF_UNIX) as s:
                try:
                    s.connect(path)
                    return True
                except OSError:
                    time.sleep(0.005)
        return False

    def alive(self):
        return self.proc.poll() is None

    def stop(self, sig=signal.SIGTERM):
        """The exit status; negative when a signal ended the server."""
        if self.alive():
            os.kill(self.pid, sig)
        try:
            return self.proc.wait(timeout=30)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            return self.proc.wait()


def client(root, op):
    """Starts the command-line client for one operation."""
    command, key = op[0], op[1]
    return subprocess.Popen([KSSETMGMT, "-root", root, command, key] + list(op[2:]), stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE, text=True)


def run_workload(root, model, refused, problems):
    """Runs WORKLOAD, applying what was acknowledged to `model`; returns the refusals."""
    refusals = 0
    for step in WORKLOAD:
        if step == "pause":
            time.sleep(0.25)
            continue
        started = [(op, client(root, op)) for op in step]
        for op, proc in started:
            out, err = proc.communicate(timeout=30)
            command, key = op[0], op[1]
            if command == "get":
                expected = model.get(key)
                got = out if proc.returncode == 0 else None
                if got != expected:
                    problems.append(f"get {key} gave {got!r}, expected {expected!r}: {err.strip()}")
            elif proc.returncode == 0:
                model[key] = op[2] if command == "set" else None
            elif "E_SYSTEM" in err and not key.startswith("/tmp/"):
                refusals += 1
                refused.add(op[2] if command == "set" else None)
            else:
                problems.append(f"{command} {key}: neither acknowledged nor refused: {err.strip()}")
    return refusals


def checksum_ok(path):
    """The settings file's first line is "/tmp/hash=s|" and the SHA-256 of the rest."""
    with open(path, "rb") as f:
        data = f.read()
    head = b"/tmp/hash=s|"
    return (data.startswith(head) and data[76:77] == b"\n"
            and hashlib.sha256(data[77:]).hexdigest().encode() == data[len(head):76])


def check_restart(root, model, refused, problems):
    """Starts the server without faults: every key as the model says. Counts the lost keys."""
    server = Server(root)
    if not server.ready:
        problems.append(f"the server did not start again (exit {server.stop()})")
        return 0
    lost = 0
    for key in KEYS:
        proc = client(root, ("get", key))
        out, _ = proc.communicate(timeout=30)
        got = out if proc.returncode == 0 else None
        if got != model[key]:
            shown = " (a refused change)" if got in refused else ""
            problems.append(f"{key} is {got!r}{shown}, acknowledged {model[key]!r}")
            lost += 1
    status = server.stop()
    if status != 0:
        problems.append(f"the server exited {status} on a clean stop")
    if not checksum_ok(os.path.join(root, "etc/storage.data")):
        problems.append("the settings file fails its checksum after a clean stop")
    return lost


def prepare(workdir):
    """An install root whose settings file and journal both hold changes, and its settings."""
    root = os.path.join(workdir, "template")
    os.makedirs(os.path.join(root, "var/run"))
    server = Server(root)
    assert server.ready, "the server does not start"
    for op in [("set", "/p/pre1", "p1"), ("set", "/p/pre2", "p2"), ("set", "/p/a", "a0")]:
        assert client(root, op).wait() == 0
    time.sleep(1.2)  # rewritten into the settings file (at most once a second)
    assert client(root, ("set", "/p/pre2", "p2b")).wait() == 0
    server.stop(signal.SIGKILL)  # before the next rewrite: the change is in the journal only
    os.unlink(os.path.join(root, "var/run/kssetmgmt.skt"))
    assert os.path.getsize(os.path.join(root, "etc/storage.data.journal")) > 0, "no change left in the journal"
    return root, {"/p/pre1": "p1", "/p/pre2": "p2b", "/p/a": "a0", "/p/b": None, "/p/c": None}


def run(workdir, template, initial, syscall=None, error=None, when=""):
    """One run, with the calls of `syscall` that strace's `when` names failing with `error`.
    Returns (reached, refusals, lost, problems, calls): calls counts each traced system call,
    for the run without faults."""
    root = os.path.join(workdir, "root")
    shutil.rmtree(root, ignore_errors=True)
    shutil.copytree(template, root)
    trace = os.path.join(workdir, "trace")
    strace = ["-o", trace, "-e", "trace=" + (syscall or ",".join(SYSCALLS))]
    for path in SETTINGS:
        strace += ["-P", os.path.join(root, path)]
    if syscall:
        strace += ["-e", f"inject={syscall}:error={error}:when={when}"]
    model, refused, problems = dict(initial), set(), []
    server = Server(root, strace)
    refusals = 0
    if server.ready:
        refusals = run_workload(root, model, refused, problems)
        if not server.alive():
            problems.append(f"the server ended during the workload (exit {server.stop()})")
        else:
            status = server.stop()
            if status != 0:
                problems.append(f"the server exited {status} on the stop")
    else:
        status = server.stop()
        if status != 1:  # a start-up that cannot read the settings exits 1
            problems.append(f"the server ended during start-up with {status}")
    with open(trace) as f:
        lines = f.read().splitlines()
    names = [m.group(1) for m in (re.match(r"\d+ +(\w+)\(", line) for line in lines) if m]
    calls = {name: names.count(name) for name in SYSCALLS}
    reached = any(line.endswith("(INJECTED)") for line in lines)
    lost = check_restart(root, model, refused, problems)
    return reached, refusals, lost, problems, calls


def main():
    if os.environ.get("KS_TEST_EMULATED") or not shutil.which("strace"):
        print("skipped: needs strace and the host's own architecture")
        return 77
    with tempfile.TemporaryDirectory() as workdir:
        template, initial = prepare(workdir)
        _, refusals, lost, problems, calls = run(workdir, template, initial)
        if refusals or lost or problems:
            print("the workload fails without faults:", *problems, sep="\n  ")
            return 1
        print("calls without faults:", ", ".join(f"{name} {calls[name]}" for name in SYSCALLS))
        failed = False
        for syscall in SYSCALLS:
            for error in ERRNOS:
                for suffix in ["", "+"]:  # the Nth call alone, every call from the Nth on
                    runs = total_refused = total_lost = 0
                    messages = []
                    # A failure changes what follows (retries, rewrites), so N goes on until a
                    # run no longer reaches it.
                    for n in range(1, 2 * calls[syscall] + 10):
                        reached, refusals, lost, problems, _ = run(workdir, template, initial, syscall, error,
                                                                   f"{n}{suffix}")
                        if not reached and not problems:
                            break
                        runs, total_refused, total_lost = runs + 1, total_refused + refusals, total_lost + lost
                        messages += [f"  {syscall}#{n}{suffix} {error}: {p}" for p in problems]
                    print(f"{syscall}#N{suffix} {error}: {runs} runs, {total_refused} refused, {total_lost} lost",
                          *messages, sep="\n")
                    failed |= runs == 0 or bool(messages)
        return 1 if failed else 0


if __name__ == "__main__":
    KSSETTER, KSSETMGMT = sys.argv[1], sys.argv[2]
    sys.exit(main())
