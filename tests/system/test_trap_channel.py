"""What the relay gets from the switch platform: trapped DHCP frames and the
DHCP snooping state.

Trapped frames: trap_probe turns trapping on inside a simulated switch and
prints every trapped message; scapy frames are sent from hosts behind the
switch ports. Whether a frame was left out is decided without waiting on the
clock: a frame the switch floods is first seen arriving at another host (by
then the switch has taken it or not), and then a frame that must be trapped
is sent; it has to be the next message.

Snooping state: a peer that speaks only the documented bus format sets it
over the daemon's bus endpoint and reads it back.
"""
import queue
import socket
import struct
import subprocess
import threading
import time

import pytest
from scapy.all import BOOTP, DHCP, IP, TCP, UDP, Dot1AD, Dot1Q, Ether, IPOption_NOP, Raw

import sanitizer
from conftest import Netns, Switch, run
from msgutil import in_netns, tool

ETH_P_ALL = 0x0003
HOST_MAC = "02:00:00:00:0a:01"
GAP = 2


def request(xid, mac=HOST_MAC):
    """A DHCP DISCOVER as a client broadcasts it."""
    return (IP(src="0.0.0.0", dst="255.255.255.255") / UDP(sport=68, dport=67) /
            BOOTP(op=1, xid=xid, chaddr=bytes.fromhex(mac.replace(":", ""))) /
            DHCP(options=[("message-type", "discover"), "end"]))


def eth(l3, mac=HOST_MAC, tags=()):
    """l3 in an Ethernet broadcast from `mac`, under the 802.1Q (or other)
    tags given as scapy layers."""
    frame = Ether(src=mac, dst="ff:ff:ff:ff:ff:ff")
    for t in tags:
        frame = frame / t
    return bytes(frame / l3)


def untag(frame):
    """The frame without its first 802.1Q tag, as the relay takes it off."""
    assert frame[12:14] == b"\x81\x00"
    return frame[:12] + frame[16:]


class Probe:
    """trap_probe in the switch namespace, its lines read by a thread."""

    def __init__(self, ns):
        self.proc = subprocess.Popen(
            ["ip", "netns", "exec", ns.name, tool("trap_probe")], stdin=subprocess.PIPE,
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, bufsize=1)
        self.lines = queue.Queue()
        self.seen = []
        threading.Thread(target=self._read, daemon=True).start()
        assert self.line() == "ready"

    def _read(self):
        for line in self.proc.stdout:
            self.lines.put(line.rstrip("\n"))
        self.lines.put(None)

    def line(self, timeout=10):
        try:
            got = self.lines.get(timeout=timeout)
        except queue.Empty:
            raise AssertionError(f"trap_probe said nothing more; before: {self.seen[-5:]}")
        assert got is not None, f"trap_probe ended; before: {self.seen[-5:]}"
        self.seen.append(got)
        return got

    def command(self, cmd):
        """on/off: returns (rc, fd, on)."""
        self.proc.stdin.write(cmd + "\n")
        self.proc.stdin.flush()
        words = dict(w.split("=", 1) for w in self.line().split()[1:])
        return int(words["rc"]), int(words["fd"]), int(words["on"])

    def counters(self):
        """(read, dropped): frames the channel read, and those it dropped
        in user space."""
        self.proc.stdin.write("counters\n")
        self.proc.stdin.flush()
        words = dict(w.split("=", 1) for w in self.line().split()[1:])
        return int(words["read"]), int(words["dropped"])

    def trap(self):
        """The next trapped message as a dict: type, port, vlan, gap, len
        (ints) and hdr, pad, frame (bytes)."""
        text = self.line()
        assert text.startswith("trap "), text
        fields = dict(w.split("=", 1) for w in text.split()[1:])
        out = {k: int(fields[k]) for k in ("type", "port", "vlan", "gap", "len")}
        out.update({k: bytes.fromhex(fields[k]) for k in ("hdr", "pad", "frame")})
        return out

    def stop(self):
        """Ends the probe; its exit status. What it wrote after the last
        line read is scanned: a sanitizer report fails the test."""
        if self.proc.poll() is None:
            try:
                self.proc.stdin.write("quit\n")
                self.proc.stdin.flush()
                self.proc.wait(10)
            except (BrokenPipeError, subprocess.TimeoutExpired):
                self.proc.kill()
                self.proc.wait()
        rest = self.proc.stdout.read() if self.proc.stdout else ""
        sanitizer.check_outcome("trap_probe", self.proc.returncode, rest, expected=None)
        return self.proc.returncode


