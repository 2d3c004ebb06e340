"""ping-overlay against the real responder: two VTEPs in namespaces joined by
a veth pair, each with rtsockd, fdblearnd and tunechod. The probes on the wire
are read with scapy from the packet tables, never from the command's code."""

import json
import os
import signal
import socket
import struct
import subprocess

import pytest
from scapy.layers.inet import IP, UDP
from scapy.packet import Raw
from scapy.layers.inet6 import IPv6
from scapy.layers.l2 import Ether
from scapy.layers.vxlan import VXLAN

import overlay
import tvxns
import vtep

MAC = "00:11:22:33:44:55"


@pytest.fixture
def pair(build_dir, tmp_path):
    if not tvxns.available():
        pytest.skip("system tests need root and unshare")
    with tvxns.Namespace() as remote, tvxns.Namespace() as local:
        yield vtep.VtepPair(remote, local, build_dir, tmp_path)


def run(pair, *args):
    r = pair.ping(list(args))
    return r.returncode, r.stdout, r.stderr


def test_known_absent_and_unknown(pair):
    rc, out, err = run(pair, "--vni", "100", "--mac", MAC, "-c", "2", "-i", "0.2", "192.0.2.1")
    assert rc == 0, err
    assert out.startswith(f"PING-OVERLAY VNI 100 192.0.2.2 -> 192.0.2.1, bridge domain 5, MAC {MAC}: 148 bytes\n")
    assert "130 bytes from 192.0.2.1: seq=1 time=" in out and "seq=2 time=" in out
    assert out.count("VNI known, MAC present; sent ") == 2
    assert "2 probes transmitted, 2 received, 0% packet loss" in out
    assert "rtt min/avg/max/mdev = " in out and "return codes: VNI known 2" in out
    assert "WARNING: following hash-parameters are missing" in err and "end-host smac" in err

    rc, out, _ = run(pair, "--vni", "100", "--mac", "00:11:22:33:44:99", "-c", "1", "192.0.2.1")
    assert rc == 0 and "seq=1" in out and "VNI known, MAC absent" in out

    rc, out, err = run(pair, "--vni", "999", "--mac", MAC, "-c", "1", "192.0.2.1")
    assert rc == 0 and "VNI unknown, MAC not checked" in out and "return codes: VNI unknown 1" in out
    assert "bridge domain 0" in out
    assert "VNI 999 has no bridge domain toward 192.0.2.1 on this VTEP; probing anyway" in err

    # All hash parameters stated: no warning. An IPv6 end host: inner IPv6.
    rc, out, err = run(pair, "--vni", "200", "--ip", "2001:db8::5", "-c", "1", "192.0.2.1")
    assert rc == 0 and "150 bytes from 192.0.2.1" in out and "VNI known" in out and err == ""
    rc, out, err = run(pair, "--vni", "100", "--mac", MAC, "--smac", "02:00:00:00:00:01", "--dmac",
                       "02:00:00:00:00:02", "--src-ip", "10.0.0.1", "--dst-ip", "10.0.0.2", "--protocol", "6",
                       "--l4-src-port", "1000", "--l4-dst-port", "80", "-c", "1", "-q", "192.0.2.1")
    assert rc == 0 and err == "" and "seq=" not in out and "1 received" in out


def test_json_lines_parse(pair):
    rc, out, _ = run(pair, "--vni", "100", "--mac", MAC, "-c", "2", "-i", "0.2", "--json", "192.0.2.1")
    assert rc == 0
    objs = [json.loads(line) for line in out.splitlines()]
    assert [o["type"] for o in objs] == ["start", "reply", "reply", "summary"]
    assert objs[0]["bridge_domain"] == 5 and objs[0]["target"] == f"MAC {MAC}"
    r = objs[1]
    assert (r["seq"], r["return_code"], r["return_code_text"], r["mac_status_text"]) == (1, 4, "VNI known",
                                                                                       "MAC present")
    assert r["bytes"] == 130 and r["rtt_ms"] >= 0 and r["sent"].endswith(" UTC") and r["received"]
    s = objs[-1]
    assert (s["sent"], s["received"], s["loss_percent"], s["return_codes"]) == (2, 2, 0.0, {"4": 2})
    assert s["rtt_min_ms"] <= s["rtt_avg_ms"] <= s["rtt_max_ms"]


