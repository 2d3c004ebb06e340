"""tvxstat reports the counters that rtsockd serves, in text and JSON, since
the last clear and since the interface came up, and follows the changes made
through rtsockd's admin socket."""

import json
import pathlib
import subprocess

from vtep import admin

SAMPLE = pathlib.Path(__file__).resolve().parents[2] / "rtsockd" / "sample.state"


def start_peer(ns, build_dir, state=SAMPLE):
    peer = ns.start([str(build_dir / "rtsockd/rtsockd"), "-f", str(state)], stderr=subprocess.PIPE, text=True)
    while "serving " not in peer.stderr.readline():
        pass
    return peer


def tvxstat(ns, build_dir, *args, check=True):
    return ns.call([str(build_dir / "tools/tvxstat/tvxstat"), *args], check=check)


def test_text_report_of_the_sample_port(ns, build_dir):
    start_peer(ns, build_dir)
    out = tvxstat(ns, build_dir, "ge-0/0/0").stdout
    lines = [line.strip() for line in out.splitlines()]
    assert lines[0] == "Physical interface: ge-0/0/0, index 2, enabled, link up"
    assert lines[1].startswith("Link: Ethernet, 1Gbps, full-duplex, auto-negotiation complete")
    assert "Statistics last cleared: 2026-09-21 14:13:20 UTC" in lines
    # Since the last clear: 1,500,000 - 500,000 bytes in, 16,000 - 3,000 packets out.
    assert lines[lines.index("Traffic statistics (since last clear):") + 1].split() == \
        ["Input", "bytes", ":", "1000000", "8000", "bps"]
    assert "Output packets:                13000               12 pps" in out
    assert "Errors: 3, Drops: 2, Framing errors: 1" in out
    assert "Carrier transitions: 2, Errors: 1" in out
    queues = out[out.index("Egress queues"):].splitlines()
    assert queues[2].split() == ["0", "0", "12500", "2300000", "4", "0"]
    assert queues[5].split() == ["3", "0", "1000", "100000", "0", "0"]
    voqs = out[out.index("Virtual output queues (since last clear): 2"):].splitlines()
    assert voqs[2].split() == ["0", "0", "500", "0", "0", "6"]
    assert voqs[3].split() == ["1", "0", "200", "0", "0", "0"]
    assert "CRC errors" in out and "MAC statistics (since the link came up)" in out


def test_json_since_up_and_after_changes(ns, build_dir):
    start_peer(ns, build_dir)
    up = json.loads(tvxstat(ns, build_dir, "--json", "--since-up", "ge-0/0/0").stdout)
    assert up["name"] == "ge-0/0/0" and up["kind"] == "physical" and up["since"] == "up"
    assert up["traffic"]["in_bytes"] == 1500000
    assert up["queues"][0]["tx_packets"] == 15000
    assert [q["tx_packets"] for q in up["voqs"]] == [800, 200]
    assert up["ethernet"]["speed"] == 1000000000 and up["ethernet"]["mac"] == "02:00:00:00:00:02"
    assert up["ethernet"]["mac_statistics"]["in_crc_errors"] == 1

    assert admin(ns, "stats bump ifdstats index=2 ibytes=250 ierrors=4\n") == "ok\n"
    now = json.loads(tvxstat(ns, build_dir, "--json", "ge-0/0/0").stdout)
    assert now["traffic"]["in_bytes"] == 1000250
    assert now["errors"]["in_errors"] == 7
    # A clear: everything since it is zero, since-up unchanged.
    assert admin(ns, "stats clear ifdstats index=2\n") == "ok\n"
    cleared = json.loads(tvxstat(ns, build_dir, "--json", "ge-0/0/0").stdout)
    assert cleared["traffic"]["in_bytes"] == 0 and cleared["queues"][0]["tx_packets"] == 0
    assert cleared["last_cleared"] is not None
    assert json.loads(tvxstat(ns, build_dir, "--json", "--since-up", "ge-0/0/0").stdout)["traffic"]["in_bytes"] \
        == 1500250


def test_logical_interface_by_name_and_index(ns, build_dir):
    start_peer(ns, build_dir)
    by_name = json.loads(tvxstat(ns, build_dir, "--json", "ge-0/0/0.0").stdout)
    by_index = json.loads(tvxstat(ns, build_dir, "--json", "--index", "71", "--logical").stdout)
    assert by_name == by_index
    assert by_name["kind"] == "logical" and by_name["name"] == "ge-0/0/0.0"
    assert by_name["local"]["in_bytes"] == 900000
    assert by_name["transit"]["out_bytes"] == 1300000
    text = tvxstat(ns, build_dir, "ge-0/0/0.0").stdout
    assert "Transit statistics (since last clear):" in text
    # A stored interface with no counters: its name and zeros.
    lo = json.loads(tvxstat(ns, build_dir, "--json", "lo0.0").stdout)
    assert lo["local"]["in_bytes"] == 0 and lo["transit"]["in_bytes"] == 0


