"""Start-up, signals, pid file, vty socket and the shell against a live dhcpd."""
import os
import signal
import socket
import struct
import subprocess

import pytest

from conftest import DHCPD, DHCPSH, Netns, run, vty_read_reply, vty_request, wait_until
from sanitizer import checked


def test_non_root_start_prints_only_perror_and_writes_no_pid(netns):
    script = ("mount -t tmpfs tmpfs /var/run && "
              f"setpriv --reuid=65534 --regid=65534 --clear-groups {DHCPD}; "
              "echo rc=$? >&2; ls -A /var/run >&2")
    r = checked(netns.exec("unshare", "--mount", "--propagation", "private", "sh", "-c", script,
                           check=False), expected=None)
    assert r.stdout == ""
    lines = r.stderr.splitlines()
    assert lines[0] == "dhcpd: Operation not permitted"
    assert lines[1] == "rc=1"
    assert lines[2:] == []  # nothing created in /var/run


def test_foreground_start_writes_pid_file_and_vty_socket(daemon):
    assert daemon.path("/var/run/dhcp.pid").read_text() == f"{daemon.pid}\n"
    assert daemon.path("/var/run/dhcp.vty").is_socket()
    assert "dhcpd: notice: DHCP 0.1.0 starting" in daemon.log()


def test_daemon_mode_detaches_and_writes_child_pid(make_daemon):
    d = make_daemon(args=["-d"], ready=False)
    # The launcher exits once daemon() forks; the child goes on in the namespaces.
    assert d.proc.wait(60) == 0
    pidfile_root = None

    def pid_written():
        nonlocal pidfile_root
        # Only processes of this test's namespace: other tests run daemons too.
        out = run(["ip", "netns", "pids", d.ns.name], check=False).stdout.split()
        run_dir = os.path.realpath("/var/run")  # /var/run -> /run here
        for pid in out:
            p = f"/proc/{pid}/root{run_dir}/dhcp.pid"
            if os.path.exists(p) and open(p).read().strip() == pid:
                pidfile_root = pid
                return True
        return False

    try:
        wait_until(pid_written, what="daemonised pid file")
        child = int(pidfile_root)
        assert child != d.pid
    finally:
        # The detached daemon is nobody's child: end it ourselves.
        for pid in run(["ip", "netns", "pids", d.ns.name], check=False).stdout.split():
            os.kill(int(pid), signal.SIGTERM)
    def gone():
        # Exited: reaped, or a zombie waiting for init to reap it.
        try:
            status = open(f"/proc/{child}/status").read()
        except FileNotFoundError:
            return True
        return "\nState:\tZ" in status

    wait_until(gone, 30, what="daemon exit")


def test_dhcpsh_runs_commands_and_reports_failure_by_status(daemon):
    r = daemon.sh("configure terminal", "show debugging dhcp")
    assert r.returncode == 0
    assert r.stdout == "Dhcp debugging status:\n"
    r = daemon.sh("show debugging dhcp", "no such command", "show debugging dhcp")
    assert r.returncode == 1
    assert r.stdout == "Dhcp debugging status:\n% Unknown command.\n"


def test_interface_lo_is_refused(daemon):
    r = daemon.sh("configure terminal", "interface lo")
    assert r.returncode == 1
    assert r.stdout == "% [dhcp_interface]Cann't create interface lo\n"


def test_interface_vlanif_enters_interface_node(daemon):
    r = daemon.shell(input="configure terminal\ninterface vlanif10\nexit\ninterface eth0\n")
    assert r.returncode == 0, r.stderr
    s = daemon.connect_vty()
    vty_request(s, "configure terminal")
    text, code, prompt = vty_request(s, "interface vlanif10")
    assert (text, code) == ("", 0)
    assert prompt.endswith("(config-if)# ")
    text, code, prompt = vty_request(s, "exit")
    assert prompt.endswith("(config)# ")
    text, code, prompt = vty_request(s, "no interface vlanif99")
    assert (text, code) == ("", 0)
    text, code, prompt = vty_request(s, "no interface vlanif10")
    assert (text, code) == ("", 0)
    s.close()


def test_debug_switches_and_show_quirks(daemon):
    r = daemon.sh("debug dhcp timer", "show debugging dhcp")
    assert r.stdout == "Dhcp debugging status:\n"
    r = daemon.sh("no debug dhcp all", "debug dhcp interface", "show debugging dhcp")
    assert r.stdout == ("Dhcp debugging status:\n  Dhcp interface debugging is on\n"
                        "  Dhcp timer debugging is on\n")
    r = daemon.sh("debug dhcp all", "no debug dhcp packet", "show debugging dhcp")
    assert r.stdout == ("Dhcp debugging status:\n  Dhcp event debugging is on\n"
                        "  Dhcp interface debugging is on\n  Dhcp timer debugging is on\n")
    r = daemon.sh("conf t", "no debug dhcp all", "sh deb dhcp")
    assert r.returncode == 0
    assert r.stdout == "Dhcp debugging status:\n"


def test_sighup_is_logged_and_daemon_keeps_running(daemon):
    daemon.signal(signal.SIGHUP)
    daemon.wait_log("dhcpd: info: SIGHUP received")
    # Served after the signal was handled, and still there.
    assert daemon.sh("show debugging dhcp").returncode == 0
    assert daemon.proc.poll() is None


@pytest.mark.parametrize("sig", [signal.SIGTERM, signal.SIGINT])
def test_sigterm_and_sigint_end_with_status_zero(daemon, sig):
    daemon.signal(sig)
    assert daemon.proc.wait(60) == 0
    assert "dhcpd: notice: Terminating on signal" in daemon.log()


