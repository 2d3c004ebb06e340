"""Two writer processes and the replicator `dupd`, all real processes.

`mmdbload` writers change one database concurrently over a shared set of
keys; `dupd` mirrors it into a text file and into a second database, and
acknowledges each change once it is stored. At the
end the mirrors must equal the database: after a plain run, after `dupd` was
killed at a named point and restarted while the writers went on, and after
its change queue overflowed (a small queue and a slow `dupd`), which makes it
rescan instead of missing a change. And a writer killed at each of the
database's crash points while the other writer and `dupd` run: no wrong
value is read, nothing hangs, the database verifies and the mirror ends equal.
"""

import os
import re
import signal
import subprocess

import pytest

import tvxns

ROOT = "/var/tmp/dup"
MIRROR = ROOT + "/mirror"
DB, COPY = 7, 8


class Lab:
    def __init__(self, ns, build_dir, tmp_path, queue=None, acks=False):
        self.acks = ["-a"] if acks else []
        self.ns = ns
        self.build = build_dir
        path, self.gcore_log = tvxns.fake_gcore(tmp_path)
        self.env = {"TAVOX_ROOT": ROOT, "TVX_MM_TIME_SCALE": "0.05", "PATH": path}
        if queue:
            self.env["TVX_MMDB_QUEUE_BYTES"] = queue
        ns.call(["mkdir", "-p", MIRROR])
        # The database exists (and is in the registry) before dupd looks.
        self.run_writer(0, 0).communicate(timeout=10)

    def start(self, prog, args, crashpoint="", **kw):
        argv = ["/bin/sh", "-c", 'ulimit -c 0; exec "$@"', "sh", str(self.build / prog)] + args
        return self.ns.start(argv, env=dict(self.env, TVX_CRASHPOINT=crashpoint), stdout=subprocess.PIPE,
                             stderr=subprocess.PIPE, **kw)

    def run_writer(self, writer, count):
        return self.start("dupd/mmdbload", self.acks + ["-i", str(DB), "-w", str(writer), "-r", str(writer), "-n", str(count),
                                            "-k", "400"])

    def dupd(self, *args, crashpoint=""):
        # Started by its full path: the database knows its replicator by "/dupd".
        p = self.start("dupd/dupd", ["-m", f"{DB}:{COPY}", "-p", "5"] + list(args) + [MIRROR], crashpoint,
                       bufsize=0)
        assert p.stdout.readline() == b"dupd: replicating\n", p.stderr.read()
        return p

    def writers(self, count, first=1):
        ps = [self.run_writer(w, count) for w in (first, first + 1)]
        outs = []
        for p in ps:
            out, err = p.communicate(timeout=30)
            assert p.returncode == 0, err.decode()
            outs.append(out.decode())
        return outs

    def dump(self, db):
        out = self.ns.call([str(self.build / "tools/tvxmm/tvxmm"), "mmdb", "dump", str(db)], env=self.env).stdout
        recs = {}
        for line in out.splitlines()[:-1]:
            m = re.fullmatch(r"(\S+) = (\S+) \(replicated (\d+)\)", line)
            assert m and int(m.group(3)) == len(m.group(2)), line
            recs[m.group(1)] = m.group(2)
        return recs

    def mirror(self):
        try:
            with open(self.ns.path(f"{MIRROR}/mmdb_{DB}.txt")) as f:
                return {bytes.fromhex(k).decode(): bytes.fromhex(v).decode()
                        for k, v in (line.split(" ") for line in f.read().splitlines())}
        except FileNotFoundError:
            return None

    def wait_equal(self, what):
        want = self.dump(DB)
        assert len(want) > 100
        try:
            tvxns.wait_for(lambda: self.mirror() == want and self.dump(COPY) == want, timeout=15, what=what)
        except AssertionError:
            got = self.mirror() or {}
            diff = {k for k in set(want) | set(got) if want.get(k) != got.get(k)}
            raise AssertionError(f"{what}: {len(diff)} keys differ, e.g. {sorted(diff)[:5]}")

    def stop(self, p):
        p.send_signal(signal.SIGTERM)
        out, err = p.communicate(timeout=10)
        assert p.returncode == 0, err.decode()
        return out.decode()

    def check_no_dump(self):
        assert not self.gcore_log.exists(), self.gcore_log.read_text()


