"""The relay end to end, between two switches.

Relay switch: our dhcpd with the relay on; clients on swp1..swp3 of vlanif10
(192.168.10.1/24), the uplink vlanif20 (10.20.0.1/24) on swp9. Server switch:
vlanif20 (10.20.0.2/24) on its swp1, the other end of the cable, and a route
to 192.168.10.0/24 through the relay switch. On it runs our dhcpd as the
server (real clients), Kea (interop), or nothing but this test, which then
plays the server: it captures what the relay forwards on the server switch's
port and answers with frames of its own. For interop the other way round,
ISC dhcrelay takes our relay's place, with our server behind it.

No verdict waits on the clock. That something was not forwarded (or not
delivered) is shown by a marker sent after it: the marker has to be the next
thing seen on the wire.
"""
import json
import os
import signal
import socket
import struct
import subprocess
import time

import pytest
from scapy.all import BOOTP, DHCP, IP, TCP, UDP, Dot1Q, Ether, IPOption_NOP

from conftest import Daemon, Switch, run, stop_all, wait_until
from test_clients import event_with, lease_line
from msgutil import in_netns

RELAY_IP = "192.168.10.1"
RELAY_LINK_IP = "10.20.0.1"
SERVER_IP = "10.20.0.2"
CLIENT_NET = "192.168.10.0/24"
LEASE = 20  # renewal after 10 s
ETH_P_ALL = 0x0003
BROADCAST = "ff:ff:ff:ff:ff:ff"
RELAY_SETUP = ("configure terminal", "log stdout debugging", "dhcp-relay enable",
               "interface vlanif10", f"dhcp-relay remote-server {SERVER_IP}", "quit")


# ---- the two switches ----

class Lab:
    """Both switches, the relay daemon, and the server switch's port."""

    def __init__(self, tmp_path):
        self.tmp = tmp_path
        self.relay_sw, self.server_sw = Switch(), Switch()
        self.relay_sw.vlan(10, f"{RELAY_IP}/24")
        self.relay_sw.vlan(20, f"{RELAY_LINK_IP}/24")
        self.hosts = {n: self.relay_sw.port(n, 10, mac=f"02:00:00:00:0a:0{n}") for n in (1, 2, 3)}
        self.server_sw.vlan(20, f"{SERVER_IP}/24")
        self.relay_sw.link(9, 20, self.server_sw, 1, 20)
        self.server_sw.ns.ip("route", "add", CLIENT_NET, "via", RELAY_LINK_IP)
        # Renewals and releases are unicast to the server: the relay switch
        # routes them.
        self.relay_sw.ns.exec("sysctl", "-qw", "net.ipv4.ip_forward=1")
        self.relay = None
        self.server = None
        self.peers = []

    def start_relay(self, *extra):
        self.relay = Daemon(self.relay_sw.ns, self.tmp).wait_ready()
        configure(self.relay, *RELAY_SETUP, *extra)
        return self.relay

    def port_mac(self, number):
        out = self.relay_sw.ns.ip("-br", "link", "show", f"swp{number}").stdout.split()
        return out[2]

    def delete(self):
        """Stops everything (each daemon's ending is checked) and removes
        both switches whatever the checks say."""
        try:
            for p in self.peers:
                stop(p)
            stop_all([d for d in (self.relay, self.server) if d is not None])
        finally:
            self.relay_sw.delete()
            self.server_sw.delete()


def configure(d, *commands, out=""):
    r = d.sh(*commands)
    assert (r.returncode, r.stdout, r.stderr) == (0, out, ""), (commands, r.stdout, r.stderr)


def stop(proc):
    if proc.poll() is None:
        proc.terminate()
        try:
            proc.wait(5)
        except subprocess.TimeoutExpired:
            proc.kill()
            proc.wait()


@pytest.fixture
def lab(tmp_path):
    lab = Lab(tmp_path)
    try:
        yield lab
    finally:
        lab.delete()


# ---- raw frames ----

class Frame:
    """One IPv4/UDP (or other) frame, decoded by hand."""

    def __init__(self, data):
        self.data = data
        self.dst_mac = data[0:6].hex(":")
        off = 14
        if data[12:14] == b"\x81\x00":
            off = 18
        ip = data[off:]
        self.ip_ok = data[off - 2:off] == b"\x08\x00" and len(ip) >= 20
        if not self.ip_ok:
            return
        ihl = (ip[0] & 0x0F) * 4
        self.proto = ip[9]
        self.src = socket.inet_ntoa(ip[12:16])
        self.dst = socket.inet_ntoa(ip[16:20])
        self.ip_total = struct.unpack(">H", ip[2:4])[0]
        udp = ip[ihl:]
        self.sport, self.dport, self.udp_len = struct.unpack(">HHH", udp[0:6])
        self.payload = udp[8:self.udp_len]

    def udp_to(self, port):
        return self.ip_ok and self.proto == 17 and self.dport == port


