"""Two VTEPs joined by a veth pair, each running the responder's programs,
for the tests of ping-overlay and the lab of make run.

    with tvxns.Namespace() as a, tvxns.Namespace() as b:
        pair = VtepPair(a, b, build_dir, tmp_dir)   # a: 192.0.2.1, b: 192.0.2.2
        pair.ping(["--vni", "100", "-c", "1", "192.0.2.1"])     # from b

Each side runs rtsockd (rtsockd/sample.state, plus its veth address),
fdblearnd (fdblearnd/sample.state) and tunechod tracing packets to
/var/log/tunechod: the remote side answers, the local one tells ping-overlay
its bridge domain. The remote side also has 10.255.0.1 on its loopback.
"""

import os
import socket
import subprocess

import tvxns

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
CONF = "protocols { overlay { traceoptions { file tunechod size 10m; flag packets; } } }\n"
REMOTE, LOCAL, REMOTE_LO = "192.0.2.1", "192.0.2.2", "10.255.0.1"


def listening(path, kind=socket.SOCK_STREAM):
    """Whether a server accepts on path (its file appears at bind, before listen)."""
    s = socket.socket(socket.AF_UNIX, kind)
    try:
        s.connect(path)
        return True
    except OSError:
        return False
    finally:
        s.close()


def admin(ns, lines, sock="/var/run/rtsock.admin"):
    """Sends admin lines to the namespace's rtsockd (or the peer at sock); returns its answer."""
    s = socket.socket(socket.AF_UNIX)
    s.connect(ns.path(sock))
    s.sendall(lines.encode())
    s.shutdown(socket.SHUT_WR)
    out = b""
    while chunk := s.recv(65536):
        out += chunk
    s.close()
    if b"error" in out:
        raise RuntimeError(sock + " refused: " + out.decode().strip())
    return out.decode()


class Vtep:
    """The three programs in one namespace, its veth known to rtsockd."""

    def __init__(self, ns, build, conf, dev, addr, quiet=True):
        self.ns = ns
        err = subprocess.DEVNULL if quiet else None
        self.rtsockd = ns.start([f"{build}/rtsockd/rtsockd", "-f", f"{ROOT}/rtsockd/sample.state"], stderr=err)
        tvxns.wait_for(lambda: listening(ns.path("/var/run/rtsock"), socket.SOCK_SEQPACKET), what="rtsockd")
        ifindex = ns.call(["cat", f"/sys/class/net/{dev}/ifindex"]).stdout.strip()
        admin(ns, f"add ifl index={ifindex} ifd_index=2 unit=1 name={dev}\n"
                  f"add ifa ifl_index={ifindex} af=2 local={addr}/32 dest=192.0.2.0/24\n")
        self.fdblearnd = ns.start([f"{build}/fdblearnd/fdblearnd", "-f", f"{ROOT}/fdblearnd/sample.state"],
                                  stderr=err)
        tvxns.wait_for(lambda: listening(ns.path("/var/run/ping_ceip_fdblearnd_communication")), what="fdblearnd")
        self.tunechod = ns.start([f"{build}/tunechod/tunechod", "-N", "-f", conf],
                                 stdout=subprocess.DEVNULL, stderr=err)
        tvxns.wait_for(lambda: listening(ns.path("/var/run/ping_overlay_tunechod_communication")),
                       what="tunechod's local channel")

    def trace(self):
        try:
            with open(self.ns.path("/var/log/tunechod")) as f:
                return f.read()
        except FileNotFoundError:
            return ""


def join(remote_ns, local_ns):
    """veth0 (REMOTE, and REMOTE_LO on lo) in remote_ns, veth1 (LOCAL) in local_ns."""
    remote_ns.call(["ip", "link", "add", "veth0", "type", "veth", "peer", "name", "veth1",
                    "netns", str(local_ns.holder.pid)])
    remote_ns.call(["ip", "addr", "add", f"{REMOTE}/24", "dev", "veth0"])
    remote_ns.call(["ip", "addr", "add", f"{REMOTE_LO}/32", "dev", "lo"])
    remote_ns.call(["ip", "link", "set", "veth0", "up"])
    local_ns.call(["ip", "addr", "add", f"{LOCAL}/24", "dev", "veth1"])
    local_ns.call(["ip", "link", "set", "veth1", "up"])
    local_ns.call(["ip", "route", "add", f"{REMOTE_LO}/32", "via", REMOTE])


class VtepPair:
    def __init__(self, remote_ns, local_ns, build, tmp, start_remote=True, quiet=True):
        self.remote_ns, self.local_ns, self.build = remote_ns, local_ns, str(build)
        join(remote_ns, local_ns)
        self.conf = os.path.join(str(tmp), "tunechod.conf")
        with open(self.conf, "w") as f:
            f.write(CONF)
        self.local = Vtep(local_ns, self.build, self.conf, "veth1", LOCAL, quiet)
        self.remote = Vtep(remote_ns, self.build, self.conf, "veth0", REMOTE, quiet) if start_remote else None

    def ping_argv(self, args):
        return [f"{self.build}/tools/ping-overlay/ping-overlay"] + list(args)

    def ping(self, args, timeout=30):
        """Runs ping-overlay on the local VTEP to its end."""
        return self.local_ns.call(self.ping_argv(args), timeout=timeout, check=False)

    def start_ping(self, args):
        """Starts ping-overlay on the local VTEP, its output a line-buffered pipe."""
        return self.local_ns.start(self.ping_argv(args), stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
