#!/usr/bin/env python3
"""The settings server under injected I/O errors, one failing system call per run.

A small workload (persistent sets and deletes, overwrites, a "/tmp" set, two clients at once)
runs under strace, which fails the Nth call of one system call on the settings files with
ENOSPC or EIO, alone or from it on, for every N the run reaches. Refusals must name the error;
started again without faults, the server must hold each acknowledged write's last value and
no refused one, and leave a settings file that passes its checksum. Without faults, each
rewrite must sync the shadow before its rename and the directory after it.

Usage: kssetter_faults_test.py KSSETTER KSSETMGMT (exit 77 without strace or on an emulated target)
"""
import errno
import hashlib
import itertools
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
SETTINGS = ["etc"] + ["etc/storage.data" + suffix for suffix in ["", ".shadow", ".journal", ".journal.damaged"]]

# The operations of one step (joined by " & ") run at once, each from its own client. Every
# persistent value is used once, so a refused one is recognised wherever it shows.
WORKLOAD = ["set /p/a a1", "set /p/b b1", "set /tmp/v t1", "set /p/a a2", "delete /p/pre1", "get /p/a",
            "pause",  # long enough for the rewrite that follows a change
            "set /p/a a3 & set /p/c c1", "get /tmp/v & get /p/c", "set /p/b b2 & delete /p/pre2"]


class Server:
    """kssetter on `root`, under strace when `strace` (its options) is given."""

    def __init__(self, root, strace=None):
        command = [KSSETTER, "-root", root]
        if strace:
            command = ["strace", "-f", "-qq"] + strace + ["--"] + command
        with open(os.path.join(root, "..", "server.err"), "ab") as err:
            self.proc = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=err)
        self.pid, self.ready = self.proc.pid, False
        deadline = time.monotonic() + 20
        while not self.ready and time.monotonic() < deadline and self.alive():
            with socket.socket(socket.AF_UNIX) as s:
                self.ready = s.connect_ex(os.path.join(root, "var/run/kssetmgmt.skt")) == 0
            time.sleep(0.005)
        if strace and self.ready:  # signals go to the server, not to strace
            with open(f"/proc/{self.pid}/task/{self.pid}/children") as children:
                self.pid = int(children.read().split()[0])

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
    """Starts the command-line client for one operation (command, key, value...)."""
    return subprocess.Popen([KSSETMGMT, "-root", root, *op], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                            text=True)


def outcome(proc):
    """A client's output (None when it failed) and its error text."""
    out, err = proc.communicate(timeout=30)
    return (out if proc.returncode == 0 else None), err.strip()


def run_workload(root, model, refused, problems, error):
    """Runs WORKLOAD, applying what was acknowledged to `model`; returns the refusals, which
    must name `error`."""
    refusals = 0
    for step in WORKLOAD:
        if step == "pause":
            time.sleep(0.25)
            continue
        for op, proc in [(op, client(root, op)) for op in (text.split() for text in step.split(" & "))]:
            (command, key), value = op[:2], (op[2] if op[0] == "set" else None)
            got, err = outcome(proc)
            if command == "get":
                if got != model.get(key):
                    problems.append(f"get {key} gave {got!r}, expected {model.get(key)!r}: {err}")
            elif got is not None:
                model[key] = value
            elif error and f"{os.strerror(getattr(errno, error))} (E_SYSTEM)" in err and not key.startswith("/tmp/"):
                refusals += 1
                refused.add(value)
            else:
                problems.append(f"{command} {key}: neither acknowledged nor refused: {err}")
    return refusals


