#!/usr/bin/python3
"""make run-linux: the overlay ping between two Linux VTEPs built with
iproute2 in private network namespaces (docs/linux.md walks through the same
steps by hand).

    remote  veth0 192.0.2.1/24; br0 10.0.0.1/24 holding vx0 (VXLAN, VNI 100, port 4789)
    local   veth1 192.0.2.2/24; br0 10.0.0.2/24 holding vx0

Each VTEP runs rtsockd --linux, fdblearnd --linux and tunechod. The remote
bridge's forwarding table holds 00:11:22:33:44:55. Every second the local VTEP
probes the remote one for that MAC and for one it lacks, and sends a datagram
across the overlay through the kernel's VXLAN devices; every fifth round the
remote MAC is deleted from or added back to the bridge, so the answer
changes without a restart. Ctrl-C ends it all and leaves nothing behind.
Needs root.

    scripts/lab-linux.py [--build DIR] [--rounds N]
"""

import argparse
import os
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "tests", "system"))

import linux_vtep as lv  # noqa: E402
import tvxns  # noqa: E402

MAC, OTHER = "00:11:22:33:44:55", "00:11:22:33:44:99"


def overlay_datagram(pair):
    """One round trip across the overlay, through the kernel's VXLAN devices."""
    try:
        return lv.overlay_echo(pair, b"over the kernel's vx0", timeout=2).decode()
    except OSError as e:
        return f"lost ({e})"


def main():
    ap = argparse.ArgumentParser(description="the overlay-ping lab on Linux VTEPs (make run-linux)")
    ap.add_argument("--build", default=os.path.join(ROOT, "build"), help="build folder (default build/)")
    ap.add_argument("--rounds", type=int, default=0, help="stop after N rounds (default: until Ctrl-C)")
    args = ap.parse_args()
    args.build = os.path.abspath(args.build)  # the namespaces resolve paths from their own working directory
    if os.geteuid() != 0:
        sys.exit("lab-linux: needs root (network namespaces, VXLAN devices and raw sockets)")
    for prog in ("rtsockd/rtsockd", "fdblearnd/fdblearnd", "tunechod/tunechod", "tools/ping-overlay/ping-overlay"):
        if not os.access(os.path.join(args.build, prog), os.X_OK):
            sys.exit(f"lab-linux: {args.build}/{prog} is missing: run make build first")

    with tempfile.TemporaryDirectory() as tmp, tvxns.Namespace() as remote, tvxns.Namespace() as local:
        pair = lv.LinuxPair(remote, local, args.build, tmp, quiet=False)
        remote.call(["bridge", "fdb", "add", MAC, "dev", "vx0", "master", "static"])
        print("lab-linux: two Linux VTEPs (192.0.2.1 remote, 192.0.2.2 local), each a bridge br0 holding the "
              "VXLAN device vx0 (VNI 100, port 4789), each running rtsockd --linux, fdblearnd --linux and "
              "tunechod. Ctrl-C ends the lab.", flush=True)
        present, rounds = True, 0
        try:
            while args.rounds == 0 or rounds < args.rounds:
                rounds += 1
                if rounds % 5 == 0:
                    verb = "del" if present else "add"
                    argv = ["bridge", "fdb", verb, MAC, "dev", "vx0", "master"] + (["static"] if verb == "add" else [])
                    print("\nremote# " + " ".join(argv), flush=True)
                    remote.call(argv)
                    present = not present
                for mac in (MAC, OTHER):
                    argv = ["--vni", str(lv.VNI), "--mac", mac, "-c", "1", "-W", "1", lv.REMOTE]
                    print("\nlocal# ping-overlay " + " ".join(argv), flush=True)
                    r = pair.ping(argv)
                    for line in r.stdout.splitlines():
                        if line and not line.startswith(("---", "rtt ", "return codes")):
                            print("  " + line, flush=True)
                print(f"\nremote 10.0.0.1 -> local 10.0.0.2 and back over VXLAN: {overlay_datagram(pair)}", flush=True)
                for v in (pair.remote, pair.local):
                    for p in (v.rtsockd, v.fdblearnd, v.tunechod):
                        if p.poll() is not None:
                            sys.exit(f"lab-linux: {p.args[-1]} ended with status {p.returncode}")
                time.sleep(1)
        except KeyboardInterrupt:
            print("\nlab-linux: stopping", flush=True)
    print("lab-linux: namespaces and processes are gone", flush=True)


if __name__ == "__main__":
    main()