class Wire:
    """A packet socket on one interface of a namespace: sends frames and
    reads the frames that arrive (never those sent from there)."""

    def __init__(self, ns, ifname):
        with in_netns(ns):
            self.sock = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ALL))
            self.sock.bind((ifname, ETH_P_ALL))

    def send(self, frame):
        self.sock.send(bytes(frame))

    def next_udp(self, port, timeout=30):
        """The next arriving UDP frame to `port`."""
        end = time.monotonic() + timeout
        while True:
            left = end - time.monotonic()
            if left <= 0:
                raise AssertionError(f"nothing to UDP port {port} arrived")
            self.sock.settimeout(left)
            data, addr = self.sock.recvfrom(65535)
            if addr[2] == socket.PACKET_OUTGOING:
                continue
            f = Frame(data)
            if f.udp_to(port):
                return f

    def close(self):
        self.sock.close()


def mac_bytes(mac):
    return bytes.fromhex(mac.replace(":", "").replace("-", ""))


def client_msg(xid, mac, mtype="discover", hops=0, giaddr="0.0.0.0", flags=0x8000,
               extra=(), pad=300):
    """A client's message as bytes, padded after its end option."""
    m = bytes(BOOTP(op=1, hops=hops, xid=xid, flags=flags, giaddr=giaddr, chaddr=mac_bytes(mac)) /
              DHCP(options=[("message-type", mtype), ("client_id", b"\x01" + mac_bytes(mac)),
                            *extra, "end"]))
    return m + b"\0" * max(0, pad - len(m))


def server_msg(xid, mac, mtype="offer", giaddr=RELAY_IP, yiaddr="192.168.10.50", ciaddr="0.0.0.0",
               flags=0, server_id=SERVER_IP, pad=300):
    opts = [("message-type", mtype)]
    if server_id:
        opts.append(("server_id", server_id))
    opts += [("lease_time", 600), ("subnet_mask", "255.255.255.0"), "end"]
    m = bytes(BOOTP(op=2, xid=xid, flags=flags, giaddr=giaddr, yiaddr=yiaddr, ciaddr=ciaddr,
                    chaddr=mac_bytes(mac)) / DHCP(options=opts))
    return m + b"\0" * max(0, pad - len(m))


def from_client(payload, mac, sport=68, dport=67, proto="udp", tag=None, ip_options=None):
    l3 = IP(src="0.0.0.0", dst="255.255.255.255", options=ip_options or [])
    l4 = UDP(sport=sport, dport=dport) if proto == "udp" else TCP(sport=sport, dport=dport)
    eth = Ether(src=mac, dst=BROADCAST)
    if tag is not None:
        eth = eth / Dot1Q(vlan=tag)
    return bytes(eth / l3 / l4 / payload)


def from_server(payload, dst=RELAY_IP, dport=68):
    return bytes(Ether(dst=BROADCAST) / IP(src=SERVER_IP, dst=dst) / UDP(sport=67, dport=dport) /
                 payload)


def end_of(payload):
    """The payload up to and including its end option."""
    i = 240
    while payload[i] != 255:
        i += 1 if payload[i] == 0 else 2 + payload[i + 1]
    return payload[:i + 1]


def expect_forwarded(sent, hops, giaddr, flags, options=None):
    """What the relay must send for `sent`: hops, giaddr and flags as
    given, options (with their padding) replaced when given."""
    out = bytearray(sent)
    out[3] = hops
    out[10:12] = struct.pack(">H", flags)
    out[24:28] = socket.inet_aton(giaddr)
    if options is not None:
        out[240:] = options + b"\0" * (len(sent) - 240 - len(options))
    return bytes(out)


def opt82(circuit, remote):
    sub = b""
    if circuit:
        sub += bytes([1, len(circuit)]) + circuit
    if remote:
        sub += bytes([2, len(remote)]) + remote
    return bytes([82, len(sub)]) + sub