def forged_reply(handle, seq, rc=overlay.RC_VNI_KNOWN):
    p = bytearray(overlay.request(100, MAC, seq=seq, handle=handle, tunnel_src="192.0.2.2"))
    p[50], p[52] = overlay.ECHO_REPLY, rc  # echo header at 50 for inner IPv4
    return bytes(p)


def test_foreign_and_duplicate_replies_are_not_counted(pair):
    p = pair.start_ping(["--vni", "100", "--mac", MAC, "-c", "3", "-i", "0.5", "-W", "2", "-v", "192.0.2.1"])
    header = p.stdout.readline()
    handle = int(header.split("handle ")[1].split(",")[0])
    with pair.remote_ns.netns():
        s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    s.sendto(forged_reply(handle ^ 0xFFFF, 1), ("192.0.2.2", overlay.OAM_PORT))  # another sender's
    s.sendto(forged_reply(handle, 77), ("192.0.2.2", overlay.OAM_PORT))  # a sequence never sent
    out = read_until(p, "seq=1 time=")
    s.sendto(forged_reply(handle, 1, rc=overlay.RC_VNI_UNKNOWN), ("192.0.2.2", overlay.OAM_PORT))
    s.close()
    out += p.stdout.read()
    assert p.wait(timeout=10) == 0
    assert f"seq=1 handle {handle ^ 0xFFFF}: not a reply to this ping, ignored" in out
    assert f"seq=77 handle {handle}: not a reply to this ping, ignored" in out
    assert "seq=1: VNI unknown, MAC not checked (DUP! already answered, not counted)" in out
    assert "3 probes transmitted, 3 received, +1 duplicates, +2 foreign, 0% packet loss" in out
    assert "return codes: VNI known 3" in out


def read_until(p, text):
    lines = []
    while text not in "".join(lines):
        line = p.stdout.readline()
        assert line, "".join(lines)
        lines.append(line)
    return "".join(lines)


def test_late_replies_are_reported_not_counted(pair):
    # The remote responder is frozen: probe 1's wait ends, then it answers.
    os.killpg(pair.remote.tunechod.pid, signal.SIGSTOP)
    p = pair.start_ping(["--vni", "100", "--mac", MAC, "-c", "3", "-i", "1", "-W", "0.3", "192.0.2.1"])
    out = read_until(p, "no reply for seq=1 within 0.3 s")
    os.killpg(pair.remote.tunechod.pid, signal.SIGCONT)
    out += p.stdout.read()
    p.wait(timeout=10)
    assert "seq=1: VNI known, MAC present (late: after its wait, not counted)" in out
    lost = out.count("no reply for seq=")
    assert f"3 probes transmitted, {3 - lost} received, +{out.count('(late: ')} late" in out
    assert out.count("return codes: VNI known ") == 1 and f"VNI known {3 - lost}\n" in out


def test_interrupt_ends_with_the_summary(pair):
    p = pair.start_ping(["--vni", "100", "--mac", MAC, "-i", "0.2", "192.0.2.1"])
    read_until(p, "seq=2 time=")
    p.send_signal(signal.SIGINT)
    out = p.stdout.read()
    assert p.wait(timeout=10) == 0
    assert "overlay ping statistics, VNI 100 ---" in out and "0% packet loss" in out


def test_runs_side_by_side_each_get_their_replies(pair):
    argv = ["--vni", "100", "--mac", MAC, "-c", "5", "-i", "0.1", "-W", "2", "-q", "192.0.2.1"]
    runs = [pair.start_ping(argv) for _ in range(2)]
    for p in runs:
        out, _ = p.communicate(timeout=20)
        assert p.returncode == 0
        assert "5 probes transmitted, 5 received, " in out and "0% packet loss" in out


