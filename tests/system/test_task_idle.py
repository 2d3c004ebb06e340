"""An idle program on the task kernel wakes at most every 4 seconds and ends
cleanly on SIGTERM."""

import signal
import subprocess
import time


def test_idle_wakes_every_four_seconds_and_ends_on_sigterm(ns, build_dir):
    p = ns.start([str(build_dir / "lib/task/task_idle")], stderr=subprocess.PIPE, text=True)
    assert p.stderr.readline().strip() == "ready"
    time.sleep(9)
    p.send_signal(signal.SIGTERM)
    out, err = p.communicate(timeout=10)
    assert p.returncode == 0, err
    wakes = [float(l.split()[1]) for l in err.splitlines() if l.startswith("wake ")]
    # Two timed wakes in 9 seconds, then the wake for SIGTERM.
    assert len(wakes) == 3, err
    gaps = [b - a for a, b in zip([0.0] + wakes, wakes)]
    assert all(3.9 <= g <= 4.3 for g in gaps[:2]), gaps
    assert "ZTASK_SIGNAL_TERMINATE: first termination signal received" in err
    assert "ZTASK_EXIT: Exit task_idle[" in err
