"""The example daemon's management socket driven with socat, as a person would:
the socket's mode, a daemon command, the framework's commands, help, an
unknown command, quit, a reload; the debug shell's socket; both sockets gone
after SIGTERM."""

import os
import shutil
import signal
import stat

import pytest

from test_task_example import start
from tvxns import wait_for

SOCK = "/var/run/task_example_mgmt"


def talk(ns, text):
    """Sends the lines with socat and returns what came back."""
    r = ns.call(["sh", "-c", f"printf '{text}' | socat -t 2 - UNIX-CONNECT:{SOCK}"])
    return r.stdout


@pytest.mark.skipif(shutil.which("socat") is None, reason="socat is not installed (scripts/setup)")
def test_management_socket_with_socat(ns, build_dir):
    with open(ns.path("/var/tmp/example.conf"), "w") as f:
        f.write('greeting "hi";\n')
    p, out = start(ns, build_dir)
    out.until("EXAMPLE_READY: greeting hi, configuration 1")
    mode = os.stat(ns.path(SOCK)).st_mode
    assert stat.S_ISSOCK(mode) and stat.S_IMODE(mode) == 0o600

    got = talk(ns, "show greeting\\nhelp show\\nshow version\\nshow nothing\\nquit\\nshow greeting\\n")
    lines = got.split("\n")  # text mode has turned each "\r\n" into "\n"
    assert lines[0] == "100 greeting hi, configuration 1"
    assert lines[1:9] == ["200-version", "200-memory", "200-task", "200-timer", "200-jobs", "200-accounting",
                          "200-trace", "200 greeting"], got
    assert lines[9].startswith("100 ") and " release " in lines[9], got
    assert lines[10] == "500 Unrecognized command", got
    assert lines[11] == "101 Current output aborted", got
    assert lines[12:] == [""], got  # nothing after quit

    task = talk(ns, "show task\\n")
    assert "MGMT_Listen" in task and task.endswith("\n"), task

    # A reload keeps the socket; the new greeting shows.
    with open(ns.path("/var/tmp/example.conf"), "w") as f:
        f.write('greeting "again";\n')
    p.send_signal(signal.SIGHUP)
    out.until("EXAMPLE_READY: greeting again, configuration 2")
    assert talk(ns, "show greeting\\n") == "100 greeting again, configuration 2\n"

    # The debug shell, a second after the start, on its own private socket.
    dbgsh = "/var/run/task_example_dbgsh"
    wait_for(lambda: os.path.exists(ns.path(dbgsh)), what="debug shell socket")
    assert stat.S_IMODE(os.stat(ns.path(dbgsh)).st_mode) == 0o600
    r = ns.call(["sh", "-c", f"printf 'help\\nset no_such 1\\nquit\\n' | socat -t 2 - UNIX-CONNECT:{dbgsh}"])
    assert r.stdout.startswith("task_example-DbgSh # task_example debug shell -- supports the following commands:"), r.stdout
    assert "Variable no_such not found\n" in r.stdout, r.stdout

    p.send_signal(signal.SIGTERM)
    p.wait(timeout=10)
    wait_for(lambda: not os.path.exists(ns.path(SOCK)), what="socket removed")
    assert not os.path.exists(ns.path(dbgsh))
