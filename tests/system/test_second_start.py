"""A second dhcpd started beside a running one leaves at once and leaves the
running daemon reachable: its CLI socket, pid file and bus ports untouched."""
import os

import sanitizer
from conftest import DHCPD, run


def start_second(daemon, *args):
    r = run(["nsenter", "-t", str(daemon.pid), "-m", "-n", str(DHCPD), *args], check=False,
            timeout=30)
    return sanitizer.checked(r, "second dhcpd", expected=1)


def test_second_start_exits_before_touching_the_running_daemon(daemon):
    vty = daemon.path("/var/run/dhcp.vty")
    before = os.stat(vty).st_ino
    for args in ((), ("-d",)):
        r = start_second(daemon, *args)
        lines = r.stdout.splitlines()
        assert len(lines) == 1, r.stdout
        assert lines[0].endswith(f"dhcpd: err: dhcpd is already running with pid {daemon.pid}, "
                                 "exiting")
        assert r.stderr == ""
    # The running daemon's socket is the same one, its pid file unchanged,
    # and it still answers on both its CLI and its bus endpoint.
    assert os.stat(vty).st_ino == before
    assert daemon.path("/var/run/dhcp.pid").read_text() == f"{daemon.pid}\n"
    assert daemon.sh("show debugging dhcp").stdout == "Dhcp debugging status:\n"
    assert "Failed to create uclient" not in daemon.log()
    assert daemon.proc.poll() is None


def test_a_stale_pid_file_does_not_stop_a_start(make_daemon):
    # A pid file left by a dead daemon holds no lock: the start goes through
    # and the file is taken over.
    d = make_daemon(prelude="echo 4242 > /var/run/dhcp.pid && ")
    assert d.path("/var/run/dhcp.pid").read_text() == f"{d.pid}\n"
    assert "already running" not in d.log()
