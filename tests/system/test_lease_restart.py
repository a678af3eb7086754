"""The lease file through the daemon: leases granted to a real client are
written by the write timer and are there again after a restart. The first
timer run comes one default period (300 s) after start, whatever write-time
is configured meanwhile; later runs follow the new write-time (30 s). This
test therefore takes about five and a half minutes."""
import struct
import time

from conftest import Daemon, run, wait_until
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
         "-t", "5", "-T", "1", "-x", f"hostname:{name}", "-s", str(script)],
        check=False, timeout=30)
    assert event_with(ev, "bound"), name


def test_leases_written_by_the_timer_survive_a_restart(switch, tmp_path):
    switch.vlan(10, "192.168.10.1/24")
    h1 = switch.port(1, 10, mac="02:00:00:00:0e:01")
    h2 = switch.port(2, 10, mac="02:00:00:00:0e:02")
    mnt = tmp_path / "flash"
    mnt.mkdir()
    lease_file = mnt / "dhcps.leases"

    first = Daemon(switch.ns, tmp_path, mnt_dir=mnt)
    started = time.monotonic()
    try:
        first.wait_ready()
        assert first.sh(*CONFIG).returncode == 0
        wait_until(lambda: "interface: vlanif10" in first.sh("show dhcp-server").stdout,
                   what="pool attached")
        obtain(h1, tmp_path, "one")
        assert not lease_file.exists()  # nothing is written before the first timer run
        wait_until(lambda: len(records(lease_file)) == 1, 330, step=1, what="first timer write")
        assert time.monotonic() - started >= 295
        state, expires, lease_time, nip, mac, host = records(lease_file)[0]
        assert (state, lease_time, nip, mac) == (1, 86400, bytes([192, 168, 10, 100]),
                                                 bytes.fromhex("020000000e01"))
        # The stored name takes one byte more than its length: the code of the
        # option that follows it in the request (udhcpc sends 60 next, "<").
        assert host.rstrip(b"\0") == b"one<"
        # Later runs come every 30 s.
        written = time.monotonic()
        obtain(h2, tmp_path, "two")
        wait_until(lambda: len(records(lease_file)) == 2, 40, step=0.5, what="second timer write")
        assert time.monotonic() - written <= 35
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
