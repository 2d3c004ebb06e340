"""IPC connections between real processes (ipcpeer): a server killed with
SIGKILL and started again is found again by its client, which identifies
itself before anything else; a server stopped with SIGSTOP fills the
client's queue to back-pressure, which ends once the server runs again,
with every message delivered in order."""

import os
import select
import signal
import subprocess
import time

import pytest

import tvxns

SOCK = "/var/run/ipcpeer.sock"


class Lines:
    """Standard output of a process, a line at a time, with a deadline."""

    def __init__(self, proc):
        self.proc = proc
        self.fd = proc.stdout.fileno()
        self.buf = b""
        self.seen = []

    def next(self, timeout=10.0):
        end = time.monotonic() + timeout
        while b"\n" not in self.buf:
            left = end - time.monotonic()
            if left <= 0:
                raise AssertionError(f"no line within {timeout} s; so far {self.seen}")
            r, _, _ = select.select([self.fd], [], [], left)
            if r:
                chunk = os.read(self.fd, 65536)
                if not chunk:
                    raise AssertionError(f"output ended; so far {self.seen}")
                self.buf += chunk
        line, self.buf = self.buf.split(b"\n", 1)
        text = line.decode()
        self.seen.append(text)
        return text

    def until(self, predicate, timeout=10.0):
        """Lines up to and including the first that satisfies predicate."""
        end = time.monotonic() + timeout
        got = []
        while True:
            got.append(self.next(max(0.01, end - time.monotonic())))
            if predicate(got[-1]):
                return got

    def quiet_for(self, seconds):
        """No line for this long (a process that must stay stopped)."""
        r, _, _ = select.select([self.fd], [], [], seconds)
        return not r and b"\n" not in self.buf


def start(ns, build_dir, args):
    p = ns.start([str(build_dir / "tools/ipcpeer/ipcpeer")] + args, stdout=subprocess.PIPE,
                 stderr=subprocess.PIPE)
    return p, Lines(p)


@pytest.mark.parametrize("events", ["task", "ev"])
def test_a_killed_server_is_found_again_and_hears_the_identification_first(ns, build_dir, events):
    client, cout = start(ns, build_dir, ["-e", events, "-c", SOCK, "-a", "7", "-i", "3", "--interval", "20",
                                         "source"])
    server, sout = start(ns, build_dir, ["-e", events, "-s", SOCK, "-v", "sink"])
    assert sout.next() == f"listening {SOCK}"
    # The client retries every 2 seconds until the server is there.
    assert sout.next(timeout=6) == f"session 7 {client.pid} connected"
    assert cout.next() == "connected"
    first = sout.until(lambda l: l.startswith("message") and int(l.split()[-1]) >= 5)
    seqs = [int(l.split()[-1]) for l in first if l.startswith("message")]
    assert seqs == list(range(seqs[0], seqs[0] + len(seqs))), first

    server.send_signal(signal.SIGKILL)
    server.wait(timeout=5)
    assert cout.next() == "closed"
    server, sout = start(ns, build_dir, ["-e", events, "-s", SOCK, "-v", "sink"])
    assert sout.next() == f"listening {SOCK}"
    # Identification first: the session is known before any message of it.
    assert sout.next(timeout=6) == f"session 7 {client.pid} connected"
    assert cout.next() == "connected"
    again = sout.until(lambda l: l.startswith("message") and int(l.split()[-1]) >= seqs[-1] + 5)
    assert all(l.startswith("message 1 64 seq ") for l in again), again
    later = [int(l.split()[-1]) for l in again]
    assert later[0] > seqs[-1]
    assert later == list(range(later[0], later[0] + len(later)))

    server.send_signal(signal.SIGTERM)
    rest = sout.until(lambda l: l.startswith("received"))
    assert rest[-2] == f"session 7 {client.pid} closed"
    assert rest[-1].endswith("in order"), rest
    assert server.wait(timeout=5) == 0
    assert cout.next() == "closed"
    client.send_signal(signal.SIGTERM)
    assert client.wait(timeout=5) == 0
    assert cout.seen == ["connected", "closed", "connected", "closed"]


@pytest.mark.parametrize("events", ["task", "ev"])
def test_a_stopped_server_fills_the_queue_to_back_pressure_and_releases_it(ns, build_dir, events):
    server, sout = start(ns, build_dir, ["-e", events, "-s", SOCK, "sink"])
    assert sout.next() == f"listening {SOCK}"
    server.send_signal(signal.SIGSTOP)
    # The connect completes in the stopped server's backlog; what the sockets
    # cannot hold waits in the client's queue.
    client, cout = start(ns, build_dir, ["-e", events, "-c", SOCK, "--backpressure", "200", "-n", "20000",
                                         "-l", "1024", "source"])
    assert cout.next() == "connected"
    assert cout.next() == "backpressure on 200"
    # The source holds back while the server cannot take anything.
    assert cout.quiet_for(1.0)
    assert client.poll() is None
    server.send_signal(signal.SIGCONT)
    assert cout.next() == "backpressure off 189"
    rest = cout.until(lambda l: l.startswith("sent"), timeout=30)
    assert rest[-1] == "sent 20000"
    assert all(l in ("backpressure on 200", "backpressure off 189") for l in rest[:-1]), rest
    assert client.wait(timeout=5) == 0
    assert sout.until(lambda l: l.startswith("received")) == [
        f"session 1 {client.pid} connected", f"session 1 {client.pid} closed", "received 20000 in order"]