def test_errors_and_exit_statuses(ns, build_dir):
    r = tvxstat(ns, build_dir, "ge-0/0/0", check=False)
    assert r.returncode == 1
    assert r.stderr.startswith("tvxstat: cannot reach the route-socket peer at /var/run/rtsock")
    start_peer(ns, build_dir)
    r = tvxstat(ns, build_dir, "xe-9/9/9", check=False)
    assert (r.returncode, r.stderr) == (1, "tvxstat: no interface xe-9/9/9\n")
    r = tvxstat(ns, build_dir, "--index", "71", check=False)
    assert r.returncode == 1 and "add --logical" in r.stderr
    for bad in ([], ["a", "b"], ["--logical", "ge-0/0/0"], ["--index", "x"], ["--index", "2", "ge-0/0/0"], ["-x"]):
        r = tvxstat(ns, build_dir, *bad, check=False)
        assert r.returncode == 2, bad
        assert r.stdout == "", bad
    r = tvxstat(ns, build_dir, "--help")
    assert r.stdout.startswith("usage: tvxstat") and "Exit status" in r.stdout


CNTD_SAMPLE = pathlib.Path(__file__).resolve().parents[2] / "cntd" / "sample.state"


def start_cntd(ns, build_dir):
    cntd = ns.start([str(build_dir / "cntd/cntd"), "-f", str(CNTD_SAMPLE)], stderr=subprocess.PIPE, text=True)
    while "serving " not in (line := cntd.stderr.readline()):
        assert line, "cntd ended before serving"
    return cntd


def cntd_admin(ns, lines):
    return admin(ns, lines, sock="/var/run/libstats-cntd.admin")


def test_counters_of_rtsockd_and_cntd_together(ns, build_dir):
    start_peer(ns, build_dir)
    r = tvxstat(ns, build_dir, "--json", "--cntd", "ge-0/0/0.0", check=False)
    assert r.returncode == 0  # cntd not running: the kernel's figures, and why
    assert r.stderr == "tvxstat: cntd at /var/run/libstats-cntd: socket-connect-failure: the kernel's figures alone\n"
    assert json.loads(r.stdout)["local"]["in_bytes"] == 900000

    cntd = start_cntd(ns, build_dir)
    both = json.loads(tvxstat(ns, build_dir, "--json", "--cntd", "ge-0/0/0.0").stdout)
    # rtsockd's 900,000 bytes in and cntd's 4,000,000 less its 1,000,000 at the last clear.
    assert both["local"]["in_bytes"] == 900000 + 3000000
    assert both["local"]["out_bytes"] == 1100000 + 5000000
    assert both["transit"]["in_bytes"] == 600000 + 700000
    assert [q["tx_packets"] for q in both["queues"]] == [30000, 6000]
    up = json.loads(tvxstat(ns, build_dir, "--json", "--since-up", "--cntd", "ge-0/0/0.0").stdout)
    assert up["local"]["in_bytes"] == 900000 + 4000000
    text = tvxstat(ns, build_dir, "--cntd", "--index", "71", "--logical").stdout
    assert "Logical interface: ge-0/0/0.0" in text

    # Counters changed in cntd show at once; an empty reply leaves the kernel's.
    assert cntd_admin(ns, "stats bump iflstats index=71 ibytes=5\n") == "ok\n"
    assert json.loads(tvxstat(ns, build_dir, "--json", "--cntd", "ge-0/0/0.0").stdout)["local"]["in_bytes"] \
        == 900000 + 3000005
    assert cntd_admin(ns, "fault empty\n") == "ok\n"
    r = tvxstat(ns, build_dir, "--json", "--cntd", "ge-0/0/0.0")
    assert r.stderr == "tvxstat: cntd has no figures for ge-0/0/0.0: the kernel's alone\n"
    assert json.loads(r.stdout)["local"]["in_bytes"] == 900000

    # cntd killed: the kernel's figures, and the status says so.
    cntd.kill()
    cntd.wait()
    r = tvxstat(ns, build_dir, "--json", "--cntd", "ge-0/0/0.0")
    assert "socket-connect-failure" in r.stderr
    r = tvxstat(ns, build_dir, "--cntd", "ge-0/0/0", check=False)
    assert (r.returncode, r.stderr) == (2, "tvxstat: --cntd takes a logical interface (ge-0/0/0 is a device)\n")