def test_sigusr1_rotates_and_keeps_running(daemon):
    daemon.signal(signal.SIGUSR1)
    # The signal is pending before the request is sent: the daemon handles
    # it before it answers, and is still there afterwards.
    assert daemon.sh("show debugging dhcp").returncode == 0
    assert daemon.proc.poll() is None


def test_two_sessions_keep_their_own_nodes(daemon):
    a, b = daemon.connect_vty(), daemon.connect_vty()
    _, _, pa = vty_request(a, "configure terminal")
    _, _, pb = vty_request(b, "P", kind=b"P")
    assert pa.endswith("(config)# ")
    assert pb.endswith("# ") and "(config" not in pb
    _, _, pa = vty_request(a, "interface vlanif10")
    assert pa.endswith("(config-if)# ")
    text, code, pb = vty_request(b, "show debugging dhcp")
    assert (text, code) == ("Dhcp debugging status:\n", 0)
    assert "(config" not in pb
    a.close()
    b.close()


def test_hostile_vty_input_leaves_daemon_serving(daemon):
    # A 1 MiB line without its terminator, then the terminator.
    s = daemon.connect_vty()
    s.settimeout(None)  # a blocking send: the daemon reads it at its own pace
    s.sendall(b"X" + b"a" * (1 << 20) + b"\0")
    s.settimeout(30)
    text, code, _ = vty_read_reply(s)
    assert code == 1 and "too long" in text
    text, code, _ = vty_request(s, "show debugging dhcp")
    assert (text, code) == ("Dhcp debugging status:\n", 0)
    s.close()
    # Binary garbage.
    s = daemon.connect_vty()
    s.sendall(bytes(range(1, 256)) * 16 + b"\0")
    try:
        vty_read_reply(s)
    except (ConnectionError, socket.timeout):
        pass
    s.close()
    # Abrupt disconnects mid-frame, many times.
    for _ in range(50):
        s = daemon.connect_vty()
        s.sendall(b"Xshow debug")
        s.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        s.close()
    r = daemon.sh("show debugging dhcp")
    assert (r.returncode, r.stdout) == (0, "Dhcp debugging status:\n")
    assert daemon.proc.poll() is None


def test_write_memory_and_boot_replay(daemon):
    r = daemon.sh("configure terminal", "log stdout debugging", "write memory")
    assert r.returncode == 0, r.stdout
    saved = daemon.path("/mnt/dhcpd.conf").read_text()
    assert "log stdout debugging\n" in saved
    r = daemon.sh("show running-config")
    assert r.stdout == saved
    # Put the default back, then boot-replay the saved file.
    daemon.sh("configure terminal", "log stdout informational")
    assert "log stdout" not in daemon.sh("show running-config").stdout
    r = daemon.shell("-b")
    assert r.returncode == 0, r.stderr
    assert daemon.sh("show running-config").stdout == saved


def test_shell_without_daemon_says_so(netns):
    script = f"mount -t tmpfs tmpfs /var/run && exec {DHCPSH} -c 'show debugging dhcp'"
    r = checked(netns.exec("unshare", "--mount", "--propagation", "private", "sh", "-c", script,
                           check=False), expected=2)
    assert r.stderr.startswith("dhcpsh: cannot connect to /var/run/dhcp.vty: ")
    assert "No such file or directory" in r.stderr


def bus_frame(kind, payload=b""):
    return struct.pack(">HHI", 0x5542, kind, len(payload)) + payload


def read_frame(s):
    hdr = b""
    while len(hdr) < 8:
        chunk = s.recv(8 - len(hdr))
        if not chunk:
            raise ConnectionError("closed")
        hdr += chunk
    magic, kind, length = struct.unpack(">HHI", hdr)
    body = b""
    while len(body) < length:
        body += s.recv(length - len(body))
    return magic, kind, body


def test_management_bus_peer_and_late_bus(daemon):
    peer = """
import socket, struct, sys
s = socket.create_connection(("127.0.0.1", 30008), timeout=30)
s.sendall(struct.pack(">HHI", 0x5542, 3, 4) + b"ping")
print(s.recv(64).hex())
"""
    for _ in range(2):  # a disconnecting peer leaves the listener armed
        r = daemon.ns.exec("/usr/bin/python3", "-c", peer)
        assert r.stdout.strip() == (struct.pack(">HHI", 0x5542, 4, 4) + b"ping").hex()
    # A malformed message ends only that peer's connection.
    bad = """
import socket
s = socket.create_connection(("127.0.0.1", 30008), timeout=30)
s.sendall(b"garbage!garbage!")
print(repr(s.recv(64)))
"""
    assert daemon.ns.exec("/usr/bin/python3", "-c", bad).stdout.strip() == "b''"
    # The bus comes up after the daemon: it connects within the retry period
    # and introduces itself.
    bus = """
import socket, struct
l = socket.socket(); l.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
l.bind(("127.0.0.1", 30000)); l.listen(1); l.settimeout(60)
c, _ = l.accept(); c.settimeout(30)
h = c.recv(8); magic, kind, n = struct.unpack(">HHI", h)
print(hex(magic), kind, c.recv(n).decode())
"""
    r = daemon.ns.exec("/usr/bin/python3", "-c", bus, timeout=90)
    assert r.stdout.strip() == "0x5542 1 dhcpd"
    assert daemon.proc.poll() is None
