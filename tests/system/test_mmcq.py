"""Three sender processes into one queue, and its receiver killed twice.

Real `mmcqpeer` processes in a private namespace: three senders of 4000
self-checking messages each into a queue small enough to grow and to fill;
the first receiver dies by SIGKILL at the crash point between copying a
message out and taking it, the second is killed by the test at an arbitrary
moment, the third runs to the end. Each message is logged before it is
taken: the log must hold every sender's messages once each and in order, and
the message the first receiver had logged but not taken must be delivered
again to the next (at least once, never lost).
"""

import re
import signal
import subprocess

import tvxns

ROOT = "/var/tmp/mq"
LOG = ROOT + "/received.log"
EACH = 4000
SENDERS = (1, 2, 3)
SIZES = ["-m", "256", "-d", "8192", "-x", "262144"]


class Peer:
    def __init__(self, ns, build_dir, tmp_path):
        self.ns = ns
        self.bin = str(build_dir / "tools/mmcqpeer/mmcqpeer")
        path, self.gcore_log = tvxns.fake_gcore(tmp_path)
        self.env = {"TAVOX_ROOT": ROOT, "TVX_MM_TIME_SCALE": "0.05",
                    "PATH": path}

    def start(self, args, crashpoint=""):
        # Unbuffered bytes: a line read here must leave the rest of the output
        # in the pipe for communicate(), which reads the descriptors directly.
        argv = ["/bin/sh", "-c", 'ulimit -c 0; exec "$@"', "sh", self.bin] + SIZES + args
        return self.ns.start(argv, env=dict(self.env, TVX_CRASHPOINT=crashpoint),
                             stdout=subprocess.PIPE, stderr=subprocess.PIPE, bufsize=0)

    def receiver(self, crashpoint=""):
        p = self.start(["recv", "q", LOG] + [f"{s}:{EACH}" for s in SENDERS], crashpoint)
        assert p.stdout.readline() == b"receiving\n", p.stderr.read()
        return p

    def logged(self):
        try:
            with open(self.ns.path(LOG)) as f:
                return [tuple(map(int, line.split())) for line in f if line.endswith("\n")]
        except FileNotFoundError:
            return []


def test_three_senders_and_a_receiver_killed_twice(ns, build_dir, tmp_path):
    peer = Peer(ns, build_dir, tmp_path)
    ns.call(["mkdir", "-p", ROOT])
    first = peer.receiver("mmcq_recv_copied:700")
    senders = [peer.start(["send", "q", str(s), str(EACH)]) for s in SENDERS]

    first.wait(timeout=30)
    assert first.returncode == -signal.SIGKILL, first.stderr.read().decode()
    last_of_first = peer.logged()[-1]

    second = peer.receiver()
    n = len(peer.logged())
    # Killed once it has taken a good part of the rest, or left to finish.
    try:
        tvxns.wait_for(lambda: len(peer.logged()) > n + 2000 or second.poll() is not None, timeout=20,
                       what="the second receiver's progress")
    except AssertionError:
        show = ns.call([str(build_dir / "tools/tvxmm/tvxmm"), "mmcq", "show", "q"], env=peer.env).stdout
        raise AssertionError(f"{len(peer.logged()) - n} taken by the second receiver:\n{show}")
    second.send_signal(signal.SIGKILL)
    out, err = (b.decode() for b in second.communicate(timeout=10))
    assert second.returncode in (0, -signal.SIGKILL), err
    # The message logged but not taken by the first came again.
    assert "redelivered %d %d\n" % last_of_first in out, out

    third = peer.receiver()
    _, err = third.communicate(timeout=30)
    assert third.returncode == 0, err.decode()
    for s in senders:
        _, err = s.communicate(timeout=10)
        assert s.returncode == 0, err.decode()

    per = {s: [] for s in SENDERS}
    for sender, seq in peer.logged():
        per[sender].append(seq)
    for s in SENDERS:
        assert per[s] == list(range(EACH)), f"sender {s}: {len(per[s])} logged"

    show = ns.call([str(build_dir / "tools/tvxmm/tvxmm"), "mmcq", "show", "q"], env=peer.env).stdout
    assert "holds 0 bytes" in show, show
    grows = re.search(r"^grows (\d+),", show, re.M)
    assert grows and int(grows.group(1)) > 0, show  # the ring grew while in use
    assert not peer.gcore_log.exists(), peer.gcore_log.read_text()
