"""tunechod answers the overlay ping: the real daemon with rtsockd and
fdblearnd in one namespace, probed over a veth pair from a second one.
Requests are built and replies read with scapy from the packet tables."""

import os
import random
import signal
import socket
import subprocess
import time

import pytest

import overlay
import tvxns
import vtep as vteps
from vtep import listening

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
CONF = "protocols { overlay { traceoptions { file tunechod size 10m; flag all; } } }\n"


class Lab:
    """A VTEP namespace (192.0.2.1, lo0 10.255.0.1) running the three
    programs, and a prober namespace (192.0.2.2) with a UDP socket on 4789."""

    def __init__(self, vtep, prober, build_dir, tmp_path):
        self.vtep, self.prober, self.build = vtep, prober, build_dir
        vteps.join(vtep, prober)
        conf = tmp_path / "tunechod.conf"
        conf.write_text(CONF)
        self.rtsockd = vtep.start([str(build_dir / "rtsockd/rtsockd"), "-f", f"{ROOT}/rtsockd/sample.state"],
                                  stderr=subprocess.DEVNULL)
        tvxns.wait_for(lambda: listening(vtep.path("/var/run/rtsock"), socket.SOCK_SEQPACKET), what="rtsockd")
        self.fdblearnd = vtep.start([str(build_dir / "fdblearnd/fdblearnd"), "-f",
                                     f"{ROOT}/fdblearnd/sample.state"], stderr=subprocess.DEVNULL)
        tvxns.wait_for(lambda: listening(vtep.path("/var/run/ping_ceip_fdblearnd_communication")),
                       what="fdblearnd")
        self.daemon = vtep.start([str(build_dir / "tunechod/tunechod"), "-N", "-f", str(conf)],
                                 stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
        tvxns.wait_for(lambda: "Adding [vni 200, bdm_index 6] to vni_tbl" in self.trace(),
                       what="the start-up scan")
        with prober.netns():
            self.sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.sock.bind(("192.0.2.2", overlay.OAM_PORT))
        self.sock.settimeout(5)

    def trace(self):
        try:
            with open(self.vtep.path("/var/log/tunechod")) as f:
                return f.read()
        except FileNotFoundError:
            return ""

    def ping(self, vni, mac=None, dst="192.0.2.1", seq=1, inner_v4=True):
        self.sock.sendto(overlay.request(vni, mac, inner_v4=inner_v4, seq=seq), (dst, overlay.OAM_PORT))
        data, src = self.sock.recvfrom(2048)
        return overlay.decode(data), src

    def admin(self, line):
        s = socket.socket(socket.AF_UNIX)
        s.connect(self.vtep.path("/var/run/rtsock.admin"))
        s.sendall(line.encode() + b"\n")
        out = b""
        while not out.endswith(b"ok\n") and b"error" not in out:
            chunk = s.recv(65536)
            if not chunk:
                break
            out += chunk
        s.close()
        return out.decode()


@pytest.fixture
def lab(build_dir, tmp_path):
    if not tvxns.available():
        pytest.skip("system tests need root and unshare")
    with tvxns.Namespace() as vtep, tvxns.Namespace() as prober:
        yield Lab(vtep, prober, build_dir, tmp_path)


def test_known_and_unknown_vni_and_mac(lab):
    r, src = lab.ping(100, "00:11:22:33:44:55", seq=7)
    assert src == ("192.0.2.1", overlay.OAM_PORT)
    assert (r["type"], r["rc"], r["mac_status"]) == (overlay.ECHO_REPLY, overlay.RC_VNI_KNOWN, overlay.MAC_PRESENT)
    assert (r["flags"], r["vni"], r["seq"], r["handle"], r["sent"]) == (0x09, 100, 7, 0x1234, (1000, 500))
    assert r["received"][0] > 1_000_000_000 and r["received"][1] < 1000
    r, _ = lab.ping(100, "00:11:22:33:44:99")
    assert (r["rc"], r["mac_status"]) == (overlay.RC_VNI_KNOWN, overlay.MAC_ABSENT)
    r, _ = lab.ping(999, "00:11:22:33:44:55")
    assert (r["rc"], r["mac_status"]) == (overlay.RC_VNI_UNKNOWN, 0)
    r, _ = lab.ping(200, inner_v4=False)
    assert not r["inner_v4"] and r["rc"] == overlay.RC_VNI_KNOWN
    trace = lab.trace()
    assert "lookup Fdblearnd for VNI:100 rvtep-dest:0.0.0.0 found bd_id:5 bdname:bd5 rvtep_ifl_idx:80" in trace
    assert "Received UDP packet from 192.0.2.2 port" in trace


def test_reply_source_is_lo0_when_asked_there(lab):
    # A probe to the loopback address: the reply leaves from it.
    _, src = lab.ping(100, dst="10.255.0.1")
    assert src[0] == "10.255.0.1"


def test_bridge_domains_follow_the_kernel(lab):
    r, _ = lab.ping(300)
    assert r["rc"] == overlay.RC_VNI_UNKNOWN
    assert lab.admin("add bd index=12 rtb_id=7 name=bd12 vnid=300 cfg_flags=0x800").endswith("ok\n")
    tvxns.wait_for(lambda: "Adding [vni 300, bdm_index 12] to vni_tbl" in lab.trace(), what="the notification")
    r, _ = lab.ping(300)
    assert r["rc"] == overlay.RC_VNI_KNOWN
    assert lab.admin("delete bd index=12").endswith("ok\n")
    tvxns.wait_for(lambda: "Deleting [vni 300, bdm_index 12]" in lab.trace(), what="the deletion")
    r, _ = lab.ping(300)
    assert r["rc"] == overlay.RC_VNI_UNKNOWN


def test_a_silent_route_socket_peer_makes_lookups_fail_not_hang(lab):
    assert lab.admin("fault silent route").endswith("ok\n")
    r, _ = lab.ping(100, "00:11:22:33:44:55")
    assert (r["rc"], r["mac_status"]) == (overlay.RC_VNI_KNOWN, overlay.MAC_ABSENT)
    assert "rtslib_rtm_get failed: MAC is not present, lookup failed" in lab.trace()
    assert lab.admin("fault clear").endswith("ok\n")
    r, _ = lab.ping(100, "00:11:22:33:44:55")
    assert r["mac_status"] == overlay.MAC_PRESENT


def test_a_flood_of_bad_datagrams_changes_nothing(lab):
    rnd = random.Random(20261123)
    good = overlay.request(100, "00:11:22:33:44:55")
    with lab.prober.netns():
        s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    for i in range(3000):
        kind = i % 4
        if kind == 0:
            data = bytes(rnd.getrandbits(8) for _ in range(rnd.randrange(0, 1200)))
        elif kind == 1:
            data = good[:rnd.randrange(0, len(good))]  # cut anywhere
        elif kind == 2:
            data = good + bytes(rnd.getrandbits(8) for _ in range(rnd.randrange(0, 1500)))  # garbage behind
        else:
            data = bytes([good[0] & ~1]) + good[1:]  # OAM bit clear
        s.sendto(data, ("192.0.2.1", overlay.OAM_PORT))
    s.sendto(bytes(65507), ("192.0.2.1", overlay.OAM_PORT))
    s.close()
    rss_before = rss(lab.daemon.pid)
    # Whatever replies the flood earned (the prober's buffer may drop some),
    # a good request after it is answered.
    r = {"seq": None}
    lab.sock.settimeout(0.5)
    for attempt in range(20):
        lab.sock.sendto(overlay.request(100, "00:11:22:33:44:55", seq=4242), ("192.0.2.1", overlay.OAM_PORT))
        try:
            while r["seq"] != 4242:
                r = overlay.decode(lab.sock.recvfrom(2048)[0])
            break
        except TimeoutError:
            continue
    assert r["seq"] == 4242 and r["rc"] == overlay.RC_VNI_KNOWN
    assert lab.daemon.poll() is None
    assert rss(lab.daemon.pid) <= rss_before + 1024  # kB: the flood left nothing behind


def rss(pid):
    with open(f"/proc/{pid}/status") as f:
        for l in f:
            if l.startswith("VmRSS:"):
                return int(l.split()[1])
    return 0


def mgmt(lab, *lines):
    """Each command's answer lines, without their codes' separators."""
    s = socket.socket(socket.AF_UNIX)
    s.connect(lab.vtep.path("/var/run/tunechod_mgmt"))
    f = s.makefile("rwb")
    answers = []
    for line in lines:
        f.write(line.encode() + b"\n")
        f.flush()
        out = []
        while True:
            l = f.readline().decode().rstrip("\r\n")
            out.append(l)
            if len(l) < 4 or l[3] == " ":
                break
        answers.append(out)
    s.close()
    return answers


def test_management_commands(lab):
    assert oct(os.stat(lab.vtep.path("/var/run/tunechod_mgmt")).st_mode & 0o777) == "0o600"
    lab.ping(100, "00:11:22:33:44:55")
    lab.ping(999)
    vni, one, missing, bad, bds, stats, cleared, again = mgmt(
        lab, "show vni", "SHOW VNI 200", "show vni 999", "show vni x", "show bridge-domain",
        "show statistics", "clear statistics", "show statistics")
    assert vni == ["100-VNI        Bridge domain  Routing table  VLAN",
                   "100-100        5              7              10",
                   "100 200        6              7              20"]
    assert one[-1] == "100 200        6              7              20"
    assert missing == ["500 VNI 999 not found"]
    assert bad == ["500 invalid VNI 'x'"]
    assert [l[4:].split()[:2] for l in bds[1:]] == [["100", "5"], ["200", "6"]]
    counters = {l[4:28].strip(): int(l[28:]) for l in stats}
    assert counters["replies sent"] == 2 and counters["VNI unknown"] == 1 and counters["MAC present"] == 1
    assert cleared == ["100 statistics cleared"]
    assert any(l.startswith("100-replies sent") and l.endswith(" 0") for l in again)
    helps = mgmt(lab, "help show")[0]
    words = [h[4:] for h in helps]
    assert {"vni", "bridge-domain", "statistics", "task", "version"} <= set(words), helps


def test_local_channel_and_clean_end(lab):
    def ask(text):
        s = socket.socket(socket.AF_UNIX)
        s.connect(lab.vtep.path("/var/run/ping_overlay_tunechod_communication"))
        s.sendall(text)
        out = s.recv(64)
        s.close()
        return out
    assert ask(b"100/0") == b"5\0"
    assert ask(b"4242/0") == b"0\0"
    with open(lab.vtep.path("/var/run/tunechod.pid")) as f:
        assert int(f.read().split()[0]) == lab.daemon.pid  # nsenter execs the daemon itself
    lab.daemon.send_signal(signal.SIGTERM)
    _, err = lab.daemon.communicate(timeout=10)
    assert lab.daemon.returncode == 0, err


def test_learning_daemon_down_ends_the_responder(lab):
    lab.fdblearnd.send_signal(signal.SIGTERM)
    lab.fdblearnd.wait(timeout=5)
    lab.sock.sendto(overlay.request(100), ("192.0.2.1", overlay.OAM_PORT))
    lab.daemon.wait(timeout=10)
    assert lab.daemon.returncode == 254  # exit(-2): the service manager restarts it