def test_responder_stopped_means_no_reply(pair):
    pair.remote.tunechod.send_signal(signal.SIGTERM)
    pair.remote.tunechod.wait(timeout=10)
    rc, out, _ = run(pair, "--vni", "100", "--mac", MAC, "-c", "2", "-i", "0.2", "-W", "0.5", "192.0.2.1")
    assert rc == 1
    assert "2 probes transmitted, 0 received" in out and "100% packet loss" in out
    assert "rtt min" not in out
    # The remote kernel refuses the port (its errors are rate-limited, but not
    # the first); each probe ends once, by error or timeout.
    assert "From 192.0.2.1 seq=1 Destination Port Unreachable (no responder)" in out
    assert out.count("Destination Port Unreachable") + out.count("no reply for seq=") == 2


def wire_probe(pair, *args):
    """Runs ping-overlay once and returns the probe as the remote's veth saw it."""
    with pair.remote_ns.netns():
        cap = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(0x0800))
    cap.bind(("veth0", 0))
    cap.settimeout(5)
    rc, out, err = run(pair, *args, "-c", "1", "-W", "0.2", "192.0.2.1")
    assert rc in (0, 1), err
    while True:
        frame = Ether(cap.recv(2048))
        if UDP in frame and frame[UDP].dport == overlay.OAM_PORT and frame[IP].src == "192.0.2.2":
            cap.close()
            return frame[IP]


def checksum_ok(pkt):
    again = pkt.copy()
    del again.chksum
    return again.__class__(bytes(again)).chksum == pkt.chksum


def echo_and_tlv(raw, inner_v4):
    e = 50 if inner_v4 else 70
    return raw[e:e + 28], raw[e + 28:]


@pytest.mark.parametrize("mode,args,length,inner_v4,tlv", [
    ("mac", ["--mac", MAC], 148, True,
     struct.pack("!HHI4sHH6sH", 1, 20, 100 << 8, bytes([192, 0, 2, 2]), 1, 8, bytes.fromhex("001122334455"), 0)),
    ("ipv4", ["--ip", "198.51.100.7"], 148, True,
     struct.pack("!HHI4sHH4s", 1, 20, 100 << 8, bytes([192, 0, 2, 2]), 2, 6, bytes([198, 51, 100, 7]))),
    ("ipv6", ["--ip", "2001:db8::5"], 168, False,
     struct.pack("!HHI4sHH16s", 1, 32, 100 << 8, bytes([192, 0, 2, 2]), 3, 18,
                 socket.inet_pton(socket.AF_INET6, "2001:db8::5"))),
    ("long", ["--ip-long", "2001:db8::6"], 168, False,
     struct.pack("!HHI4sHH16s", 1, 38, 100 << 8, bytes([192, 0, 2, 2]), 5, 18,
                 socket.inet_pton(socket.AF_INET6, "2001:db8::6"))),
])
def test_probe_bytes(pair, mode, args, length, inner_v4, tlv):
    ip = wire_probe(pair, "--vni", "100", *args)
    assert ip.len == length and ip.ttl == 255 and ip.proto == 17 and checksum_ok(ip)
    udp = ip[UDP]
    assert udp.dport == overlay.OAM_PORT and udp.sport & 0xC000 == 0xC000 and udp.len == length - 20
    assert udp.chksum == 0
    vx = ip[VXLAN]
    assert (int(vx.flags), vx.vni) == (0x09, 100)
    inner = vx[Ether]
    assert (inner.src, inner.dst, inner.type) == ("00:00:5e:90:00:ff", "00:00:5e:90:00:ff", 0x0800)
    if inner_v4:
        assert (inner[IP].src, inner[IP].dst, inner[IP].ttl) == ("192.0.2.2", "127.0.0.1", 255)
        assert checksum_ok(inner[IP])
    else:
        # Ethernet type 0x0800 in front of an IPv6 header: scapy reads it as IPv4.
        v6 = IPv6(bytes(inner.payload))
        assert (v6.src, v6.dst, v6.hlim, v6.nh, v6.plen) == ("::ffff:192.0.2.2", "::1", 255, 17, 78)
    raw = bytes(udp.payload)
    iudp = UDP(raw[42:50] if inner_v4 else raw[62:70])
    assert (iudp.sport, iudp.dport, iudp.len) == (4789, 4789, length - 50 - (20 if inner_v4 else 40))
    echo, rest = echo_and_tlv(raw, inner_v4)
    mtype, mode_, rc, sub, _, seq, sent_s, sent_ms, rs, rms = struct.unpack("!BBBBIIIIII", echo)
    assert (mtype, mode_, rc, sub, seq, rs, rms) == (1, 3, 0, 0, 1, 0, 0)
    assert sent_s > 1_700_000_000 and sent_ms < 1000
    assert rest[:len(tlv)] == tlv and rest[len(tlv):] == bytes(len(rest) - len(tlv))
    # The whole probe, byte for byte, against one scapy builds from the
    # layout; only what varies from run to run is taken from the wire: the
    # kernel's IP identification, the hash port, the handle and the sent time.
    handle = struct.unpack("!I", echo[4:8])[0]
    end_host = (IP(src="192.0.2.2", dst="127.0.0.1", ttl=255, id=0, flags=0) if inner_v4 else
                IPv6(src="::ffff:192.0.2.2", dst="::1", hlim=255, nh=17))
    payload = struct.pack("!BBBBIIIIII", 1, 3, 0, 0, handle, 1, sent_s, sent_ms, 0, 0) + tlv
    payload += bytes(length - (78 if inner_v4 else 98) - len(payload))
    golden = (IP(src="192.0.2.2", dst="192.0.2.1", ttl=255, id=ip.id, flags=0, tos=0) /
              UDP(sport=udp.sport, dport=4789, chksum=0) / VXLAN(flags=0x09, vni=100) /
              Ether(src="00:00:5e:90:00:ff", dst="00:00:5e:90:00:ff", type=0x0800) / end_host /
              UDP(sport=4789, dport=4789, chksum=0) / Raw(payload))
    assert bytes(ip) == bytes(golden)