class Wire:
    """A packet socket on one interface of a namespace."""

    def __init__(self, ns, ifname):
        with in_netns(ns):
            self.sock = socket.socket(socket.AF_PACKET, socket.SOCK_RAW,
                                      socket.htons(ETH_P_ALL))
            self.sock.bind((ifname, ETH_P_ALL))

    def send(self, frame):
        self.sock.send(frame)

    def wait_for(self, token, timeout=10):
        """Waits until a frame holding `token` arrives."""
        end = time.monotonic() + timeout
        while time.monotonic() < end:
            self.sock.settimeout(max(0.01, end - time.monotonic()))
            try:
                data, addr = self.sock.recvfrom(65535)
            except socket.timeout:
                break
            if addr[2] != socket.PACKET_OUTGOING and token in data:
                return
        raise AssertionError(f"frame with {token!r} never arrived")

    def close(self):
        self.sock.close()


def quiet_ipv6(ns, ifname):
    ns.exec("sysctl", "-q", "-w", f"net.ipv6.conf.{ifname}.disable_ipv6=1", check=False)


class Lab:
    """A switch with vlanif10 (swp1, swp2), vlanif20 (swp3, swp4), a plain
    netdev vlanif30 whose far end is in host h30, and a bridge br7 that is
    no VLAN (swp7, swp8)."""

    def __init__(self):
        self.sw = Switch()
        self.wires, self.extra, self.probe = {}, [], None
        try:
            self._build()
        except BaseException:
            self.delete()
            raise

    def _build(self):
        self.sw.vlan(10)
        self.sw.vlan(20)
        self.h = {n: self.sw.port(n, vid) for n, vid in ((1, 10), (2, 10), (3, 20), (4, 20))}
        self.sw.ns.ip("link", "add", "br7", "type", "bridge")
        self.sw.ns.ip("link", "set", "br7", "up")
        for n in (7, 8):
            host = Netns()
            run(["ip", "link", "add", f"swp{n}", "netns", self.sw.ns.name, "type", "veth",
                 "peer", "name", "eth0", "netns", host.name])
            self.sw.ns.ip("link", "set", f"swp{n}", "master", "br7", "up")
            host.ip("link", "set", "eth0", "up")
            self.sw.hosts[n] = self.h[n] = host
        h30 = Netns()
        run(["ip", "link", "add", "vlanif30", "netns", self.sw.ns.name, "type", "veth",
             "peer", "name", "eth0", "netns", h30.name])
        self.sw.ns.ip("link", "set", "vlanif30", "up")
        h30.ip("link", "set", "eth0", "up")
        self.sw.hosts[30] = self.h[30] = h30
        for host in self.h.values():
            quiet_ipv6(host, "eth0")
        self.wires = {n: Wire(host, "eth0") for n, host in self.h.items()}
        self.probe = Probe(self.sw.ns)

    def switch_wire(self, ifname):
        """A packet socket on one of the switch's own interfaces."""
        w = Wire(self.sw.ns, ifname)
        self.extra.append(w)
        return w

    def delete(self):
        """Takes the lab down; the probe's exit status."""
        status = self.probe.stop() if self.probe else 0
        for w in list(self.wires.values()) + self.extra:
            w.close()
        self.sw.delete()
        return status


@pytest.fixture
def lab():
    lab = Lab()
    try:
        yield lab
    finally:
        status = lab.delete()
    assert status == 0, "trap_probe failed:\n" + "\n".join(lab.probe.seen[-20:])


def header(port, vlan):
    return struct.pack("=IIHHI16x", port, 0, vlan, 0, GAP)


def check(msg, port, vlan, frame):
    assert (msg["type"], msg["port"], msg["vlan"], msg["gap"]) == (1, port, vlan, GAP)
    assert msg["hdr"] == header(port, vlan)
    assert msg["pad"] == bytes(GAP)
    assert msg["len"] == len(frame)
    assert msg["frame"] == frame


def trapped(lab, host, frame):
    lab.wires[host].send(frame)
    return lab.probe.trap()


def left_out(lab, host, frame, witness, token):
    """Sends `frame` from `host`, waits until `witness` has it, then proves
    the channel took nothing: the next message is a fresh request's."""
    lab.wires[host].send(frame)
    lab.wires[witness].wait_for(token)
    nothing_before(lab)


def nothing_before(lab):
    marker = eth(request(0x4d41524b))
    check(trapped(lab, 1, marker), 1, 10, marker)


