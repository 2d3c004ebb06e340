"""make run's lab: one round of probes is answered as the sample state says."""

import os
import subprocess

import tvxns

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))


def test_one_round_of_the_lab(build_dir):
    if not tvxns.available():
        import pytest
        pytest.skip("the lab needs root and unshare")
    r = subprocess.run(["/usr/bin/python3", f"{ROOT}/scripts/lab.py", "--build", str(build_dir), "--rounds", "1"],
                       capture_output=True, text=True, timeout=60)
    assert r.returncode == 0, r.stderr
    out = r.stdout
    assert "<- reply   seq 1 from 192.0.2.1: VNI known, MAC present, 130 bytes" in out
    assert "<- reply   seq 2 from 192.0.2.1: VNI known, MAC absent, 130 bytes" in out
    assert "<- reply   seq 3 from 192.0.2.1: VNI known, MAC present, 150 bytes" in out
    assert "<- reply   seq 4 from 192.0.2.1: VNI unknown, MAC not checked, 130 bytes" in out
    assert "<- reply   seq 5 from 10.255.0.1: VNI known" in out
    assert "transit - source address set to 192.0.2.1" in out
    assert "lab: 5 probes sent; namespaces and processes are gone" in out