def test_outer_source_port_follows_the_flow(pair):
    a = wire_probe(pair, "--vni", "100", "--mac", MAC)[UDP].sport
    b = wire_probe(pair, "--vni", "100", "--mac", MAC)[UDP].sport
    c = wire_probe(pair, "--vni", "100", "--mac", MAC, "--l4-src-port", "1234")[UDP].sport
    assert a == b and a != c and c & 0xC000 == 0xC000


def test_errors_are_one_line_and_status_2(ns, build_dir):
    po = str(build_dir / "tools/ping-overlay/ping-overlay")

    def call(*argv):
        r = ns.call(list(argv), check=False)
        return r.returncode, r.stdout, r.stderr

    rc, out, err = call(po, "--vni", "100", "192.0.2.1")
    assert (rc, out) == (2, "") and err == "ping-overlay: no route to 192.0.2.1: Network is unreachable\n"
    ns.call(["ip", "link", "add", "d0", "type", "veth", "peer", "name", "d1"])
    ns.call(["ip", "addr", "add", "192.0.2.2/24", "dev", "d0"])
    ns.call(["ip", "link", "set", "d0", "up"])
    rc, _, err = call(po, "--vni", "100", "192.0.2.1")
    assert rc == 2 and err == ("ping-overlay: the local responder tunechod is not running (nothing accepts on "
                               "/var/run/ping_overlay_tunechod_communication)\n")
    rc, _, err = call(po, "--vni", "100", "192.0.2.300")
    assert rc == 2 and err.splitlines()[0] == "ping-overlay: bad tunnel destination '192.0.2.300' (an IPv4 address)"
    rc, _, err = call(po, "--vni", "100", "--colour", "192.0.2.1")
    assert rc == 2 and err.splitlines()[0] == "ping-overlay: unknown option '--colour'"
    rc, _, err = call("setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", po, "--vni", "1", "192.0.2.1")
    assert rc == 2 and err.startswith("ping-overlay: raw sockets need root (or CAP_NET_RAW)") and err.count("\n") == 1
    rc, out, _ = call(po, "--help")
    assert rc == 0 and "Exit status" in out
