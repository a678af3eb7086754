"""The lease file through the daemon: leases granted to a real client are
written by the write timer and are there again after a restart.

The first timer run comes one default period (300 s) after start, whatever
write-time is configured meanwhile; later runs follow the new write-time
(30 s). The periods themselves are pinned in tests/unit/test_dhcps_leases.cpp
with the scheduler's timers fired by hand; here only the order of things is
checked. The real wait takes five minutes, so it runs in the normal build
only; the sanitizer build loads a lease file at start instead.
"""
import struct
import time

import pytest

from conftest import SANITIZED, Daemon, run, wait_until
from test_clients import UDHCPC_SCRIPT, event_with

RECORD = struct.Struct(">III4s6s20s2x")
CONFIG = ("configure terminal", "dhcp-server write-time 30", "dhcp-server pool lan",
          "default-router 192.168.10.1", "network 192.168.10.0/24",
          "begin-ip 192.168.10.100 end-ip 192.168.10.200", "lease 86400", "exit",
          "dhcp-server enable")


def records(path):
    data = path.read_bytes() if path.exists() else b""
    assert len(data) % 44 == 0, f"torn file of {len(data)} bytes"
    return [RECORD.unpack_from(data, i) for i in range(0, len(data), 44)]


def obtain(host, tmp_path, name):
    ev = tmp_path / f"{name}.events"
    script = tmp_path / f"{name}.sh"
    script.write_text(UDHCPC_SCRIPT.format(events=ev))
    script.chmod(0o755)
    run(["ip", "netns", "exec", host.name, "busybox", "udhcpc", "-i", "eth0", "-f", "-q", "-n",
         "-t", "10", "-T", "3", "-x", f"hostname:{name}", "-s", str(script)],
        check=False, timeout=60)
    assert event_with(ev, "bound"), name


@pytest.mark.skipif(SANITIZED, reason="waits 300 s for the first timer run; the sanitizer "
                    "build covers the timer in the unit tests and the loading below")
def test_leases_written_by_the_timer_survive_a_restart(switch, tmp_path):
    switch.vlan(10, "192.168.10.1/24")
    h1 = switch.port(1, 10, mac="02:00:00:00:0e:01")
    h2 = switch.port(2, 10, mac="02:00:00:00:0e:02")
    mnt = tmp_path / "flash"
    mnt.mkdir()
    lease_file = mnt / "dhcps.leases"

    first = Daemon(switch.ns, tmp_path, mnt_dir=mnt)
    try:
        first.wait_ready()
        assert first.sh(*CONFIG).returncode == 0
        wait_until(lambda: "interface: vlanif10" in first.sh("show dhcp-server").stdout,
                   what="pool attached")
        obtain(h1, tmp_path, "one")
        assert not lease_file.exists()  # nothing is written before the first timer run
        # The bound only limits the wait: the run comes 300 s after start.
        wait_until(lambda: len(records(lease_file)) == 1, 600, step=1, what="first timer write")
        state, expires, lease_time, nip, mac, host = records(lease_file)[0]
        assert (state, lease_time, nip, mac) == (1, 86400, bytes([192, 168, 10, 100]),
                                                 bytes.fromhex("020000000e01"))
        # The stored name takes one byte more than its length: the code of the
        # option that follows it in the request (udhcpc sends 60 next, "<").
        assert host.rstrip(b"\0") == b"one<"
        # A later run writes the second lease.
        obtain(h2, tmp_path, "two")
        wait_until(lambda: len(records(lease_file)) == 2, 600, step=0.5,
                   what="second timer write")
        # Newest first in the file, as in the table.
        assert [r[3][3] for r in records(lease_file)] == [101, 100]
    finally:
        first.stop()

    second = Daemon(switch.ns, tmp_path, mnt_dir=mnt)
    try:
        second.wait_ready()
        out = second.sh("show dhcp-server lease").stdout
        lines = out.splitlines()
        # Loading makes each record the newest in turn: the file's order reversed.
        assert lines[1].startswith("192.168.10.100    02-00-00-00-0e-01  one< ")
        assert lines[2].startswith("192.168.10.101    02-00-00-00-0e-02  two< ")
        assert lines[-1] == "Total: 2 leases match."
    finally:
        second.stop()


def test_a_lease_file_present_at_start_is_loaded(switch, tmp_path):
    """The restart half without the wait: the file as the timer writes it
    (newest first) is there before the daemon starts."""
    switch.vlan(10, "192.168.10.1/24")
    mnt = tmp_path / "flash"
    mnt.mkdir()
    now = int(time.time())
    (mnt / "dhcps.leases").write_bytes(
        RECORD.pack(1, now + 86000, 86400, bytes([192, 168, 10, 101]),
                    bytes.fromhex("020000000e02"), b"two<") +
        RECORD.pack(1, now + 80000, 86400, bytes([192, 168, 10, 100]),
                    bytes.fromhex("020000000e01"), b"one<"))
    d = Daemon(switch.ns, tmp_path, mnt_dir=mnt)
    try:
        d.wait_ready()
        lines = d.sh("show dhcp-server lease").stdout.splitlines()
        assert lines[1].startswith("192.168.10.100    02-00-00-00-0e-01  one< ")
        assert lines[2].startswith("192.168.10.101    02-00-00-00-0e-02  two< ")
        assert lines[-1] == "Total: 2 leases match."
    finally:
        d.stop()
