"""Private mount and network namespaces for system tests.

A Namespace holds one namespace pair for the length of a test: tmpfs over /run
(hence /var/run), /var/tmp and /var/log, a sysfs of its own (so /sys/class/net
shows its interfaces only), and the loopback interface up. The
literal paths of the programs hold inside it, and tests run side by side.

    with Namespace() as ns:
        p = ns.start(["./rtsockd", "-f", "state"])       # runs inside
        ns.call(["ip", "-o", "link"])                    # runs inside, waits
        with ns.netns():                                 # sockets made here
            s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)   # live inside
        open(ns.path("/run/x.pid")).read()               # files inside, from outside

Every process started is killed when the block ends, however it ends, and the
namespaces go with the last of them. The processes also die with the test
process itself (parent-death signal), so nothing outlives a crashed run.
"""

import contextlib
import ctypes
import os
import signal
import subprocess
import time

CLONE_NEWNET = 0x40000000
PR_SET_PDEATHSIG = 1

_libc = ctypes.CDLL(None, use_errno=True)

_SETUP = (
    "set -e; "
    "mount -t tmpfs -o mode=0755 tmpfs /run; "
    "mount -t tmpfs -o mode=1777 tmpfs /var/tmp; "
    "mount -t tmpfs -o mode=0755 tmpfs /var/log; "
    "mount -t sysfs sysfs /sys; "
    "ip link set lo up; "
    "echo ready; "
    "exec sleep 100000"
)


def _die_with_parent():
    _libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL, 0, 0, 0)
    os.setpgrp()


def available():
    """Whether this machine lets us make the namespaces (root, unshare)."""
    return os.geteuid() == 0 and os.path.exists("/usr/bin/unshare")


class Namespace:
    def __init__(self):
        self.holder = None
        self.procs = []

    # -- life cycle -------------------------------------------------------
    def __enter__(self):
        self.holder = subprocess.Popen(
            ["unshare", "--mount", "--net", "--propagation", "private", "--", "/bin/sh", "-c", _SETUP],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, stdin=subprocess.DEVNULL,
            preexec_fn=_die_with_parent)
        line = self.holder.stdout.readline()
        if line.strip() != b"ready":
            err = self.holder.stderr.read().decode(errors="replace")
            self.close()
            raise RuntimeError("namespace setup failed: " + err.strip())
        return self

    def __exit__(self, *exc):
        self.close()
        return False

    def close(self):
        for p in self.procs:
            _stop(p, 2.0)
        self.procs = []
        if self.holder:
            _stop(self.holder, 1.0)
            for f in (self.holder.stdout, self.holder.stderr):
                f.close()
            self.holder = None

    # -- running things inside ---------------------------------------------
    def _argv(self, argv):
        return ["nsenter", "--target", str(self.holder.pid), "--mount", "--net", "--"] + list(argv)

    def start(self, argv, env=None, **kw):
        """Starts argv inside; it is stopped when the namespace closes."""
        kw.setdefault("stdin", subprocess.DEVNULL)
        p = subprocess.Popen(self._argv(argv), env=_env(env), preexec_fn=_die_with_parent, **kw)
        self.procs.append(p)
        return p

    def call(self, argv, env=None, timeout=20, check=True):
        """Runs argv inside to its end; returns the completed process (text output)."""
        p = self.start(argv, env=env, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        try:
            out, err = p.communicate(timeout=timeout)
        except subprocess.TimeoutExpired:
            _stop(p, 1.0)
            raise
        r = subprocess.CompletedProcess(argv, p.returncode, out, err)
        if check and r.returncode != 0:
            raise AssertionError(f"{argv} exited {r.returncode}: {err.strip()}")
        return r

    def path(self, inside):
        """The path by which the test reaches a file that is `inside` in the namespace.

        Symbolic links are followed inside: an absolute link such as /var/run -> /run
        would otherwise lead back out to the host's file."""
        root = f"/proc/{self.holder.pid}/root"
        parts = [p for p in inside.split("/") if p]
        done = []
        hops = 0
        while parts:
            part = parts.pop(0)
            if part == "..":
                if done:
                    done.pop()
                continue
            here = root + "/" + "/".join(done + [part])
            if os.path.islink(here):
                hops += 1
                if hops > 40:
                    raise OSError(f"too many links under {inside}")
                target = os.readlink(here)
                if target.startswith("/"):
                    done = []
                parts = [p for p in target.split("/") if p and p != "."] + parts
                continue
            done.append(part)
        return root + "/" + "/".join(done)

    @contextlib.contextmanager
    def netns(self):
        """Within the block, sockets this thread makes belong to the namespace."""
        own = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
        theirs = os.open(f"/proc/{self.holder.pid}/ns/net", os.O_RDONLY)
        try:
            if _libc.setns(theirs, CLONE_NEWNET) != 0:
                raise OSError(ctypes.get_errno(), "setns")
            yield
        finally:
            _libc.setns(own, CLONE_NEWNET)
            os.close(own)
            os.close(theirs)


def fake_gcore(tmp_path):
    """A gcore that records its arguments in tmp_path/gcore.log instead of dumping.

    Mapped-file programs dump a lock holder they judge stuck with gcore; in a
    test nobody may be judged stuck, and a real dump could fill the disk.
    Returns (PATH with the fake first, the log's path)."""
    fake = tmp_path / "bin"
    fake.mkdir()
    log = tmp_path / "gcore.log"
    (fake / "gcore").write_text(f'#!/bin/sh\necho "$@" >> {log}\n')
    (fake / "gcore").chmod(0o755)
    return f"{fake}:{os.environ.get('PATH', '/usr/bin:/bin')}", log


def wait_for(predicate, timeout=10.0, what="condition"):
    """Polls predicate until it holds; for readiness of a real process, not for timers."""
    end = time.monotonic() + timeout
    while time.monotonic() < end:
        if predicate():
            return
        time.sleep(0.02)
    raise AssertionError(f"timed out waiting for {what}")


def _env(extra):
    env = dict(os.environ)
    if extra:
        env.update(extra)
    return env


def _stop(p, grace):
    if p.poll() is None:
        with contextlib.suppress(ProcessLookupError):
            os.killpg(p.pid, signal.SIGTERM)
        try:
            p.wait(timeout=grace)
        except subprocess.TimeoutExpired:
            with contextlib.suppress(ProcessLookupError):
                os.killpg(p.pid, signal.SIGKILL)
            p.wait()
