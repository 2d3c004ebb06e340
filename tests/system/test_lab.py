"""make run's lab: one round of ping-overlay is answered as the sample state says."""

import os
import subprocess

import tvxns

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))


def test_one_round_of_the_lab(build_dir):
    if not tvxns.available():
        import pytest
        pytest.skip("the lab needs root and unshare")
    # As make run starts it: from the top folder, the build folder given relative to it.
    r = subprocess.run(["/usr/bin/python3", "scripts/lab.py", "--build", os.path.relpath(build_dir, ROOT), "--rounds", "1"],
                       capture_output=True, text=True, timeout=60, cwd=ROOT)
    assert r.returncode == 0, r.stderr
    out = r.stdout
    probes = out.split("\n$ ping-overlay ")[1:]
    assert len(probes) == 5, out
    expect = [
        ("--vni 100 --mac 00:11:22:33:44:55", "130 bytes from 192.0.2.1: seq=1", "VNI known, MAC present"),
        ("--vni 100 --mac 00:11:22:33:44:99", "130 bytes from 192.0.2.1: seq=1", "VNI known, MAC absent"),
        ("--vni 200 --mac 00:aa:bb:cc:dd:ee -6", "150 bytes from 192.0.2.1: seq=1", "VNI known, MAC present"),
        ("--vni 999 --mac 00:11:22:33:44:55", "130 bytes from 192.0.2.1: seq=1", "VNI unknown, MAC not checked"),
        ("--vni 100 -c 1", "130 bytes from 10.255.0.1: seq=1", "VNI known, MAC not checked"),
    ]
    for text, (args, reply, words) in zip(probes, expect):
        assert text.startswith(args) and reply in text and words in text, text
        assert "1 probes transmitted, 1 received, 0% packet loss" in text
    assert out.count("WARNING: following hash-parameters are missing") == 1
    assert "VNI 999 has no bridge domain toward 192.0.2.1 on this VTEP" in out
    assert "remote tunechod: " in out and "transit - source address set to 192.0.2.1" in out
    assert "final dest - source address set to 10.255.0.1" in out
    assert "lab: 5 probes sent; namespaces and processes are gone" in out