def test_trapped_frames_come_with_port_vlan_and_the_frame_as_sent(lab):
    rc, fd, on = lab.probe.command("on")
    assert (rc, on) == (0, 1) and fd >= 0

    plain = eth(request(0x1001))
    check(trapped(lab, 1, plain), 1, 10, plain)
    # The same request tagged: the tag is where it was, the VLAN is the tag's,
    # and without the tag it is the untagged frame byte for byte.
    tagged = eth(request(0x1001), tags=[Dot1Q(vlan=10, prio=5)])
    msg = trapped(lab, 1, tagged)
    check(msg, 1, 10, tagged)
    assert untag(msg["frame"]) == plain
    other_vlan = eth(request(0x1002), tags=[Dot1Q(vlan=20)])
    check(trapped(lab, 1, other_vlan), 1, 20, other_vlan)
    priority_only = eth(request(0x1003), tags=[Dot1Q(vlan=0, prio=3)])
    check(trapped(lab, 1, priority_only), 1, 10, priority_only)
    on_vlan20 = eth(request(0x1004, mac="02:00:00:00:14:03"), mac="02:00:00:00:14:03")
    check(trapped(lab, 3, on_vlan20), 3, 20, on_vlan20)

    # A server's reply, and the frames the relay itself refuses: it must see them.
    reply = eth(IP(src="10.0.0.1", dst="10.0.0.9") / UDP(sport=67, dport=68) /
                BOOTP(op=2, xid=0x1005) / DHCP(options=[("message-type", "offer"), "end"]),
                mac="02:00:00:00:0a:02")
    check(trapped(lab, 2, reply), 2, 10, reply)
    tcp = eth(IP(src="10.0.0.5", dst="10.0.0.1") / TCP(sport=40000, dport=67))
    check(trapped(lab, 1, tcp), 1, 10, tcp)
    v6_port = eth(IP(src="10.0.0.5", dst="10.0.0.1") / UDP(sport=68, dport=546) / Raw(b"x" * 40))
    check(trapped(lab, 1, v6_port), 1, 10, v6_port)
    with_options = eth(IP(src="0.0.0.0", dst="255.255.255.255", options=[IPOption_NOP()] * 4) /
                       UDP(sport=68, dport=67) / BOOTP(xid=0x1006) /
                       DHCP(options=[("message-type", "discover"), "end"]))
    msg = trapped(lab, 1, with_options)
    check(msg, 1, 10, with_options)
    assert msg["frame"][14] == 0x46  # header length 6 words

    # A vlanifN that is a plain netdev: no switch port, its VLAN.
    direct = eth(request(0x1007, mac="02:00:00:00:1e:01"), mac="02:00:00:00:1e:01")
    check(trapped(lab, 30, direct), 0, 30, direct)
    direct_tagged = eth(request(0x1008, mac="02:00:00:00:1e:01"), mac="02:00:00:00:1e:01",
                        tags=[Dot1Q(vlan=31)])
    check(trapped(lab, 30, direct_tagged), 0, 31, direct_tagged)
    assert lab.probe.command("off")[1] == fd


def test_frames_outside_the_trap_rule_are_left_out(lab):
    lab.probe.command("on")
    nothing_before(lab)
    dns = eth(IP(src="10.0.0.5", dst="10.0.0.255") / UDP(sport=5353, dport=53) / Raw(b"dns-q"))
    left_out(lab, 1, dns, 2, b"dns-q")
    near = eth(IP(src="10.0.0.5", dst="10.0.0.255") / UDP(sport=66, dport=69) / Raw(b"near"))
    left_out(lab, 1, near, 2, b"near")
    later_fragment = eth(IP(src="10.0.0.5", dst="10.0.0.255", frag=10, proto=17) /
                         Raw(b"\x00\x44\x00\x43" + b"frag"))
    left_out(lab, 1, later_fragment, 2, b"frag")
    token = struct.pack(">I", 0x2001)
    qinq = eth(request(0x2001), tags=[Dot1AD(vlan=10)])
    left_out(lab, 1, qinq, 2, token)
    token = struct.pack(">I", 0x2002)
    twice = eth(request(0x2002), tags=[Dot1Q(vlan=10), Dot1Q(vlan=11)])
    left_out(lab, 1, twice, 2, token)
    # A port of a bridge that is no VLAN is no switch port.
    token = struct.pack(">I", 0x2003)
    left_out(lab, 7, eth(request(0x2003, mac="02:00:00:00:07:07"), mac="02:00:00:00:07:07"),
             8, token)


