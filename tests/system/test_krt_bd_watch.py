"""The route-socket channel's example program follows the sample state of
rtsockd and every change made through its admin socket."""

import pathlib
import socket
import subprocess

SAMPLE = ["bd 5 vnid 100 rtb 7 vxlan", "bd 6 vnid 200 rtb 7 vxlan", "bd 9 vnid 0 rtb 7", "scan done 3"]


def admin(ns, command):
    with ns.netns():
        s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    s.connect(ns.path("/var/run/rtsock.admin"))
    s.sendall(command.encode() + b"\n")
    reply = b""
    while not reply.endswith(b"ok\n") and b"error:" not in reply:
        chunk = s.recv(4096)
        if not chunk:
            break
        reply += chunk
    s.close()
    return reply.decode()


def test_prints_the_sample_then_each_change(ns, build_dir):
    sample = pathlib.Path(__file__).resolve().parents[2] / "rtsockd" / "sample.state"
    peer = ns.start([str(build_dir / "rtsockd/rtsockd"), "-f", str(sample)], stderr=subprocess.PIPE, text=True)
    while "serving " not in peer.stderr.readline():
        pass
    watch = ns.start([str(build_dir / "lib/krt/krt_bd_watch")], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                     text=True)
    assert [watch.stdout.readline().strip() for _ in SAMPLE] == SAMPLE
    assert admin(ns, "add bd index=12 rtb_id=7 vnid=300 cfg_flags=0x800").endswith("ok\n")
    assert watch.stdout.readline().strip() == "add bd 12 vnid 300 rtb 7 vxlan"
    assert admin(ns, "change bd index=5 rtb_id=7 vnid=101 cfg_flags=0x800").endswith("ok\n")
    assert watch.stdout.readline().strip() == "change bd 5 vnid 101 rtb 7 vxlan"
    assert admin(ns, "delete bd index=12").endswith("ok\n")
    assert watch.stdout.readline().strip() == "delete bd 12"
    # Types it does not listen for do not reach it.
    assert admin(ns, "add ifd index=40 name=xe-9/9/9").endswith("ok\n")
    assert admin(ns, "delete bd index=9").endswith("ok\n")
    assert watch.stdout.readline().strip() == "delete bd 9"
    watch.terminate()
    assert watch.wait(timeout=10) == 0


def test_without_a_peer_it_says_so_and_exits_1(ns, build_dir):
    r = ns.call([str(build_dir / "lib/krt/krt_bd_watch")], check=False)
    assert r.returncode == 1
    assert r.stderr.startswith("krt_bd_watch: cannot reach the route-socket peer at /var/run/rtsock")


def test_help_and_usage(ns, build_dir):
    r = ns.call([str(build_dir / "lib/krt/krt_bd_watch"), "--help"])
    assert r.stdout.startswith("usage: krt_bd_watch")
    assert ns.call([str(build_dir / "lib/krt/krt_bd_watch"), "-x"], check=False).returncode == 2


IFSTATE_SAMPLE = [
    "rtt default.inet&AF=2 af 2 id 0",
    "rtt default.inet6&AF=28 af 28 id 0",
    "ifd 1 lo0 mtu 65535",
    "ifd 2 ge-0/0/0 mtu 1514",
    "ifl 70 lo0.0 instance 0",
    "ifl 71 ge-0/0/0.0 instance 0",
    "iff lo0.0 inet mtu 65535",
    "iff ge-0/0/0.0 inet mtu 1500",
    "ifa lo0.0 inet 10.255.0.1/32",
    "ifa lo0.0 inet 127.0.0.1/32",
    "ifa ge-0/0/0.0 inet 192.0.2.1/32",
    "scan done ifd 2 ifl 2 iff 2 ifa 3 rtt 2",
]


def test_ifstate_mirrors_the_sample_interfaces_and_instances_then_follows_them(ns, build_dir):
    sample = pathlib.Path(__file__).resolve().parents[2] / "rtsockd" / "sample.state"
    peer = ns.start([str(build_dir / "rtsockd/rtsockd"), "-f", str(sample)], stderr=subprocess.PIPE, text=True)
    while "serving " not in peer.stderr.readline():
        pass
    watch = ns.start([str(build_dir / "lib/krt/krt_bd_watch"), "--ifstate"], stdout=subprocess.PIPE,
                     stderr=subprocess.PIPE, text=True)
    assert [watch.stdout.readline().strip() for _ in IFSTATE_SAMPLE] == IFSTATE_SAMPLE

    def step(command, *lines):
        assert admin(ns, command).endswith("ok\n"), command
        assert [watch.stdout.readline().strip() for _ in lines] == list(lines)

    step("add ifa ifl_index=71 af=2 local=192.0.2.9/32", "add ifa ge-0/0/0.0 inet 192.0.2.9/32")
    step("change iff ifl_index=71 af=2 name=ge-0/0/0.0 mtu=9000", "change iff ge-0/0/0.0 inet mtu 9000")
    step("add rttable af=28 index=9 name=blue", "add rtt blue&AF=28 af 28 id 9")
    step("add ifl index=72 ifd_index=2 unit=5 name=ge-0/0/0 rtb_id=9", "add ifl 72 ge-0/0/0.5 instance 9")
    # A message that changes nothing is no line; an address before its family is ignored.
    step("change ifd index=1 name=lo0 snmp_index=16 mtu=65535")
    step("add ifa ifl_index=72 af=28 local=2001:db8::5/128")
    step("add iff ifl_index=72 af=28 name=ge-0/0/0.5 mtu=1500", "add iff ge-0/0/0.5 inet6 mtu 1500")
    # A device goes with everything below it, level by level.
    step("delete ifd index=2",
         "delete ifa ge-0/0/0.0 inet 192.0.2.1/32", "delete ifa ge-0/0/0.0 inet 192.0.2.9/32",
         "delete iff ge-0/0/0.0 inet mtu 9000", "delete iff ge-0/0/0.5 inet6 mtu 1500",
         "delete ifl 71 ge-0/0/0.0 instance 0", "delete ifl 72 ge-0/0/0.5 instance 9",
         "delete ifd 2 ge-0/0/0 mtu 1514")
    step("delete rttable af=28 index=9", "delete rtt blue&AF=28 af 28 id 9")
    watch.terminate()
    assert watch.wait(timeout=10) == 0
