"""The example daemon's life: start with its lock and files, reload on SIGHUP
(a changed file, a broken one), a second start refused with the running pid,
-p replacing a predecessor, and the end on SIGTERM."""

import os
import queue
import signal
import subprocess
import threading
import time


class Lines:
    """Standard error of a running daemon, read by a thread, waited on up to a line that matters."""

    def __init__(self, p):
        self.p = p
        self.seen = []
        self.q = queue.Queue()
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        for line in self.p.stderr:
            self.q.put(line)
        self.q.put(None)

    def until(self, text, timeout=10.0):
        end = time.monotonic() + timeout
        while time.monotonic() < end:
            try:
                line = self.q.get(timeout=max(0.0, end - time.monotonic()))
            except queue.Empty:
                break
            if line is None:
                break
            self.seen.append(line)
            if text in line:
                return line
        raise AssertionError(f"no line with {text!r}; got:\n" + "".join(self.seen))


def start(ns, build_dir, *args):
    p = ns.start([str(build_dir / "lib/task/task_example"), "-N", "-f", "/var/tmp/example.conf", *args],
                 stderr=subprocess.PIPE, text=True)
    return p, Lines(p)


def test_example_daemon_lifecycle(ns, build_dir):
    conf = ns.path("/var/tmp/example.conf")
    with open(conf, "w") as f:
        f.write('greeting "hi";\n')
    p, out = start(ns, build_dir)
    out.until("EXAMPLE_READY: greeting hi, configuration 1")
    assert open(ns.path("/var/run/task_example.pid")).read() == f"{p.pid}\n"
    version = open(ns.path("/var/run/task_example.version")).read()
    assert version.startswith("task_example version ") and f"\tpid {p.pid}, started " in version

    # A second start is refused with the first one's pid, and leaves its file alone.
    r = ns.call([str(build_dir / "lib/task/task_example"), "-N", "-f", "/var/tmp/example.conf"], check=False)
    assert r.returncode == 0, r.stderr
    assert f"ZTASK_LOCK_LOCKED: Unable to obtain a lock on /var/run/task_example.pid, task_example[{p.pid}] " \
           "is still running" in r.stderr
    assert open(ns.path("/var/run/task_example.pid")).read() == f"{p.pid}\n"

    # A changed file is read again on SIGHUP.
    with open(conf, "w") as f:
        f.write('greeting "there";\n')
    p.send_signal(signal.SIGHUP)
    out.until("EXAMPLE_READY: greeting there, configuration 2")

    # A broken one is refused with where it is wrong; the old configuration stays.
    with open(conf, "w") as f:
        f.write('greeting "broken"\n')
    p.send_signal(signal.SIGHUP)
    line = out.until("ZTASK_TASK_REINIT: Reinitialization failed")
    assert "example.conf:" in line, line
    with open(conf, "w") as f:
        f.write('greeting "mended";\n')
    p.send_signal(signal.SIGHUP)
    out.until("EXAMPLE_READY: greeting mended, configuration 3")
    assert not any("greeting broken" in l for l in out.seen)

    # -p: the new daemon ends the old one and takes the lock.
    q, qout = start(ns, build_dir, "-p", str(p.pid))
    qout.until("EXAMPLE_READY: greeting mended, configuration 1")
    p.wait(timeout=10)
    assert p.returncode == 0
    out.until("ZTASK_EXIT: Exit task_example[")
    assert open(ns.path("/var/run/task_example.pid")).read() == f"{q.pid}\n"

    # SIGTERM: the exit line, and the PID file goes.
    q.send_signal(signal.SIGTERM)
    qout.until("ZTASK_SIGNAL_TERMINATE: first termination signal received")
    qout.until(f"ZTASK_EXIT: Exit task_example[{q.pid}]")
    q.wait(timeout=10)
    assert q.returncode == 0
    assert not os.path.exists(ns.path("/var/run/task_example.pid"))


def test_example_checks_and_usage(ns, build_dir):
    exe = str(build_dir / "lib/task/task_example")
    conf = ns.path("/var/tmp/example.conf")
    with open(conf, "w") as f:
        f.write('greeting "hi";\n')
    assert ns.call([exe, "-c", "-f", "/var/tmp/example.conf"], check=False).returncode == 0
    with open(conf, "w") as f:
        f.write('greeting "";\n')
    r = ns.call([exe, "-cc", "-f", "/var/tmp/example.conf"], check=False)
    assert r.returncode == 1 and "greeting must not be empty" in r.stderr, r.stderr
    r = ns.call([exe, "--help"], check=False)
    assert r.returncode == 0 and "ZTASK_USAGE: Usage: task_example" in r.stdout
    r = ns.call([exe, "-v"], check=False)
    assert r.returncode == 0 and r.stdout.startswith("EXAMPLE release ")
