#!/usr/bin/python3
"""make run: the responder in a lab of two private network namespaces.

    vtep   192.0.2.1/24 on veth0, 10.255.0.1 on lo: rtsockd (rtsockd/sample.state),
           fdblearnd (fdblearnd/sample.state), tunechod tracing packets
    prober 192.0.2.2/24 on veth1: sends overlay pings and decodes the replies

Every second the prober sends a round of probes (a known VNI with a MAC the
bridge domain holds, the same VNI with an unknown MAC, a second VNI over inner
IPv6, an unknown VNI, one to the loopback address); the requests, the decoded
replies and the daemon's trace lines are printed. Ctrl-C ends it all and
leaves nothing behind. Needs root.

    scripts/lab.py [--build DIR] [--rounds N]
"""

import argparse
import os
import socket
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "tests", "system"))

import overlay  # noqa: E402
import tvxns  # noqa: E402

CONF = "protocols { overlay { traceoptions { file tunechod size 10m; flag packets; } } }\n"
ROUND = [  # vni, mac, destination, inner IPv4
    (100, "00:11:22:33:44:55", "192.0.2.1", True),
    (100, "00:11:22:33:44:99", "192.0.2.1", True),
    (200, "00:aa:bb:cc:dd:ee", "192.0.2.1", False),
    (999, "00:11:22:33:44:55", "192.0.2.1", True),
    (100, None, "10.255.0.1", True),
]
RC = {2: "VNI unknown", 4: "VNI known"}
MAC = {0: "MAC not checked", 1: "MAC present", 2: "MAC absent"}


def listening(path, kind=socket.SOCK_STREAM):
    s = socket.socket(socket.AF_UNIX, kind)
    try:
        s.connect(path)
        return True
    except OSError:
        return False
    finally:
        s.close()


def admin(path, lines):
    s = socket.socket(socket.AF_UNIX)
    s.connect(path)
    s.sendall(lines.encode())
    s.shutdown(socket.SHUT_WR)
    out = b""
    while chunk := s.recv(65536):
        out += chunk
    s.close()
    if b"error" in out:
        sys.exit("lab: rtsockd refused: " + out.decode().strip())


def main():
    ap = argparse.ArgumentParser(description="the overlay-ping lab of make run")
    ap.add_argument("--build", default=os.path.join(ROOT, "build"), help="build folder (default build/)")
    ap.add_argument("--rounds", type=int, default=0, help="stop after N rounds (default: until Ctrl-C)")
    args = ap.parse_args()
    if os.geteuid() != 0:
        sys.exit("lab: needs root (network namespaces and the raw send socket)")
    build = args.build
    for prog in ("rtsockd/rtsockd", "fdblearnd/fdblearnd", "tunechod/tunechod"):
        if not os.access(os.path.join(build, prog), os.X_OK):
            sys.exit(f"lab: {build}/{prog} is missing: run make build first")

    with tempfile.TemporaryDirectory() as tmp, tvxns.Namespace() as vtep, tvxns.Namespace() as prober:
        conf = os.path.join(tmp, "tunechod.conf")
        with open(conf, "w") as f:
            f.write(CONF)
        vtep.call(["ip", "link", "add", "veth0", "type", "veth", "peer", "name", "veth1",
                   "netns", str(prober.holder.pid)])
        vtep.call(["ip", "addr", "add", "192.0.2.1/24", "dev", "veth0"])
        vtep.call(["ip", "addr", "add", "10.255.0.1/32", "dev", "lo"])
        vtep.call(["ip", "link", "set", "veth0", "up"])
        prober.call(["ip", "addr", "add", "192.0.2.2/24", "dev", "veth1"])
        prober.call(["ip", "link", "set", "veth1", "up"])
        prober.call(["ip", "route", "add", "10.255.0.1/32", "via", "192.0.2.1"])

        vtep.start([f"{build}/rtsockd/rtsockd", "-f", f"{ROOT}/rtsockd/sample.state"])
        tvxns.wait_for(lambda: listening(vtep.path("/var/run/rtsock"), socket.SOCK_SEQPACKET), what="rtsockd")
        # The kernel's view of veth0, so that replies leave from its address.
        ifindex = vtep.call(["cat", "/sys/class/net/veth0/ifindex"]).stdout.strip()
        admin(vtep.path("/var/run/rtsock.admin"),
              f"add ifl index={ifindex} ifd_index=2 unit=1 name=veth0\n"
              f"add ifa ifl_index={ifindex} af=2 local=192.0.2.1/32 dest=192.0.2.0/24\n")
        vtep.start([f"{build}/fdblearnd/fdblearnd", "-f", f"{ROOT}/fdblearnd/sample.state"])
        tvxns.wait_for(lambda: listening(vtep.path("/var/run/ping_ceip_fdblearnd_communication")),
                       what="fdblearnd")
        daemon = vtep.start([f"{build}/tunechod/tunechod", "-N", "-f", conf])
        trace_path = vtep.path("/var/log/tunechod")
        tvxns.wait_for(lambda: os.path.exists(trace_path), what="tunechod's trace file")
        print("lab: vtep 192.0.2.1 (lo0 10.255.0.1) runs rtsockd, fdblearnd and tunechod; "
              "prober 192.0.2.2 pings it. Ctrl-C ends the lab.", flush=True)

        with prober.netns():
            sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        sock.bind(("192.0.2.2", overlay.OAM_PORT))
        sock.settimeout(1.0)
        trace = open(trace_path)
        seq, rounds = 0, 0
        try:
            while args.rounds == 0 or rounds < args.rounds:
                rounds += 1
                for vni, mac, dst, v4 in ROUND:
                    seq += 1
                    sock.sendto(overlay.request(vni, mac, inner_v4=v4, seq=seq), (dst, overlay.OAM_PORT))
                    print(f"-> request seq {seq} VNI {vni}{' MAC ' + mac if mac else ''} to {dst}"
                          f"{'' if v4 else ' (inner IPv6)'}", flush=True)
                    try:
                        data, src = sock.recvfrom(2048)
                        r = overlay.decode(data)
                        print(f"<- reply   seq {r['seq']} from {src[0]}: {RC.get(r['rc'], r['rc'])}, "
                              f"{MAC.get(r['mac_status'], r['mac_status'])}, {r['length']} bytes", flush=True)
                    except TimeoutError:
                        print("<- no reply within a second", flush=True)
                    for line in trace.read().splitlines():
                        print(f"   tunechod: {line}", flush=True)
                if daemon.poll() is not None:
                    sys.exit(f"lab: tunechod ended with status {daemon.returncode}")
                time.sleep(1)
        except KeyboardInterrupt:
            print("\nlab: stopping", flush=True)
    print(f"lab: {seq} probes sent; namespaces and processes are gone", flush=True)


if __name__ == "__main__":
    main()