def scans(out):
    m = re.search(r"(\d+) full scans", out)
    assert m, out
    return int(m.group(1))


def test_two_writers_mirrored_also_across_a_dupd_restart(ns, build_dir, tmp_path):
    # With acknowledgements: each writer ends only when no record waits for its
    # ack. A change replaced before dupd stored it is not acknowledged (its
    # successor is), so a writer whose changes the other overwrote may hear
    # of none: the two together must.
    lab = Lab(ns, build_dir, tmp_path, acks=True)
    d = lab.dupd()
    acks = [re.search(r"(\d+) acks", out) for out in lab.writers(20000)]
    assert all(acks) and sum(int(a.group(1)) for a in acks) > 0
    lab.wait_equal("the mirror of the first run")
    # A plain run needs no rescan: every change came as a message.
    assert scans(lab.stop(d)) == 1

    # dupd dies in the middle of the stream while the writers go on; the next
    # one starts with a full scan and catches up.
    d = lab.dupd(crashpoint="dupd_applied:3000")
    ps = [lab.run_writer(w, 20000) for w in (3, 4)]
    d.wait(timeout=30)
    assert d.returncode == -signal.SIGKILL, d.stderr.read().decode()
    d = lab.dupd()
    for p in ps:
        _, err = p.communicate(timeout=30)
        assert p.returncode == 0, err.decode()  # acks of the dead dupd's batch came from the next one
    lab.wait_equal("the mirror after a restart")
    lab.stop(d)
    lab.check_no_dump()


def test_an_overflowing_queue_makes_dupd_rescan(ns, build_dir, tmp_path):
    lab = Lab(ns, build_dir, tmp_path, queue="8192,16384")
    d = lab.dupd("-s", "1")
    lab.writers(20000)
    show = ns.call([str(build_dir / "tools/tvxmm/tvxmm"), "mmdb", "show", str(DB)], env=lab.env).stdout
    lab.wait_equal("the mirror after overflows")
    assert scans(lab.stop(d)) > 1, show
    lab.check_no_dump()


def crashpoints():
    build = os.environ.get("TVX_BUILD_DIR")
    if not build:
        return []
    r = subprocess.run([os.path.join(build, "dupd/mmdbload"), "-C"], capture_output=True, text=True, check=True)
    return r.stdout.split()


# The pass that kills: deep enough into the work that the database is full
# of records and the other writer is busy; a reset is done once, at change 300.
PASS = {"mmdb_append_moved": 20, "mmdb_delete_unlinked": 100, "mmdb_reset_heads": 1}


@pytest.mark.parametrize("point", crashpoints())
def test_a_writer_killed_at_each_crash_point(ns, build_dir, tmp_path, point):
    """A writer dies at the point with dupd running: the other writer never
    reads a wrong value and ends, dupd's mirror ends equal, and a reopen of
    the database finds it valid (the record count made right)."""
    lab = Lab(ns, build_dir, tmp_path)
    d = lab.dupd()
    victim = lab.start("dupd/mmdbload", ["-i", str(DB), "-w", "1", "-r", "1", "-n", "20000", "-k", "400",
                                         "-x", "300"], crashpoint=f"{point}:{PASS.get(point, 300)}")
    other = lab.run_writer(2, 20000)
    victim.wait(timeout=30)
    assert victim.returncode == -signal.SIGKILL, victim.stderr.read().decode()
    _, err = other.communicate(timeout=30)
    assert other.returncode == 0, err.decode()
    r = ns.call([str(build_dir / "tools/tvxmm/tvxmm"), "mmdb", "verify", str(DB)], env=lab.env, check=False)
    assert r.returncode == 0, r.stdout + r.stderr
    lab.wait_equal(f"the mirror after a writer died at {point}")
    lab.stop(d)
    lab.check_no_dump()
