"""Helpers for the message-layer system tests: the driver programs, network
namespace pairs joined by a veth link, and packet sockets opened inside a
namespace from this process."""
import contextlib
import ctypes
import os
import pathlib
import socket
import subprocess
import tempfile
import uuid

import sanitizer

REPO = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("DHCPD_BUILD_DIR", REPO / "build"))

# Reports go to the programs' standard error, where the checks read them.
sanitizer.scrub_environment()

ETH_P_ALL = 0x0003
ETH_P_IP = 0x0800
ETH_P_ARP = 0x0806
CLONE_NEWNET = 0x40000000

_libc = ctypes.CDLL(None, use_errno=True)


def tool(name):
    path = BUILD / "tests" / "tools" / name
    if not path.exists():
        raise FileNotFoundError(f"{path} is not built (DHCPD_BUILD_DIR={BUILD})")
    return str(path)


def run(cmd, check=True, **kw):
    return subprocess.run(cmd, check=check, capture_output=True, text=True, **kw)


class Netns:
    """A network namespace of our own, loopback up."""

    def __init__(self, prefix="mt"):
        self.name = f"{prefix}{uuid.uuid4().hex[:10]}"
        run(["ip", "netns", "add", self.name])
        self.ip("link", "set", "lo", "up")

    def ip(self, *args, check=True):
        return run(["ip", "-n", self.name, *args], check=check)

    def exec(self, *cmd, check=True, **kw):
        return run(["ip", "netns", "exec", self.name, *cmd], check=check, **kw)

    def popen(self, *cmd, **kw):
        return subprocess.Popen(["ip", "netns", "exec", self.name, *cmd], **kw)

    def delete(self):
        run(["ip", "netns", "del", self.name], check=False)


@contextlib.contextmanager
def in_netns(ns):
    """Runs the block (this thread only) inside namespace `ns`; sockets made
    there stay in it."""
    own = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
    target = os.open(f"/run/netns/{ns.name}", os.O_RDONLY)
    try:
        if _libc.setns(target, CLONE_NEWNET) != 0:
            raise OSError(ctypes.get_errno(), "setns")
        try:
            yield
        finally:
            if _libc.setns(own, CLONE_NEWNET) != 0:
                raise OSError(ctypes.get_errno(), "setns back")
    finally:
        os.close(target)
        os.close(own)


class VethPair:
    """Two namespaces joined by one veth link: side a (the tool's) and side
    b (the peer's), with fixed MACs and addresses."""

    def __init__(self, mac_a="02:00:5e:00:00:0a", mac_b="02:00:5e:00:00:0b",
                 addr_a="10.77.0.1/24", addr_b="10.77.0.2/24"):
        self.a = Netns("mta")
        self.b = Netns("mtb")
        tag = uuid.uuid4().hex[:8]
        self.if_a, self.if_b = f"va{tag}", f"vb{tag}"
        self.mac_a, self.mac_b = mac_a, mac_b
        self.addr_a, self.addr_b = addr_a.split("/")[0], addr_b.split("/")[0]
        self.a.ip("link", "add", self.if_a, "type", "veth", "peer", "name", self.if_b,
                  "netns", self.b.name)
        self.a.ip("link", "set", self.if_a, "address", mac_a)
        self.b.ip("link", "set", self.if_b, "address", mac_b)
        self.a.ip("addr", "add", addr_a, "dev", self.if_a)
        self.b.ip("addr", "add", addr_b, "dev", self.if_b)
        # No IPv6 chatter on the link: captures see only what the tests send.
        for ns, ifname in ((self.a, self.if_a), (self.b, self.if_b)):
            ns.exec("sysctl", "-q", "-w", f"net.ipv6.conf.{ifname}.disable_ipv6=1", check=False)
        self.a.ip("link", "set", self.if_a, "up")
        self.b.ip("link", "set", self.if_b, "up")

    def packet_socket(self, proto=ETH_P_ALL, side="b"):
        """A SOCK_RAW packet socket bound to the link's end on `side`."""
        ns, ifname = (self.b, self.if_b) if side == "b" else (self.a, self.if_a)
        with in_netns(ns):
            s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(proto))
            s.bind((ifname, proto))
        return s

    def delete(self):
        self.a.delete()
        self.b.delete()


def run_tool(ns, *cmd, expected=0, **kw):
    """Runs a tool inside namespace `ns`; fails on a sanitizer report or an
    exit status other than `expected`. Returns the finished process."""
    return sanitizer.checked(ns.exec(*cmd, check=False, **kw), expected=expected)


class CodecTool:
    """One dhcp_codec_tool process; cmd() returns (answer, [(prio, text)]).
    close() checks how it ended (status 0, no sanitizer report)."""

    def __init__(self):
        self.stderr = tempfile.TemporaryFile()
        self.proc = subprocess.Popen([tool("dhcp_codec_tool")], stdin=subprocess.PIPE,
                                     stdout=subprocess.PIPE, stderr=self.stderr,
                                     text=True, bufsize=1)

    def errors(self):
        self.stderr.flush()
        self.stderr.seek(0)
        return self.stderr.read().decode(errors="replace")

    def cmd(self, line):
        self.proc.stdin.write(line + "\n")
        self.proc.stdin.flush()
        logs = []
        while True:
            out = self.proc.stdout.readline()
            if not out:
                self.proc.wait(60)
                sanitizer.check_outcome(f"dhcp_codec_tool on {line[:80]!r}",
                                        self.proc.returncode, self.errors(), expected=None)
                raise RuntimeError(f"codec tool died on {line[:80]!r}: status "
                                   f"{self.proc.returncode}\n{self.errors()}")
            out = out.rstrip("\n")
            if out.startswith("log "):
                _, prio, text = out.split(" ", 2)
                logs.append((int(prio), bytes.fromhex(text)))
                continue
            if not out.startswith("ok"):
                raise RuntimeError(f"{line[:80]!r}: {out}")
            return out[3:], logs

    def close(self):
        self.proc.stdin.close()
        self.proc.stdout.close()
        self.proc.wait(60)
        errors = self.errors()
        self.stderr.close()
        sanitizer.check_outcome("dhcp_codec_tool", self.proc.returncode, errors)