class Scene:
    """The relay switch with our relay, the server switch played by the
    test: one wire on the server switch's port and one on each client."""

    def __init__(self, lab):
        self.lab = lab
        self.relay = lab.start_relay()
        self.up = Wire(lab.server_sw.ns, "swp1")
        self.hosts = {n: Wire(h, "eth0") for n, h in lab.hosts.items()}
        self.marks = 0x7e000000

    def mac(self, n):
        return f"02:00:00:00:0a:0{n}"

    def send(self, n, payload, **kw):
        self.hosts[n].send(from_client(payload, self.mac(n), **kw))

    def forwarded(self):
        """The next request the relay forwards, as the server sees it."""
        f = self.up.next_udp(67)
        assert (f.src, f.dst) == (RELAY_LINK_IP, SERVER_IP)
        return f

    def relay_once(self, n, payload, **kw):
        self.send(n, payload, **kw)
        return self.forwarded()

    def marker(self, n=1):
        """Sends a fresh request; it must be the next thing forwarded."""
        self.marks += 1
        f = self.relay_once(n, client_msg(self.marks, self.mac(n)))
        assert struct.unpack(">I", f.payload[4:8])[0] == self.marks, \
            "something was forwarded before the marker"

    def answer(self, payload, **kw):
        self.up.send(from_server(payload, **kw))

    def delivered(self, n):
        return self.hosts[n].next_udp(68)

    def close(self):
        self.up.close()
        for w in self.hosts.values():
            w.close()


@pytest.fixture
def scene(lab):
    s = Scene(lab)
    try:
        yield s
    finally:
        s.close()


# ---- forwarding, as the server sees it ----

def test_request_gets_hops_giaddr_and_loses_the_broadcast_flag(scene):
    sent = client_msg(0x1001, scene.mac(3))
    f = scene.relay_once(3, sent)
    assert (f.sport, f.dport) == (68, 67)
    assert f.payload == expect_forwarded(sent, 1, RELAY_IP, 0)
    scene.relay.wait_log(f"gateway_nip change to {RELAY_IP}")
    # The reply comes back with the broadcast flag restored, from the
    # server identifier, to the client's MAC at 0.0.0.0.
    offer = server_msg(0x1001, scene.mac(3))
    scene.answer(offer)
    got = scene.delivered(3)
    assert (got.dst_mac, got.src, got.dst, got.sport, got.dport) == \
        (scene.mac(3), SERVER_IP, "0.0.0.0", 67, 68)
    want = bytearray(offer)
    want[10:12] = b"\x80\x00"
    assert got.payload == bytes(want)


def test_a_nearer_relays_giaddr_is_kept(scene):
    sent = client_msg(0x1002, scene.mac(1), hops=1, giaddr="172.16.5.1", flags=0)
    f = scene.relay_once(1, sent)
    assert f.payload == expect_forwarded(sent, 2, "172.16.5.1", 0)


def test_hops_eight_is_forwarded_as_nine_and_nine_is_dropped(scene):
    sent = client_msg(0x1003, scene.mac(2), hops=8)
    assert scene.relay_once(2, sent).payload == expect_forwarded(sent, 9, RELAY_IP, 0)
    scene.send(2, client_msg(0x1004, scene.mac(2), hops=9))
    scene.relay.wait_log("hops is 9, more than maximum hops 8")
    scene.marker(2)


def test_udp_to_port_546_and_tcp_are_refused_with_their_lines(scene):
    scene.send(1, client_msg(0x1005, scene.mac(1)), sport=68, dport=546)
    scene.relay.wait_log("dhcpr_netlink_msg: invalid dport 546")
    scene.send(1, client_msg(0x1006, scene.mac(1)), proto="tcp", sport=68, dport=67)
    scene.relay.wait_log("dhcpr_netlink_msg: invalid protocol 6")
    scene.marker(1)


def test_tagged_and_untagged_copies_give_the_same_payload(scene):
    sent = client_msg(0x1007, scene.mac(1))
    plain = scene.relay_once(1, sent)
    tagged = scene.relay_once(1, sent, tag=10)
    assert plain.payload == tagged.payload == expect_forwarded(sent, 1, RELAY_IP, 0)


def test_ipv4_header_with_options(scene):
    sent = client_msg(0x1008, scene.mac(1))
    f = scene.relay_once(1, sent, ip_options=[IPOption_NOP()] * 4)
    assert f.payload == expect_forwarded(sent, 1, RELAY_IP, 0)


def opt82_on(scene, *extra):
    configure(scene.relay, "configure terminal", "interface vlanif10",
              "dhcp-relay information enable", *extra)


