"""A client's filter narrows the notifications that the real rtsockd sends it:
two rtsock_watch clients, one with a filter, see the same changes made through
the admin socket; the filtered one sees only those that match."""

import pathlib
import socket
import subprocess

from test_krt_bd_watch import admin

ROOT = pathlib.Path(__file__).resolve().parents[2]


def start_peer(ns, build_dir):
    peer = ns.start([str(build_dir / "rtsockd/rtsockd"), "-f", str(ROOT / "rtsockd/sample.state")],
                    stderr=subprocess.PIPE, text=True)
    while "serving " not in peer.stderr.readline():
        pass
    return peer


def watch(ns, build_dir, *args):
    w = ns.start([str(build_dir / "lib/rtsock/rtsock_watch"), *args], stdout=subprocess.PIPE,
                 stderr=subprocess.PIPE, text=True)
    assert w.stderr.readline().strip() == "rtsock_watch: listening"
    return w


def vnid(line):
    return line.split()[0], int(line.rsplit("vnid:", 1)[1])


def test_a_filtered_client_gets_only_matching_notifications(ns, build_dir):
    start_peer(ns, build_dir)
    filtered = watch(ns, build_dir, "-t", "bd,ifa", "-f",
                     "bd->vnid >= 200 and bd->operation != 3 or ifa->ifam_local == 198.51.100.0/24", "-n", "3")
    everything = watch(ns, build_dir, "-t", "bd,ifa", "-n", "6")
    for cmd in ["add bd index=12 rtb_id=7 vnid=300 cfg_flags=0x800", "add bd index=13 rtb_id=7 vnid=150",
                "add ifa ifl_index=71 af=2 local=203.0.113.9/32", "add ifa ifl_index=71 af=2 local=198.51.100.1/32",
                "delete bd index=12", "change bd index=5 rtb_id=7 vnid=250"]:
        assert admin(ns, cmd).endswith("ok\n"), cmd
    out, _ = filtered.communicate(timeout=10)
    assert filtered.returncode == 0
    lines = out.splitlines()
    assert [vnid(l) for l in (lines[0], lines[2])] == [("add", 300), ("change", 250)]
    assert lines[1].startswith("add ") and "198.51.100.1" in lines[1]
    out, _ = everything.communicate(timeout=10)
    assert [l.split()[0] for l in out.splitlines()] == ["add", "add", "add", "add", "delete", "change"]


def test_filter_errors_and_usage(ns, build_dir):
    prog = str(build_dir / "lib/rtsock/rtsock_watch")
    r = ns.call([prog, "-f", "bd->vnid =< 3"], check=False)
    assert r.returncode == 2
    assert r.stderr.startswith("rtsock_watch: filter, column 10: Unknown op =<")
    r = ns.call([prog], check=False)
    assert r.returncode == 1
    assert r.stderr.startswith("rtsock_watch: cannot reach the route-socket peer at /var/run/rtsock")
    assert ns.call([prog, "--help"]).stdout.startswith("usage: rtsock_watch")
    r = ns.call([prog, "-t", "bd,nosuch"], check=False)
    assert r.returncode == 2 and r.stderr.startswith("rtsock_watch: unknown type 'nosuch'")
