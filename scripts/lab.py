#!/usr/bin/python3
"""make run: the overlay ping between two VTEPs in private network namespaces.

    remote  192.0.2.1/24 on veth0, 10.255.0.1 on lo: answers the probes
    local   192.0.2.2/24 on veth1: sends them with ping-overlay

Both VTEPs run rtsockd (rtsockd/sample.state), fdblearnd
(fdblearnd/sample.state) and tunechod: the remote one answers, the local one
tells ping-overlay which bridge domain serves the VNI. Every second the local
VTEP runs a round of ping-overlay (a known VNI with a MAC the bridge domain
holds, the same VNI with an unknown MAC, a second VNI over inner IPv6, an
unknown VNI, the VNI alone to the loopback address); its output and the remote
daemon's trace lines are printed. Ctrl-C ends it all and leaves nothing
behind. Needs root.

    scripts/lab.py [--build DIR] [--rounds N]
"""

import argparse
import os
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "tests", "system"))

import tvxns  # noqa: E402
import vtep  # noqa: E402

ROUND = [  # vni, end-host MAC, destination, inner IPv4
    (100, "00:11:22:33:44:55", vtep.REMOTE, True),
    (100, "00:11:22:33:44:99", vtep.REMOTE, True),
    (200, "00:aa:bb:cc:dd:ee", vtep.REMOTE, False),
    (999, "00:11:22:33:44:55", vtep.REMOTE, True),
    (100, None, vtep.REMOTE_LO, True),
]
# What a round shows of ping-overlay's output: the first line, the reply (or
# its absence) and the count; the rest of the summary repeats the reply.
HIDDEN = ("---", "rtt ", "return codes")


def main():
    ap = argparse.ArgumentParser(description="the overlay-ping lab of make run")
    ap.add_argument("--build", default=os.path.join(ROOT, "build"), help="build folder (default build/)")
    ap.add_argument("--rounds", type=int, default=0, help="stop after N rounds (default: until Ctrl-C)")
    args = ap.parse_args()
    if os.geteuid() != 0:
        sys.exit("lab: needs root (network namespaces and the raw send socket)")
    build = os.path.abspath(args.build)  # the namespaces resolve paths from their own working directory
    for prog in ("rtsockd/rtsockd", "fdblearnd/fdblearnd", "tunechod/tunechod", "tools/ping-overlay/ping-overlay"):
        if not os.access(os.path.join(build, prog), os.X_OK):
            sys.exit(f"lab: {build}/{prog} is missing: run make build first")

    with tempfile.TemporaryDirectory() as tmp, tvxns.Namespace() as remote, tvxns.Namespace() as local:
        pair = vtep.VtepPair(remote, local, build, tmp, quiet=False)
        trace_path = remote.path("/var/log/tunechod")
        tvxns.wait_for(lambda: os.path.exists(trace_path), what="tunechod's trace file")
        print(f"lab: remote VTEP {vtep.REMOTE} (lo0 {vtep.REMOTE_LO}) and local VTEP {vtep.LOCAL} each run "
              "rtsockd, fdblearnd and tunechod; the local one pings the remote one. Ctrl-C ends the lab.",
              flush=True)
        trace = open(trace_path)
        warned = set()
        probes, rounds = 0, 0
        try:
            while args.rounds == 0 or rounds < args.rounds:
                rounds += 1
                for vni, mac, dst, v4 in ROUND:
                    argv = ["--vni", str(vni)] + (["--mac", mac] if mac else []) + ([] if v4 else ["-6"])
                    argv += ["-c", "1", "-W", "1", dst]
                    print("\n$ ping-overlay " + " ".join(argv), flush=True)
                    r = pair.ping(argv)
                    probes += 1
                    for line in r.stdout.splitlines():
                        if line and not line.startswith(HIDDEN):
                            print("  " + line, flush=True)
                    # Warnings (missing hash parameters, no local bridge
                    # domain) repeat from round to round: each line once.
                    for line in r.stderr.splitlines():
                        if line.strip() and line not in warned:
                            warned.add(line)
                            print("  " + line, flush=True)
                    for line in trace.read().splitlines():
                        print(f"   remote tunechod: {line}", flush=True)
                if pair.remote.tunechod.poll() is not None:
                    sys.exit(f"lab: the remote tunechod ended with status {pair.remote.tunechod.returncode}")
                time.sleep(1)
        except KeyboardInterrupt:
            print("\nlab: stopping", flush=True)
    print(f"lab: {probes} probes sent; namespaces and processes are gone", flush=True)


if __name__ == "__main__":
    main()