def test_option82_normal_mode(scene):
    opt82_on(scene)
    sent = client_msg(0x1010, scene.mac(3))
    f = scene.relay_once(3, sent)
    body = end_of(sent)[240:-1]
    remote = scene.lab.port_mac(3).replace(":", "-").encode()
    added = opt82(b"001003", remote)
    assert len(remote) == 17 and added[1] == 27
    assert f.payload == expect_forwarded(sent, 1, RELAY_IP, 0, body + added + b"\xff")


def test_option82_string_mode(scene):
    opt82_on(scene, "dhcp-relay information circuit-id string CID-7",
             "dhcp-relay information remote-id string agent-1")
    sent = client_msg(0x1011, scene.mac(2))
    f = scene.relay_once(2, sent)
    body = end_of(sent)[240:-1]
    assert f.payload == expect_forwarded(sent, 1, RELAY_IP, 0,
                                         body + opt82(b"CID-7", b"agent-1") + b"\xff")


CLIENT_82 = (82, b"\x01\x03abc")


def test_option82_strategies(scene):
    opt82_on(scene, "dhcp-relay information circuit-id string CID-7",
             "dhcp-relay information remote-id string agent-1")
    sent = client_msg(0x1020, scene.mac(1), extra=[CLIENT_82])
    # replace (the default): the client's goes, the relay's is last.
    f = scene.relay_once(1, sent)
    body = end_of(client_msg(0x1020, scene.mac(1)))[240:-1]
    assert f.payload == expect_forwarded(sent, 1, RELAY_IP, 0,
                                         body + opt82(b"CID-7", b"agent-1") + b"\xff")
    # keep: as it came.
    configure(scene.relay, "configure terminal", "interface vlanif10",
              "dhcp-relay information strategy keep")
    assert scene.relay_once(1, sent).payload == expect_forwarded(sent, 1, RELAY_IP, 0)
    # drop: nothing goes.
    configure(scene.relay, "configure terminal", "interface vlanif10",
              "dhcp-relay information strategy drop")
    scene.send(1, sent)
    scene.marker(1)


# ---- replies, as the client sees them ----

def test_reply_whose_giaddr_is_off_subnet_goes_to_that_giaddr_broadcast(scene):
    sent = client_msg(0x1030, scene.mac(2), hops=1, giaddr="172.16.5.1", flags=0)
    scene.relay_once(2, sent)
    offer = server_msg(0x1030, scene.mac(2), giaddr="172.16.5.1")
    scene.answer(offer)
    got = scene.delivered(2)
    assert (got.dst_mac, got.src, got.dst) == (BROADCAST, SERVER_IP, "172.16.5.1")
    assert got.payload == offer


def test_reply_of_type_7_consumes_its_item(scene):
    scene.relay_once(1, client_msg(0x1040, scene.mac(1)))
    scene.answer(server_msg(0x1040, scene.mac(1), mtype="release"))
    scene.answer(server_msg(0x1040, scene.mac(1)))  # no item left: dropped
    scene.relay_once(1, client_msg(0x1041, scene.mac(1)))
    scene.answer(server_msg(0x1041, scene.mac(1)))
    got = scene.delivered(1)
    assert struct.unpack(">I", got.payload[4:8])[0] == 0x1041


def bus(kind, payload=b""):
    return struct.pack(">HHI", 0x5542, kind, len(payload)) + payload


class BusPeer:
    """Speaks only the documented bus format, to the relay's endpoint."""

    def __init__(self, daemon):
        with in_netns(daemon.ns):
            self.sock = socket.create_connection(("127.0.0.1", 30008), timeout=5)

    def state(self):
        self.sock.sendall(bus(7))
        data = b""
        while len(data) < 8 or len(data) < 8 + struct.unpack(">I", data[4:8])[0]:
            chunk = self.sock.recv(4096)
            assert chunk, "bus connection closed"
            data += chunk
        return data

    def snooping(self, on, untrusted=()):
        msg = bus(5, bytes([on])) + b"".join(
            bus(6, struct.pack(">IB", p, u)) for p, u in untrusted)
        self.sock.sendall(msg)


def test_untrusted_ports_reply_is_dropped_with_snooping_on(scene):
    peer = BusPeer(scene.relay)
    peer.snooping(1, [(9, 1)])
    assert peer.state() == bus(8, b"\x01\x00\x09")
    scene.relay_once(3, client_msg(0x1050, scene.mac(3)))
    first = server_msg(0x1050, scene.mac(3), yiaddr="192.168.10.51")
    scene.answer(first)  # from the untrusted uplink: dropped, item kept
    # Frames are taken in order: once this request is through, so is the
    # answer before it, before the port is trusted again.
    scene.marker(3)
    peer.snooping(1, [(9, 0)])
    assert peer.state() == bus(8, b"\x01")
    second = server_msg(0x1050, scene.mac(3), yiaddr="192.168.10.52")
    scene.answer(second)
    got = scene.delivered(3)
    assert got.payload[16:20] == socket.inet_aton("192.168.10.52")
    peer.snooping(0)
    peer.sock.close()


