"""The namespace harness itself, and the platform tool run inside it."""

import os
import socket
import subprocess

import tvxns


def test_private_run_dir_and_loopback(ns):
    links = ns.call(["ip", "-o", "link"]).stdout.strip().splitlines()
    assert len(links) == 1 and ": lo:" in links[0] and "UP" in links[0]

    ns.call(["sh", "-c", "echo 123 > /run/probe.pid && echo x > /var/tmp/probe && echo y > /var/log/probe"])
    assert open(ns.path("/var/run/probe.pid")).read() == "123\n"  # /var/run is /run
    assert not os.path.exists("/run/probe.pid")
    assert not os.path.exists("/var/tmp/probe")


def test_sockets_made_in_the_namespace_live_there(ns):
    with ns.netns():
        rx = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    # The same port is free outside: the namespaces do not meet.
    outside = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    try:
        rx.bind(("127.0.0.1", 4789))
        outside.bind(("127.0.0.1", 4789))
        from scapy.layers.l2 import Ether
        from scapy.layers.vxlan import VXLAN
        payload = bytes(VXLAN(vni=5001, flags=0x08) / Ether(dst="00:00:5e:00:53:01"))
        code = ("import socket,sys; s=socket.socket(socket.AF_INET,socket.SOCK_DGRAM); "
                "s.sendto(bytes.fromhex(sys.argv[1]),('127.0.0.1',4789))")
        ns.call(["/usr/bin/python3", "-c", code, payload.hex()])
        rx.settimeout(5)
        data, _ = rx.recvfrom(2048)
        assert VXLAN(data).vni == 5001
        outside.setblocking(False)
        try:
            outside.recv(10)
            assert False, "the datagram crossed into the host's namespace"
        except BlockingIOError:
            pass
    finally:
        rx.close()
        outside.close()


def test_everything_started_is_stopped():
    if not tvxns.available():
        import pytest
        pytest.skip("needs root")
    with tvxns.Namespace() as ns:
        p = ns.start(["sleep", "1000"])
        holder = ns.holder
        # A process that ignores SIGTERM is killed after the grace period.
        q = ns.start(["sh", "-c", "trap '' TERM; while :; do sleep 1; done"])
    assert p.poll() is not None and q.poll() is not None
    assert holder.poll() is not None


def test_platform_paths_and_sysctl_inside(ns, build_dir):
    tool = str(build_dir / "tools/tvxinfo/tvxinfo")
    r = ns.call([tool, "path", "/var/run/tunechod.pid", "/mfs/var/mmdb/x"], env={"TAVOX_ROOT": "/var/tmp/root/"})
    assert r.stdout.split() == ["/var/tmp/root/var/run/tunechod.pid", "/var/tmp/root/mfs/var/mmdb/x"]
    r = ns.call([tool, "path", "/var/run/tunechod.pid"], env={"TAVOX_ROOT": ""})
    assert r.stdout.strip() == "/var/run/tunechod.pid"

    r = ns.call([tool, "sysctl", "kern.smp.cpus"])
    assert r.stdout.strip() == f"kern.smp.cpus: {os.cpu_count()}"
    r = ns.call([tool, "sysctl", "kern.smp.cpus", "hw.product.system_mac_base"],
                env={"TVX_SYSCTL_KERN_SMP_CPUS": "3", "TVX_SYSCTL_HW_PRODUCT_SYSTEM_MAC_BASE": "02:00:00:00:00:09"})
    assert r.stdout.splitlines() == ["kern.smp.cpus: 3", "hw.product.system_mac_base: 02:00:00:00:00:09"]
    # Only loopback in here: no MAC address to report.
    r = ns.call([tool, "sysctl", "hw.product.system_mac_base"], check=False)
    assert r.returncode == 1 and "No such file or directory" in r.stderr
    r = ns.call([tool, "bogus"], check=False)
    assert r.returncode == 2 and "usage:" in r.stderr
