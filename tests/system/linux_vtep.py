"""Two Linux VTEPs built with iproute2 in namespaces joined by a veth pair, the
stack running on each with its Linux backends, for the system test of the
Linux backend and the lab of make run-linux.

    remote  veth0 192.0.2.1/24, br0 (10.0.0.1/24 in the overlay) holding vx0
    local   veth1 192.0.2.2/24, br0 (10.0.0.2/24 in the overlay) holding vx0

vx0 is a kernel VXLAN device (VNI 100, port 4789) whose default destination
is the other VTEP; each VTEP runs `rtsockd --linux`, `fdblearnd --linux` and
tunechod, which takes requests from a packet socket since vx0 holds the port.

    with tvxns.Namespace() as a, tvxns.Namespace() as b:
        pair = LinuxPair(a, b, build_dir, tmp_dir)
        pair.ping(["--vni", "100", "--mac", MAC, "-c", "1", "192.0.2.1"])   # from b
"""

import json
import os
import socket
import subprocess

import tvxns
import vtep as vteps
from vtep import listening

REMOTE, LOCAL = "192.0.2.1", "192.0.2.2"
OVERLAY = {REMOTE: "10.0.0.1", LOCAL: "10.0.0.2"}
VNI = 100
CONF = "protocols { overlay { traceoptions { file tunechod size 10m; flag all; } } }\n"


def add_vxlan(ns, name, me, peer, dev, vni=VNI, bridge="br0"):
    """A kernel VXLAN device on port 4789 toward peer, enslaved to bridge and up."""
    ns.call(["ip", "link", "add", name, "type", "vxlan", "id", str(vni), "dstport", "4789",
             "local", me, "dev", dev])
    ns.call(["bridge", "fdb", "append", "00:00:00:00:00:00", "dev", name, "dst", peer])
    ns.call(["ip", "link", "set", name, "master", bridge])
    ns.call(["ip", "link", "set", name, "up"])


def build_vtep(ns, me, peer, dev):
    """The bridge with its overlay address, and vx0 in it."""
    ns.call(["ip", "link", "add", "br0", "type", "bridge"])
    ns.call(["ip", "addr", "add", f"{OVERLAY[me]}/24", "dev", "br0"])
    ns.call(["ip", "link", "set", "br0", "up"])
    add_vxlan(ns, "vx0", me, peer, dev)


def admin(ns, line):
    """One admin command to the namespace's rtsockd; its answer."""
    return vteps.admin(ns, line + "\n")


def show(ns, kind=""):
    """The mirror, as state-file lines."""
    return [l for l in admin(ns, f"show {kind}").splitlines() if l and l != "ok"]


def fields(line):
    """A state-file line as (kind, {field: value})."""
    kind, *rest = line.split()
    return kind, dict(f.split("=", 1) for f in rest)


def fdblearnd_answer(ns, question):
    """fdblearnd's answer to "RTB/VNI/ZERO/VTEP", without its NUL."""
    s = socket.socket(socket.AF_UNIX)
    try:
        s.connect(ns.path("/var/run/ping_ceip_fdblearnd_communication"))
        s.sendall(question.encode() + b"\0")
        answer = b""
        while not answer.endswith(b"\0"):
            chunk = s.recv(1024)
            if not chunk:
                break
            answer += chunk
        return answer.rstrip(b"\0").decode()
    finally:
        s.close()


def ip_json(ns, *argv):
    return json.loads(ns.call(list(argv)).stdout or "[]")


class LinuxVtep(vteps.Vtep):
    """The three programs with their Linux backends in one namespace."""

    def __init__(self, ns, build, conf, quiet=True):  # pylint: disable=super-init-not-called
        self.ns = ns
        err = subprocess.DEVNULL if quiet else None
        self.rtsockd = ns.start([f"{build}/rtsockd/rtsockd", "--linux"], stderr=err)
        tvxns.wait_for(lambda: listening(ns.path("/var/run/rtsock"), socket.SOCK_SEQPACKET), what="rtsockd")
        self.fdblearnd = ns.start([f"{build}/fdblearnd/fdblearnd", "--linux"], stderr=err)
        tvxns.wait_for(lambda: listening(ns.path("/var/run/ping_ceip_fdblearnd_communication")), what="fdblearnd")
        self.tunechod = ns.start([f"{build}/tunechod/tunechod", "-N", "-f", conf],
                                 stdout=subprocess.DEVNULL, stderr=err)
        tvxns.wait_for(lambda: listening(ns.path("/var/run/ping_overlay_tunechod_communication")),
                       what="tunechod's local channel")
        tvxns.wait_for(lambda: f"Adding [vni {VNI}," in self.trace(), what="the start-up scan")


def overlay_echo(pair, data, timeout=10):
    """A UDP datagram from the remote VTEP's br0 to the local one's and back,
    through the kernel's VXLAN devices; what came back (OSError when lost)."""
    with pair.local_ns.netns():
        server = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    with pair.remote_ns.netns():
        client = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    try:
        server.bind((OVERLAY[LOCAL], 5555))
        client.bind((OVERLAY[REMOTE], 0))
        server.settimeout(timeout)
        client.settimeout(timeout)
        client.sendto(data, (OVERLAY[LOCAL], 5555))
        got, peer = server.recvfrom(2048)
        server.sendto(got, peer)
        return client.recv(2048)
    finally:
        server.close()
        client.close()


class LinuxPair:
    def __init__(self, remote_ns, local_ns, build, tmp, quiet=True):
        self.remote_ns, self.local_ns, self.build = remote_ns, local_ns, str(build)
        remote_ns.call(["ip", "link", "add", "veth0", "type", "veth", "peer", "name", "veth1",
                        "netns", str(local_ns.holder.pid)])
        for ns, dev, me in ((remote_ns, "veth0", REMOTE), (local_ns, "veth1", LOCAL)):
            ns.call(["ip", "addr", "add", f"{me}/24", "dev", dev])
            ns.call(["ip", "link", "set", dev, "up"])
        build_vtep(remote_ns, REMOTE, LOCAL, "veth0")
        build_vtep(local_ns, LOCAL, REMOTE, "veth1")
        self.conf = os.path.join(str(tmp), "tunechod.conf")
        with open(self.conf, "w") as f:
            f.write(CONF)
        self.local = LinuxVtep(local_ns, self.build, self.conf, quiet)
        self.remote = LinuxVtep(remote_ns, self.build, self.conf, quiet)

    def ping(self, args, timeout=30):
        """ping-overlay on the local VTEP, to its end."""
        argv = [f"{self.build}/tools/ping-overlay/ping-overlay"] + list(args)
        return self.local_ns.call(argv, timeout=timeout, check=False)