# A server reply padded after its end option reaches the client as long as
# it came: the relay sends the payload's own length.
def test_reply_to_the_client_keeps_the_payloads_length(scene):
    scene.relay_once(1, client_msg(0x1060, scene.mac(1)))
    offer = server_msg(0x1060, scene.mac(1), pad=320)
    scene.answer(offer)
    got = scene.delivered(1)
    assert got.ip_total == len(offer) + 28


# ---- the server reply port ----

def test_server_reply_port_67_takes_replies_at_67_and_sends_from_67(scene):
    configure(scene.relay, "configure terminal", "dhcp-relay server-reply-port 67")
    sent = client_msg(0x1070, scene.mac(2))
    f = scene.relay_once(2, sent)
    assert (f.sport, f.dport) == (67, 67)
    assert f.payload == expect_forwarded(sent, 1, RELAY_IP, 0)
    offer = server_msg(0x1070, scene.mac(2))
    scene.answer(offer, dport=67)
    got = scene.delivered(2)
    assert (got.dst_mac, got.src, got.dst, got.sport, got.dport) == \
        (scene.mac(2), SERVER_IP, "0.0.0.0", 67, 68)
    want = bytearray(offer)
    want[10:12] = b"\x80\x00"
    assert got.payload == bytes(want)
    # Back to 68: a reply at 67 is a request again, and goes nowhere.
    configure(scene.relay, "configure terminal", "dhcp-relay server-reply-port 68")
    f = scene.relay_once(2, client_msg(0x1071, scene.mac(2)))
    assert (f.sport, f.dport) == (68, 67)
    scene.answer(server_msg(0x1071, scene.mac(2)), dport=67)
    scene.relay.wait_log("dhcpr_get_if_relay fail!")
    scene.answer(server_msg(0x1071, scene.mac(2), yiaddr="192.168.10.99"))
    got = scene.delivered(2)
    assert got.payload[16:20] == socket.inet_aton("192.168.10.99")


# ---- display and configuration ----

STARS = "********************************\n"


def server_lines(d):
    """The running configuration of a fresh daemon up to its "end" line:
    the server's lines come before the relay's."""
    text = d.sh("show running-config").stdout
    assert text.startswith("!\n") and text.endswith("end\n") and "relay" not in text, text
    return text[:-len("end\n")]


def test_show_and_writer_for_the_examples(lab):
    d = Daemon(lab.relay_sw.ns, lab.tmp).wait_ready()
    lab.relay = d
    assert d.sh("show dhcp-relay").stdout == STARS + "DHCP Relay is disabled.\n" + STARS
    before = server_lines(d)
    configure(d, "configure terminal", "interface vlanif10",
              f"dhcp-relay remote-server {SERVER_IP}", "dhcp-relay information enable",
              "dhcp-relay information strategy drop",
              "dhcp-relay information circuit-id string ABC",
              out="% Since dhcp-relay is not enabled, config will be inactive now.\n")
    assert d.sh("show running-config").stdout == before + (
        "interface vlanif10\n"
        f" dhcp-relay remote-server {SERVER_IP}\n"
        " dhcp-relay information enable\n"
        " dhcp-relay information strategy drop\n"
        " dhcp-relay information circuit-id string ABC\n"
        " quit\n"
        "end\n")
    assert d.sh("show dhcp-relay").stdout == (
        STARS + "DHCP Relay is disabled.\n" + STARS + "\n"
        "Interface         : vlanif10\n"
        f"Remote Server-IP  : {SERVER_IP}\n"
        "Option-82 Enable  : Enabled\n"
        "Option-82 Strategy: drop\n"
        "Circuit-ID Mode   : string\n"
        "Remote-ID Mode    : normal\n"
        "Circuit-ID string : ABC\n"
        "Remote-ID String  : \n")


FULL = (
    "dhcp-relay enable\n"
    "dhcp-relay server-reply-port 67\n"
    "interface vlanif10\n"
    f" dhcp-relay remote-server {SERVER_IP}\n"
    " dhcp-relay information enable\n"
    " dhcp-relay information strategy keep\n"
    " dhcp-relay information remote-id string sw1-agent\n"
    " quit\n"
    "interface vlanif20\n"
    " dhcp-relay remote-server 192.0.2.7\n"
    " dhcp-relay information circuit-id string c20\n"
    " quit\n"
    "end\n")