def test_frames_longer_than_the_buffer_are_dropped(lab):
    for port in (1, 2):
        lab.sw.ns.ip("link", "set", f"swp{port}", "mtu", "9000")
        lab.h[port].ip("link", "set", "eth0", "mtu", "9000")
    lab.probe.command("on")

    def sized(size, fill):
        bare = eth(IP(src="0.0.0.0", dst="255.255.255.255") / UDP(sport=68, dport=67))
        return eth(IP(src="0.0.0.0", dst="255.255.255.255") / UDP(sport=68, dport=67) /
                   Raw(fill * (size - len(bare))))

    longest = sized(4096, b"L")
    check(trapped(lab, 1, longest), 1, 10, longest)
    # The kernel holds the tag aside: 4096 bytes taken, 4100 handed on.
    tagged = longest[:12] + b"\x81\x00\x00\x0a" + longest[12:]
    check(trapped(lab, 1, tagged), 1, 10, tagged)
    too_long = sized(4097, b"T")
    left_out(lab, 1, too_long, 2, b"T" * 64)


def test_frames_the_switch_sends_are_not_trapped(lab):
    lab.probe.command("on")
    nothing_before(lab)
    for ifname, xid in (("swp1", 0x3001), ("vlanif10", 0x3002)):
        out = eth(IP(src="10.0.0.1", dst="255.255.255.255") / UDP(sport=67, dport=68) /
                  BOOTP(op=2, xid=xid) / DHCP(options=[("message-type", "offer"), "end"]),
                  mac="02:00:00:00:ff:01")
        lab.switch_wire(ifname).send(out)
        lab.wires[1].wait_for(struct.pack(">I", xid))
        nothing_before(lab)


def test_trapping_off_delivers_nothing_and_keeps_the_descriptor(lab):
    rc, fd, on = lab.probe.command("on")
    assert (rc, on) == (0, 1)
    nothing_before(lab)
    assert lab.probe.command("off") == (0, fd, 0)
    token = struct.pack(">I", 0x4001)
    lab.wires[1].send(eth(request(0x4001)))
    lab.wires[2].wait_for(token)
    token = struct.pack(">I", 0x4002)
    lab.wires[3].send(eth(request(0x4002, mac="02:00:00:00:14:03"), mac="02:00:00:00:14:03"))
    lab.wires[4].wait_for(token)
    assert lab.probe.command("off") == (0, fd, 0)  # no user left: nothing changes
    assert lab.probe.command("on") == (0, fd, 1)
    nothing_before(lab)


def test_bridge_copies_never_reach_user_space(lab):
    """A port's frame also comes up through its vlanifN bridge; the kernel
    filter refuses that copy, so the channel reads exactly the frames it
    hands on. The frames before each marker are queued before it."""
    lab.probe.command("on")
    on_vlan10 = eth(request(0x5001))
    check(trapped(lab, 1, on_vlan10), 1, 10, on_vlan10)
    on_vlan20 = eth(request(0x5002, mac="02:00:00:00:14:03"), mac="02:00:00:00:14:03")
    check(trapped(lab, 3, on_vlan20), 3, 20, on_vlan20)
    direct = eth(request(0x5003, mac="02:00:00:00:1e:01"), mac="02:00:00:00:1e:01")
    check(trapped(lab, 30, direct), 0, 30, direct)
    nothing_before(lab)
    assert lab.probe.counters() == (4, 0)


def test_a_bridge_added_later_is_refused_once_the_tables_know_it(lab):
    """vlanif40 and its ports swp5, swp6 come after trapping is on: swp5's first
    frame re-reads the tables (its bridge copy, already queued, is dropped in
    user space), and from the next frame on the kernel refuses the bridge's
    copies."""
    lab.probe.command("on")
    lab.sw.vlan(40)
    for n in (5, 6):
        host = lab.sw.port(n, 40)
        quiet_ipv6(host, "eth0")
        lab.wires[n] = Wire(host, "eth0")
    # The new bridge forwards (and so passes frames up to itself) once a frame
    # from swp5 has crossed it to swp6; the channel's rule leaves this one out.
    lab.wires[5].send(eth(IP(src="10.0.0.5", dst="10.0.0.255") / UDP(sport=5353, dport=53) /
                          Raw(b"ready"), mac="02:00:00:00:28:05"))
    lab.wires[6].wait_for(b"ready")
    mac = "02:00:00:00:28:05"
    first = eth(request(0x6001, mac=mac), mac=mac)
    check(trapped(lab, 5, first), 5, 40, first)
    nothing_before(lab)
    read, dropped = lab.probe.counters()
    assert read - dropped == 2  # the bridge's copy of the first, if read, was dropped
    again = eth(request(0x6002, mac=mac), mac=mac)
    check(trapped(lab, 5, again), 5, 40, again)
    nothing_before(lab)
    assert lab.probe.counters() == (read + 2, dropped)


