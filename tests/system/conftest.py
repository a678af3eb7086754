"""Shared fixtures for system tests.

Every daemon runs in a network namespace of its own and a private mount
namespace with tmpfs on /var/run and /mnt, so tests run side by side and never
touch the host. Tests reach the daemon's files through /proc/PID/root and run
the shell inside its namespaces with nsenter.

Every daemon a test starts is checked when it stops (sanitizer.py): exit
status 0 after SIGTERM and no sanitizer report in its output, or the test
fails with the report.
"""
import os
import pathlib
import signal
import socket
import subprocess
import time
import uuid

import pytest

import sanitizer

# Reports go to the programs' standard error, where the checks read them.
sanitizer.scrub_environment()

REPO = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("DHCPD_BUILD_DIR", REPO / "build"))
DHCPD = BUILD / "dhcp" / "dhcpd"
DHCPSH = BUILD / "tools" / "dhcpsh" / "dhcpsh"


def _sanitized(build):
    try:
        return "DHCPD_SANITIZE:BOOL=ON" in (build / "CMakeCache.txt").read_text()
    except OSError:
        return False


# The build under test has the sanitizers (and is slow).
SANITIZED = _sanitized(BUILD)


def run(cmd, check=True, **kw):
    return subprocess.run(cmd, check=check, capture_output=True, text=True, **kw)


def wait_until(pred, timeout=30.0, step=0.05, what="condition"):
    """Polls `pred` until true; `timeout` only bounds the wait (generous:
    the sanitizer build on a loaded machine is slow)."""
    end = time.monotonic() + timeout
    while time.monotonic() < end:
        if pred():
            return
        time.sleep(step)
    raise AssertionError(f"timed out waiting for {what}")


class Netns:
    """A network namespace with loopback up."""

    def __init__(self, name=None):
        self.name = name or f"dt{uuid.uuid4().hex[:10]}"
        run(["ip", "netns", "add", self.name])
        self.ip("link", "set", "lo", "up")

    def ip(self, *args, check=True):
        return run(["ip", "-n", self.name, *args], check=check)

    def exec(self, *cmd, check=True, **kw):
        return run(["ip", "netns", "exec", self.name, *cmd], check=check, **kw)

    def delete(self):
        run(["ip", "netns", "del", self.name], check=False)


# The daemon's private mounts, then the daemon itself (exec keeps the pid).
_MOUNTS = ("mount -t tmpfs tmpfs /var/run && mount -t tmpfs tmpfs /mnt && "
           "mkdir -p /var/run/netns && ")


class Daemon:
    """One dhcpd in its own namespaces; stdout/stderr go to a log file, and
    sanitizer reports of a daemon that detached (-d) to files beside it."""

    def __init__(self, ns, logdir, args=(), prelude="", mnt_dir=None, expected_status=0):
        """mnt_dir: a directory bound on /mnt instead of a fresh tmpfs, so
        the lease file outlives the daemon. expected_status: how stop()
        expects the process to have ended (None: any way)."""
        self.ns = ns
        self.log_path = pathlib.Path(logdir) / f"dhcpd-{ns.name}-{time.monotonic_ns()}.log"
        self.log_file = open(self.log_path, "w")
        self.expected_status = expected_status
        self.checked = False
        detached = "-d" in args
        self.report_prefix = self.log_path.with_suffix(".san") if detached else None
        env = sanitizer.environment_logging_to(self.report_prefix) if detached else None
        mounts = _MOUNTS if mnt_dir is None else _MOUNTS.replace(
            "mount -t tmpfs tmpfs /mnt", f"mount --bind {mnt_dir} /mnt")
        script = mounts + prelude + f'exec {DHCPD} {" ".join(args)}'
        self.proc = subprocess.Popen(
            ["ip", "netns", "exec", ns.name, "unshare", "--mount", "--propagation", "private",
             "sh", "-c", script],
            stdout=self.log_file, stderr=subprocess.STDOUT, env=env)
        self.pid = self.proc.pid

    @property
    def root(self):
        return pathlib.Path(f"/proc/{self.pid}/root")

    def path(self, p):
        # /var/run is an absolute symlink to /run on this system; through
        # /proc/PID/root it would resolve against our own root, so resolve
        # it ourselves.
        if p.startswith("/var/run/") and os.path.islink("/var/run"):
            p = os.path.join(os.path.realpath("/var/run"), p[len("/var/run/"):])
        return self.root / p.lstrip("/")

    def wait_ready(self, timeout=30.0):
        wait_until(lambda: self.proc.poll() is not None or self.path("/var/run/dhcp.vty").exists(),
                   timeout, what="vty socket")
        assert self.proc.poll() is None, f"dhcpd exited early:\n{self.log()}"
        wait_until(lambda: "starting" in self.log(), timeout, what="start notice")
        return self

    def log(self):
        self.log_file.flush()
        return self.log_path.read_text(errors="replace")

    def wait_log(self, text, timeout=30.0):
        wait_until(lambda: text in self.log(), timeout, what=repr(text))

    def sh(self, *commands, check=False, timeout=60):
        """Runs dhcpsh -c for each command inside the daemon's namespaces.
        Its exit status is the caller's to check; a sanitizer report fails."""
        argv = ["nsenter", "-t", str(self.pid), "-m", "-n", str(DHCPSH)]
        for c in commands:
            argv += ["-c", c]
        return sanitizer.checked(run(argv, check=check, timeout=timeout), expected=None)

    def shell(self, *args, check=False, timeout=60, input=None):
        argv = ["nsenter", "-t", str(self.pid), "-m", "-n", str(DHCPSH), *args]
        return sanitizer.checked(run(argv, check=check, timeout=timeout, input=input),
                                 expected=None)

    def connect_vty(self):
        s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        # A blocking connect waits for room in the listen backlog, as the
        # shell's does; a timed one would fail with EAGAIN under load.
        s.connect(str(self.path("/var/run/dhcp.vty")))
        s.settimeout(30)
        return s

    def signal(self, sig):
        os.kill(self.pid, sig)

    def stop(self):
        """Ends the daemon with SIGTERM (if it still runs), then checks how it
        ended: exit status `expected_status`, no sanitizer report. Checked
        once; later calls do nothing."""
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
            try:
                self.proc.wait(60)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        if not self.log_file.closed:
            self.log_file.close()
        if self.checked:
            return
        self.checked = True
        output = self.log_path.read_text(errors="replace")
        if self.report_prefix is not None:
            output += sanitizer.report_files_text(self.report_prefix)
        sanitizer.check_outcome(f"dhcpd in {self.ns.name} (log {self.log_path})",
                                self.proc.returncode, output, self.expected_status)