def check_restart(root, model, refused, problems):
    """Starts the server without faults: every key as the model says."""
    server = Server(root)
    if not server.ready:
        problems.append(f"the server did not start again (exit {server.stop()})")
        return
    for key in [key for key in model if not key.startswith("/tmp/")]:
        got, _ = outcome(client(root, ("get", key)))
        if got != model[key]:
            refusal = " (a refused change)" if got in refused else ""
            problems.append(f"{key} is {got!r}{refusal}, acknowledged {model[key]!r}")
    if (status := server.stop()) != 0:
        problems.append(f"the server exited {status} on a clean stop")
    with open(os.path.join(root, "etc/storage.data"), "rb") as f:
        data = f.read()
    # The first line is "/tmp/hash=s|" and the SHA-256 of the rest.
    if data[:77] != b"/tmp/hash=s|" + hashlib.sha256(data[77:]).hexdigest().encode() + b"\n":
        problems.append("the settings file fails its checksum after a clean stop")


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
    """One run, the calls of `syscall` that strace's `when` names failing with `error`: whether
    one was reached, the refusals, the problems, and how often each traced call was made."""
    root, trace = os.path.join(workdir, "root"), os.path.join(workdir, "trace")
    shutil.rmtree(root, ignore_errors=True)
    shutil.copytree(template, root)
    strace = ["-o", trace, "-y", "-e", "trace=" + (syscall or ",".join(SYSCALLS))]
    strace += [arg for path in SETTINGS for arg in ("-P", os.path.join(root, path))]
    if syscall:
        strace += ["-e", f"inject={syscall}:error={error}:when={when}"]
    model, refused, problems = dict(initial), set(), []
    server = Server(root, strace)
    refusals = run_workload(root, model, refused, problems, error) if server.ready else 0
    alive = server.alive()
    status = server.stop()
    if server.ready and not alive:
        problems.append(f"the server ended during the workload (exit {status})")
    elif status != (0 if server.ready else 1):  # a start-up that cannot read the settings exits 1
        problems.append(f"the server exited {status} {'on the stop' if server.ready else 'during start-up'}")
    with open(trace) as f:
        lines = f.read().splitlines()
    names = [m.group(1) for m in (re.match(r"\d+ +(\w+)\(", line) for line in lines) if m]
    calls = {name: names.count(name) for name in SYSCALLS}
    reached = any(line.endswith("(INJECTED)") for line in lines)
    if not syscall:
        # Until the shadow is synced a rename may put an empty file in place after a power
        # loss; until the directory is, the rename itself may be lost.
        shadow, etc = os.path.join(root, "etc/storage.data.shadow"), os.path.join(root, "etc")
        marks = {f"fsync(<{shadow}>": "S", f'rename("{shadow}"': "R", f"fsync(<{etc}>": "D"}
        steps = "".join(mark for line in lines for text, mark in marks.items() if text in re.sub(r"\(\d+<", "(<", line))
        if "SRD" not in steps or not re.fullmatch("(D|SRD)*", steps):
            problems.append(f"rewrites not synced around the rename (S shadow, R rename, D directory): {steps}")
    check_restart(root, model, refused, problems)
    return reached, refusals, problems, calls


def main():
    if os.environ.get("KS_TEST_EMULATED") or not shutil.which("strace"):
        print("skipped: needs strace and the host's own architecture")
        return 77
    with tempfile.TemporaryDirectory() as workdir:
        template, initial = prepare(workdir)
        _, _, problems, calls = run(workdir, template, initial)
        if problems:
            print("the workload fails without faults:", *problems, sep="\n  ")
            return 1
        print("calls without faults:", ", ".join(f"{name} {calls[name]}" for name in SYSCALLS))
        failed = False
        # The Nth call alone ("") or every call from the Nth on ("+"). A failure changes what
        # follows (retries, rewrites), so N goes on until a run no longer reaches it.
        for syscall, error, suffix in itertools.product(SYSCALLS, ["ENOSPC", "EIO"], ["", "+"]):
            runs = refused = 0
            messages = []
            for n in range(1, 2 * calls[syscall] + 10):
                reached, refusals, problems, _ = run(workdir, template, initial, syscall, error, f"{n}{suffix}")
                if not reached and not problems:
                    break
                runs, refused = runs + 1, refused + refusals
                messages += [f"  {syscall}#{n}{suffix} {error}: {p}" for p in problems]
            print(f"{syscall}#N{suffix} {error}: {runs} runs, {refused} refused", *messages, sep="\n")
            failed |= runs == 0 or bool(messages)
        return 1 if failed else 0


if __name__ == "__main__":
    KSSETTER, KSSETMGMT = sys.argv[1], sys.argv[2]
    sys.exit(main())