def test_configuration_round_trip_through_the_shell(lab):
    first = Daemon(lab.relay_sw.ns, lab.tmp).wait_ready()
    try:
        before = server_lines(first)
        configure(first, "configure terminal", "dhcp-relay enable",
                  "dhcp-relay server-reply-port 67", "interface vlanif10",
                  f"dhcp-relay remote-server {SERVER_IP}", "dhcp-relay information enable",
                  "dhcp-relay information strategy keep",
                  "dhcp-relay information remote-id string sw1-agent", "quit",
                  "interface vlanif20", "dhcp-relay remote-server 192.0.2.7",
                  "dhcp-relay information circuit-id string c20")
        written = first.sh("show running-config").stdout
        shown = first.sh("show dhcp-relay").stdout
    finally:
        first.stop()
    assert written == before + FULL
    fresh = Daemon(lab.relay_sw.ns, lab.tmp).wait_ready()
    lab.relay = fresh
    fresh.path("/mnt/relay.conf").write_text(written)
    r = fresh.shell("-f", "/mnt/relay.conf")
    assert (r.returncode, r.stdout, r.stderr) == (0, "", "")
    assert fresh.sh("show running-config").stdout == written
    assert fresh.sh("show dhcp-relay").stdout == shown


# ---- real clients through the relay, our server behind it ----

SERVER_SETUP = (
    "configure terminal", "log stdout debugging",
    "dhcp-server pool relayed", f"default-router {RELAY_IP}", f"network {CLIENT_NET}",
    "begin-ip 192.168.10.100 end-ip 192.168.10.200", "dns-server 8.8.8.8", f"lease {LEASE}",
    "exit",
    "dhcp-server pool link", f"default-router {RELAY_LINK_IP}", "network 10.20.0.0/24",
    "begin-ip 10.20.0.100 end-ip 10.20.0.200", "exit",
    "dhcp-server enable",
)


@pytest.fixture
def served(lab):
    lab.server = Daemon(lab.server_sw.ns, lab.tmp).wait_ready()
    configure(lab.server, *SERVER_SETUP)
    lab.start_relay()
    return lab


def released(d, ip):
    row = lease_line(d, ip)
    return row is not None and row[-1] == "0"


UDHCPC_SCRIPT = """#!/bin/sh
case "$1" in
  bound|renew)
    ip addr flush dev "$interface"; ip addr add "$ip/$mask" dev "$interface"
    ip route replace default via "$router" ;;
  deconfig) ip addr flush dev "$interface" ;;
esac
echo "$1 ip=$ip router=$router dns=$dns lease=$lease" >> {events}
"""


def script(tmp_path, name, text):
    ev = tmp_path / f"{name}.events"
    path = tmp_path / f"{name}.sh"
    path.write_text(text.format(events=ev))
    path.chmod(0o755)
    return path, ev