def test_bursts_come_whole_and_in_order_round_the_ring(lab):
    """Bursts longer than one read (32 frames), 2,200 frames in all (more
    than the channel's ring holds at once, so its slots are used again):
    every frame comes, in the order sent, and nothing is read twice."""
    lab.probe.command("on")
    burst, bursts = 50, 44
    for b in range(bursts):
        frames = [eth(request(0x70000 + b * burst + i)) for i in range(burst)]
        for f in frames:
            lab.wires[1].send(f)
        for f in frames:
            check(lab.probe.trap(), 1, 10, f)
    nothing_before(lab)
    assert lab.probe.counters() == (burst * bursts + 1, 0)


# ---- DHCP snooping state over the management bus ----

def bus(kind, payload=b""):
    return struct.pack(">HHI", 0x5542, kind, len(payload)) + payload


SNOOP_SET, SNOOP_TRUST, SNOOP_GET, SNOOP_STATE = 5, 6, 7, 8


def trust(port, untrusted):
    return bus(SNOOP_TRUST, struct.pack(">IB", port, untrusted))


class Peer:
    """A connection to the daemon's bus endpoint, made in its namespace."""

    def __init__(self, daemon):
        with in_netns(daemon.ns):
            self.sock = socket.create_connection(("127.0.0.1", 30008), timeout=5)

    def send(self, data):
        self.sock.sendall(data)

    def read(self, n):
        data = b""
        while len(data) < n:
            chunk = self.sock.recv(n - len(data))
            if not chunk:
                raise ConnectionError("closed")
            data += chunk
        return data

    def state(self):
        """The daemon's answer to SNOOP_GET, whole."""
        self.send(bus(SNOOP_GET))
        head = self.read(8)
        magic, kind, length = struct.unpack(">HHI", head)
        assert (magic, kind) == (0x5542, SNOOP_STATE)
        return head + self.read(length)

    def closed(self):
        """True once the daemon has ended the connection."""
        try:
            return self.sock.recv(64) == b""
        except ConnectionResetError:
            return True

    def close(self):
        self.sock.close()


def test_snooping_state_is_set_and_read_by_any_peer(daemon):
    a = Peer(daemon)
    assert a.state() == bus(SNOOP_STATE, b"\x00")  # off, every port trusted
    a.send(bus(SNOOP_SET, b"\x01") + trust(3, 1) + trust(4095, 1) + trust(258, 1) +
           trust(258, 0) + trust(1, 0))
    assert a.state() == bus(SNOOP_STATE, b"\x01\x00\x03\x0f\xff")
    b = Peer(daemon)  # the state is the daemon's, not the connection's
    assert b.state() == bus(SNOOP_STATE, b"\x01\x00\x03\x0f\xff")
    # One message in pieces.
    msg = trust(12, 1)
    b.send(msg[:3])
    b.send(msg[3:9])
    b.send(msg[9:])
    assert b.state() == bus(SNOOP_STATE, b"\x01\x00\x03\x00\x0c\x0f\xff")
    b.send(bus(SNOOP_STATE, b"\x00") + bus(SNOOP_SET, b"\x00") + trust(12, 0))
    assert b.state() == bus(SNOOP_STATE, b"\x00\x00\x03\x0f\xff")
    a.close()
    b.close()


@pytest.mark.parametrize("bad", [
    trust(0, 1), trust(4096, 1), trust(0xffffffff, 1), trust(5, 2),
    bus(SNOOP_TRUST, b"\x00\x00\x00\x05"), bus(SNOOP_TRUST, b"\x00\x00\x00\x05\x01\x00"),
    bus(SNOOP_SET, b""), bus(SNOOP_SET, b"\x02"), bus(SNOOP_SET, b"\x01\x01"),
    bus(SNOOP_GET, b"\x00"),
], ids=["port-0", "port-4096", "port-max", "trust-2", "trust-short", "trust-long",
        "set-empty", "set-2", "set-long", "get-payload"])
def test_malformed_snooping_messages_end_the_peer_and_change_nothing(daemon, bad):
    p = Peer(daemon)
    p.send(bad + bus(SNOOP_SET, b"\x01"))  # what follows is not handled
    assert p.closed()
    p.close()
    q = Peer(daemon)
    assert q.state() == bus(SNOOP_STATE, b"\x00")
    q.close()
    assert daemon.proc.poll() is None