def vty_request(sock, line, kind=b"X"):
    """One request of the shell protocol; returns (text, code, prompt)."""
    sock.sendall(kind + line.encode() + b"\0")
    return vty_read_reply(sock)


def vty_read_reply(sock):
    """Reads one reply: text NUL code prompt NUL."""
    buf = b""
    while True:
        first = buf.find(b"\0")
        if first >= 0 and len(buf) >= first + 2:
            end = buf.find(b"\0", first + 2)
            if end >= 0:
                return buf[:first].decode(errors="replace"), buf[first + 1], \
                    buf[first + 2:end].decode(errors="replace")
        chunk = sock.recv(65536)
        if not chunk:
            raise ConnectionError("vty closed")
        buf += chunk


class Switch:
    """A simulated switch: VLAN bridges vlanifN in the switch namespace and
    ports swpN, each a veth whose far end (eth0) sits in a host namespace."""

    def __init__(self):
        self.ns = Netns()
        self.hosts = {}

    def vlan(self, vid, address=None):
        self.ns.ip("link", "add", f"vlanif{vid}", "type", "bridge")
        if address:
            self.ns.ip("addr", "add", address, "dev", f"vlanif{vid}")
        # A switch chip floods unknown unicast to its CPU port too; a Linux
        # bridge passes flooded frames up to its own device only when
        # promiscuous. The ARP probe's answers (to the all-zero MAC it sends
        # from) arrive that way.
        self.ns.ip("link", "set", f"vlanif{vid}", "promisc", "on", "up")

    def port(self, number, vid, mac=None):
        """Adds port swp<number> to vlanif<vid>; returns the host namespace."""
        host = Netns()
        run(["ip", "link", "add", f"swp{number}", "netns", self.ns.name, "type", "veth",
             "peer", "name", "eth0", "netns", host.name])
        if mac:
            host.ip("link", "set", "eth0", "address", mac)
        self.ns.ip("link", "set", f"swp{number}", "master", f"vlanif{vid}", "up")
        host.ip("link", "set", "eth0", "up")
        self.hosts[number] = host
        return host

    def link(self, number, vid, peer, peer_number, peer_vid):
        """Joins port swp<number> (in vlanif<vid>) to port swp<peer_number>
        of switch `peer` (in its vlanif<peer_vid>): one cable between two
        switches."""
        run(["ip", "link", "add", f"swp{number}", "netns", self.ns.name, "type", "veth",
             "peer", "name", f"swp{peer_number}", "netns", peer.ns.name])
        self.ns.ip("link", "set", f"swp{number}", "master", f"vlanif{vid}", "up")
        peer.ns.ip("link", "set", f"swp{peer_number}", "master", f"vlanif{peer_vid}", "up")

    def delete(self):
        for h in self.hosts.values():
            h.delete()
        self.ns.delete()


@pytest.fixture
def switch():
    sw = Switch()
    yield sw
    sw.delete()


@pytest.fixture
def netns():
    ns = Netns()
    yield ns
    ns.delete()


@pytest.fixture
def daemon(netns, tmp_path):
    """A running dhcpd in the foreground; stopped and checked at the end."""
    d = Daemon(netns, tmp_path)
    try:
        d.wait_ready()
        yield d
    finally:
        d.stop()


def stop_all(daemons):
    """Stops every daemon, then raises the first failed check, if any."""
    failures = []
    for d in daemons:
        try:
            d.stop()
        except AssertionError as e:
            failures.append(e)
    if failures:
        raise failures[0]


@pytest.fixture
def make_daemon(tmp_path):
    """Factory for daemons with extra arguments or set-up; all stopped at the end."""
    made = []

    def factory(args=(), prelude="", ns=None, ready=True, expected_status=0):
        ns = ns or Netns()
        d = Daemon(ns, tmp_path, args, prelude, expected_status=expected_status)
        made.append((d, ns))
        return d.wait_ready() if ready else d  # a failed start is stopped below

    yield factory
    try:
        stop_all([d for d, _ in made])
    finally:
        for _, ns in made:
            ns.delete()