def test_udhcpc_through_the_relay(served, tmp_path):
    host = served.hosts[3]
    sh, ev = script(tmp_path, "udhcpc", UDHCPC_SCRIPT)
    client = subprocess.Popen(["ip", "netns", "exec", host.name, "busybox", "udhcpc", "-i", "eth0",
                               "-f", "-t", "20", "-T", "1", "-s", str(sh)],
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    served.peers.append(client)
    wait_until(lambda: event_with(ev, "bound"), 30, what="udhcpc bound")
    assert event_with(ev, "bound")[0] == \
        f"bound ip=192.168.10.100 router={RELAY_IP} dns=8.8.8.8 lease={LEASE}"
    row = lease_line(served.server, "192.168.10.100")
    assert row is not None and row[2] == str(LEASE)
    client.send_signal(signal.SIGUSR1)  # renew now
    wait_until(lambda: event_with(ev, "renew"), 20, what="udhcpc renew")
    assert event_with(ev, "renew")[0].startswith("renew ip=192.168.10.100 ")
    client.send_signal(signal.SIGUSR2)  # release
    wait_until(lambda: released(served.server, "192.168.10.100"), 15, what="lease released")
    assert served.relay.proc.poll() is None and served.server.proc.poll() is None


DHCLIENT_SCRIPT = """#!/bin/sh
case "$reason" in
  BOUND|RENEW|REBIND|REBOOT)
    ip addr flush dev "$interface"
    ip addr add "$new_ip_address/$new_subnet_mask" dev "$interface"
    ip route replace default via "$new_routers" ;;
  RELEASE|EXPIRE|STOP) ip addr flush dev "$interface" ;;
esac
echo "$reason ip=$new_ip_address routers=$new_routers lease=$new_dhcp_lease_time" >> {events}
"""


def test_dhclient_through_the_relay(served, tmp_path):
    host = served.hosts[1]
    sh, ev = script(tmp_path, "dhclient", DHCLIENT_SCRIPT)
    files = ["-sf", str(sh), "-lf", str(tmp_path / "dhclient.leases"),
             "-pf", str(tmp_path / "dhclient.pid")]
    client = subprocess.Popen(["ip", "netns", "exec", host.name, "dhclient", "-d", "-1", *files,
                               "eth0"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    served.peers.append(client)
    wait_until(lambda: event_with(ev, "BOUND"), 30, what="dhclient bound")
    assert event_with(ev, "BOUND")[0] == \
        f"BOUND ip=192.168.10.100 routers={RELAY_IP} lease={LEASE}"
    wait_until(lambda: event_with(ev, "RENEW"), 30, what="dhclient renewal at T1")
    assert event_with(ev, "RENEW")[0].startswith("RENEW ip=192.168.10.100 ")
    r = run(["ip", "netns", "exec", host.name, "dhclient", "-r", *files, "eth0"], check=False,
            timeout=30)
    assert r.returncode == 0, r.stderr
    wait_until(lambda: released(served.server, "192.168.10.100"), 15, what="lease released")


DHCPCD_SCRIPT = """#!/bin/sh
echo "$reason ip=$new_ip_address routers=$new_routers lease=$new_dhcp_lease_time" >> {events}
"""


def test_dhcpcd_through_the_relay(served, tmp_path):
    host = served.hosts[2]
    sh, ev = script(tmp_path, "dhcpcd", DHCPCD_SCRIPT)
    inner = ("mount -t tmpfs tmpfs /run && mkdir -p /var/lib/dhcpcd && "
             "mount -t tmpfs tmpfs /var/lib/dhcpcd && "
             f"exec dhcpcd -B -4 -L -f /dev/null -c {sh} -t 30 eth0")
    client = subprocess.Popen(["ip", "netns", "exec", host.name, "unshare", "--mount",
                               "--propagation", "private", "sh", "-c", inner],
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    served.peers.append(client)
    wait_until(lambda: event_with(ev, "BOUND"), 30, what="dhcpcd bound")
    assert event_with(ev, "BOUND")[0] == \
        f"BOUND ip=192.168.10.100 routers={RELAY_IP} lease={LEASE}"
    wait_until(lambda: event_with(ev, "RENEW"), 30, what="dhcpcd renewal at T1")
    r = run(["nsenter", "-t", str(client.pid), "-m", "-n", "dhcpcd", "-4", "-k", "eth0"],
            check=False, timeout=30)
    assert r.returncode == 0, r.stderr
    wait_until(lambda: released(served.server, "192.168.10.100"), 15, what="lease released")


# ---- Kea as the remote server ----

def start_kea(lab):
    conf = {"Dhcp4": {
        "interfaces-config": {"interfaces": ["vlanif20"], "dhcp-socket-type": "udp"},
        "lease-database": {"type": "memfile", "persist": False, "lfc-interval": 0},
        "valid-lifetime": 600,
        "subnet4": [{"id": 1, "subnet": CLIENT_NET,
                     "pools": [{"pool": "192.168.10.100 - 192.168.10.200"}],
                     "option-data": [{"name": "routers", "data": RELAY_IP}]}],
        "loggers": [{"name": "kea-dhcp4", "output_options": [{"output": "stdout"}],
                     "severity": "INFO"}],
    }}
    path = lab.tmp / "kea-dhcp4.json"
    path.write_text(json.dumps(conf))
    env = dict(os.environ, KEA_PIDFILE_DIR=str(lab.tmp), KEA_LOCKFILE_DIR=str(lab.tmp))
    log = open(lab.tmp / "kea-dhcp4.log", "w")
    kea = subprocess.Popen(["ip", "netns", "exec", lab.server_sw.ns.name, "kea-dhcp4", "-c",
                            str(path)], stdout=log, stderr=subprocess.STDOUT, env=env)
    lab.peers.append(kea)
    return kea


def udhcpc_once(lab, tmp_path, n, tries):
    """One udhcpc run that quits once bound (or after `tries` discovers)."""
    sh, ev = script(tmp_path, f"udhcpc{n}", UDHCPC_SCRIPT)
    run(["ip", "netns", "exec", lab.hosts[n].name, "busybox", "udhcpc", "-i", "eth0", "-f", "-q",
         "-n", "-t", str(tries), "-T", "1", "-s", str(sh)], check=False, timeout=tries * 4 + 30)
    return event_with(ev, "bound")


@pytest.mark.skipif(not os.path.exists("/usr/sbin/kea-dhcp4"), reason="kea-dhcp4 not installed")
def test_kea_behind_our_relay_at_port_67(lab, tmp_path):
    kea = start_kea(lab)
    lab.start_relay("dhcp-relay server-reply-port 67")
    bound = udhcpc_once(lab, tmp_path, 3, 30)
    assert kea.poll() is None, (lab.tmp / "kea-dhcp4.log").read_text()
    assert bound and bound[0].startswith("bound ip=192.168.10.1") and \
        f"router={RELAY_IP} " in bound[0], bound


@pytest.mark.skipif(not os.path.exists("/usr/sbin/kea-dhcp4"), reason="kea-dhcp4 not installed")
def test_kea_behind_our_relay_at_the_default_port_gets_nothing(lab, tmp_path):
    start_kea(lab)
    lab.start_relay()
    # Kea answers at giaddr port 67; with 68 that is a request on the
    # uplink VLAN, which has no relay record.
    bound = udhcpc_once(lab, tmp_path, 1, 8)
    lab.relay.wait_log("dhcpr_get_if_relay fail!")
    assert bound == []


# ---- ISC dhcrelay in the relay switch, our server behind it ----

RELAY_REPLY_67 = "dhcp-server relay-reply-port 67\n"


def start_dhcrelay(lab):
    """dhcrelay in the foreground on both VLANs of the relay switch, in
    place of our relay; its output goes to dhcrelay.log."""
    log_path = lab.tmp / "dhcrelay.log"
    log = open(log_path, "w")
    proc = subprocess.Popen(["ip", "netns", "exec", lab.relay_sw.ns.name, "dhcrelay", "-4", "-d",
                             "-pf", str(lab.tmp / "dhcrelay.pid"), "-i", "vlanif10", "-i",
                             "vlanif20", SERVER_IP], stdout=log, stderr=subprocess.STDOUT)
    log.close()
    lab.peers.append(proc)
    return proc, log_path


def dhcrelay_started(log_path):
    """Listening on both VLANs, and its fallback socket (the last line it
    prints at start) open."""
    lines = log_path.read_text().splitlines()
    return all(any(l.startswith(f"Listening on LPF/{n}/") for l in lines)
               for n in ("vlanif10", "vlanif20")) and "Sending on   Socket/fallback" in lines


@pytest.mark.skipif(not os.path.exists("/usr/sbin/dhcrelay"), reason="dhcrelay not installed")
def test_udhcpc_through_dhcrelay_to_our_server_at_port_67(lab, tmp_path):
    lab.server = Daemon(lab.server_sw.ns, lab.tmp).wait_ready()
    configure(lab.server, *SERVER_SETUP)
    # The default (68) writes no line.
    default = lab.server.sh("show running-config").stdout
    assert "relay-reply-port" not in default, default
    configure(lab.server, "configure terminal", RELAY_REPLY_67.strip())
    written = lab.server.sh("show running-config").stdout
    assert written.count(RELAY_REPLY_67) == 1 and \
        written.replace(RELAY_REPLY_67, "") == default, written
    assert written.index(RELAY_REPLY_67) < written.index("dhcp-server pool "), written

    relay, log_path = start_dhcrelay(lab)
    wait_until(lambda: relay.poll() is not None or dhcrelay_started(log_path), 30,
               what="dhcrelay started")
    assert relay.poll() is None and dhcrelay_started(log_path), log_path.read_text()

    bound = udhcpc_once(lab, tmp_path, 3, 30)
    assert bound == [f"bound ip=192.168.10.100 router={RELAY_IP} dns=8.8.8.8 lease={LEASE}"], \
        (bound, log_path.read_text())
    out = lab.server.sh("show dhcp-server lease").stdout
    rows = [l.split() for l in out.splitlines() if l.startswith("192.168.10.100 ")]
    assert len(rows) == 1 and rows[0][1:3] == ["02-00-00-00-0a-03", str(LEASE)], out
    assert out.endswith("\nTotal: 1 leases match.\n"), out
    assert lab.server.proc.poll() is None

    assert relay.poll() is None, log_path.read_text()
    relay.terminate()
    relay.wait(10)
    assert relay.returncode == -signal.SIGTERM, (relay.returncode, log_path.read_text())
