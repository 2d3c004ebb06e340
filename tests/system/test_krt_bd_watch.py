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
