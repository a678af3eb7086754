"""The server's ports against a live dhcpd.

- "dhcp-server relay-reply-port 67": every reply to a relayed request is a
  UDP datagram routed to giaddr port 67, as RFC 2131 servers send it; a relay
  agent of our own (a host behind a switch port, listening on port 67 only)
  receives it. The default (68) keeps the broadcast frame to giaddr port 68.
- Port 67 is one socket of the process, shared by the server and the relay:
  with the relay on, a real client's unicast renewal still reaches the server.
"""
import signal
import socket
import subprocess

import pytest
from scapy.all import BOOTP, DHCP, IP, UDP, Ether

from conftest import Daemon, wait_until
from msgutil import in_netns

ETH_P_ALL = 0x0003
SERVER = "10.20.0.1"
AGENT = "10.20.0.2"
GIADDR = "192.168.50.1"
RELAYED_POOL = [
    "configure terminal",
    "dhcp-server pool relayed", "default-router 192.168.50.1", "network 192.168.50.0/24",
    "begin-ip 192.168.50.100 end-ip 192.168.50.110", "dns-server 9.9.9.9", "lease 7200",
    "exit",
    "dhcp-server enable",
]


def mac_bytes(mac):
    return bytes.fromhex(mac.replace(":", ""))


def relayed(mac, xid, msgtype, options=(), flags=0):
    """A relayed request as an RFC 2131 relay forwards it: giaddr, hops 1."""
    return bytes(BOOTP(op=1, chaddr=mac_bytes(mac), xid=xid, giaddr=GIADDR, hops=1,
                       flags=flags) /
                 DHCP(options=[("message-type", msgtype), *options, "end"]))


def codes(payload):
    """Option codes of a DHCP payload in order, and the end marker's index."""
    raw, out, i = payload[240:], [], 0
    while i < len(raw) and raw[i] != 255:
        if raw[i] == 0:
            i += 1
            continue
        out.append(raw[i])
        i += 2 + raw[i + 1]
    return out, i


def options(p):
    return dict(o for o in p[DHCP].options if isinstance(o, tuple))


class Agent:
    """A relay agent of our own in a host namespace: a UDP socket on port 67
    (where RFC 2131 relays take server replies) and a packet socket on eth0
    (to see the frames that reach it at port 68)."""

    def __init__(self, host):
        with in_netns(host):
            self.udp = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            self.udp.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            self.udp.bind(("0.0.0.0", 67))
            self.pkt = socket.socket(socket.AF_PACKET, socket.SOCK_RAW,
                                     socket.htons(ETH_P_ALL))
            self.pkt.bind(("eth0", 0))

    def send(self, payload):
        self.udp.sendto(payload, (SERVER, 67))

    def udp_reply(self, xid, wait=5.0):
        """The datagram for `xid` at port 67, and its source; the wait only
        bounds a reply that never comes."""
        self.udp.settimeout(wait)
        while True:
            data, src = self.udp.recvfrom(2048)
            if len(data) >= 240 and BOOTP(data).xid == xid:
                return data, src

    def frame_reply(self, xid, wait=5.0):
        """The frame for `xid` from port 67 to port 68."""
        self.pkt.settimeout(wait)
        while True:
            p = Ether(self.pkt.recv(65535))
            if UDP in p and (p[UDP].sport, p[UDP].dport) == (67, 68) and BOOTP in p \
                    and p[BOOTP].xid == xid:
                return p

    def frames_to_68(self):
        """The port-68 frames already received, without waiting."""
        out = []
        self.pkt.setblocking(False)
        try:
            while True:
                p = Ether(self.pkt.recv(65535))
                if UDP in p and p[UDP].dport == 68:
                    out.append(p)
        except BlockingIOError:
            pass
        return out

    def datagram_waiting(self):
        self.udp.setblocking(False)
        try:
            self.udp.recv(2048, socket.MSG_PEEK)
            return True
        except BlockingIOError:
            return False

    def close(self):
        self.udp.close()
        self.pkt.close()


@pytest.fixture
def lab(switch, tmp_path):
    """The server switch: vlanif20 (10.20.0.1/24) with the relay agent's host
    on swp9 (10.20.0.2, giaddr 192.168.50.1 behind it), and a pool for the
    relayed network, which is attached to no interface."""
    switch.vlan(20, SERVER + "/24")
    host = switch.port(9, 20)
    host.ip("addr", "add", AGENT + "/24", "dev", "eth0")
    host.ip("addr", "add", GIADDR + "/24", "dev", "eth0")
    switch.ns.ip("route", "add", "192.168.50.0/24", "via", AGENT)
    d = Daemon(switch.ns, tmp_path)
    agent = None
    try:
        d.wait_ready()
        r = d.sh(*RELAYED_POOL)
        assert r.returncode == 0, r.stdout
        agent = Agent(host)
        yield d, agent
    finally:
        if agent:
            agent.close()
        d.stop()


def configure(d, *lines):
    r = d.sh("configure terminal", *lines)
    assert r.returncode == 0 and r.stdout == "", r.stdout


def test_port_67_routes_offer_ack_and_nak_to_the_relay_port(lab):
    d, agent = lab
    configure(d, "dhcp-server relay-reply-port 67")
    mac = "02:00:00:00:32:01"

    agent.send(relayed(mac, 0x3001, "discover"))
    offer, src = agent.udp_reply(0x3001)
    # The pool's own address (its network address) is not ours: the kernel
    # takes the address that faces the relay, the server identifier too.
    assert src == (SERVER, 67)
    b = BOOTP(offer)
    assert (b.op, b.yiaddr, b.giaddr, b.flags, b.chaddr[:6]) == \
        (2, "192.168.50.100", GIADDR, 0, mac_bytes(mac))
    assert codes(offer)[0] == [53, 54, 51, 58, 59, 1, 3, 6, 28]
    assert len(offer) == 240 + codes(offer)[1] + 1  # up to the end marker
    assert options(b)["message-type"] == 2
    assert options(b)["server_id"] == SERVER

    agent.send(relayed(mac, 0x3002, "request",
                       [("requested_addr", "192.168.50.100"), ("server_id", SERVER)]))
    ack, src = agent.udp_reply(0x3002)
    assert src == (SERVER, 67)
    assert (options(BOOTP(ack))["message-type"], BOOTP(ack).yiaddr) == (5, "192.168.50.100")
    wait_until(lambda: "192.168.50.100 " in d.sh("show dhcp-server lease").stdout,
               what="lease shown")

    # A NAK goes to the relay too, with the broadcast bit for the client.
    agent.send(relayed("02:00:00:00:32:02", 0x3003, "request",
                       [("requested_addr", "192.168.50.105")]))
    nak, src = agent.udp_reply(0x3003)
    assert src == (SERVER, 67)
    assert (options(BOOTP(nak))["message-type"], BOOTP(nak).flags) == (6, 0x8000)
    assert codes(nak)[0] == [53, 54]

    # Each reply went one way only.
    assert [p for p in agent.frames_to_68()
            if BOOTP in p and p[BOOTP].xid in (0x3001, 0x3002, 0x3003)] == []


def test_default_68_is_the_broadcast_frame_to_the_relay_at_port_68(lab):
    d, agent = lab
    for xid, lines in ((0x3101, ()),
                       (0x3102, ("dhcp-server relay-reply-port 67",
                                 "dhcp-server relay-reply-port 68"))):
        if lines:
            configure(d, *lines)
        agent.send(relayed("02:00:00:00:32:11", xid, "discover"))
        p = agent.frame_reply(xid)
        assert (p[Ether].dst, p[IP].dst, p[UDP].sport, p[UDP].dport) == \
            ("ff:ff:ff:ff:ff:ff", GIADDR, 67, 68)
        # The raw frame carries the pool's address as it is.
        assert p[IP].src == "192.168.50.0"
        assert p[BOOTP].yiaddr == "192.168.50.100"
        # The reply was that frame: nothing came to port 67.
        assert not agent.datagram_waiting()


def test_the_line_is_written_only_when_not_the_default(lab):
    d, _ = lab
    shown = d.sh("show dhcp-server").stdout
    configure(d, "dhcp-server information disable", "dhcp-server relay-reply-port 67")
    config = d.sh("show running-config").stdout
    assert "dhcp-server max-lease-num 4096\ndhcp-server relay-reply-port 67\n" \
        "dhcp-server pool relayed\n" in config
    configure(d, "dhcp-server information enable")
    assert "dhcp-server information enable\ndhcp-server relay-reply-port 67\n" \
        "dhcp-server pool relayed\n" in d.sh("show running-config").stdout
    assert d.sh("show dhcp-server").stdout == shown
    configure(d, "dhcp-server relay-reply-port 68")
    assert "relay-reply-port" not in d.sh("show running-config").stdout
    r = d.sh("configure terminal", "dhcp-server relay-reply-port 69")
    assert "relay-reply-port" not in d.sh("show running-config").stdout, r.stdout


# ---- port 67 shared by the server and the relay ----

def port_sockets(ns, port):
    """The UDP sockets bound to `port` in namespace `ns`, as `ss` lists them."""
    out = ns.exec("ss", "-Huanp").stdout.splitlines()
    return [l for l in out if l.split()[3].endswith(f":{port}")]


def relay_available(d):
    r = d.sh("show dhcp-relay")
    return "Unknown command" not in r.stdout


def test_the_process_holds_one_port_67_socket_whoever_needs_it(switch, tmp_path):
    d = Daemon(switch.ns, tmp_path)
    try:
        d.wait_ready()
        assert port_sockets(switch.ns, 67) == []
        configure(d, "dhcp-server enable")
        (line,) = port_sockets(switch.ns, 67)
        assert f"pid={d.pid}," in line
        if relay_available(d):
            configure(d, "dhcp-relay enable")
            assert port_sockets(switch.ns, 67) == [line]
            assert len(port_sockets(switch.ns, 68)) == 1
            configure(d, "dhcp-server disable")
            assert port_sockets(switch.ns, 67) == [line]  # the relay still holds it
            configure(d, "dhcp-relay disable")
        else:
            configure(d, "dhcp-server disable")
        assert port_sockets(switch.ns, 67) == []
    finally:
        d.stop()


DHCLIENT_SCRIPT = """#!/bin/sh
case "$reason" in
  BOUND|RENEW|REBIND|REBOOT)
    ip addr flush dev "$interface"
    ip addr add "$new_ip_address/$new_subnet_mask" dev "$interface" ;;
esac
echo "$reason ip=$new_ip_address lease=$new_dhcp_lease_time" >> {events}
"""


def events(path, prefix):
    try:
        return [e for e in open(path).read().splitlines() if e.startswith(prefix)]
    except FileNotFoundError:
        return []


class Capture:
    """tcpdump on a host's eth0: DHCP traffic as text lines, in wire order."""

    def __init__(self, host, tmp_path):
        self.path = tmp_path / "tcpdump.txt"
        self.err_path = tmp_path / "tcpdump.err"
        self.out = open(self.path, "w")
        self.err = open(self.err_path, "w")
        self.proc = subprocess.Popen(
            ["ip", "netns", "exec", host.name, "tcpdump", "-i", "eth0", "-n", "-l",
             "udp port 67 or udp port 68"], stdout=self.out, stderr=self.err)
        wait_until(lambda: "listening on" in self.err_path.read_text(), what="tcpdump")

    def lines(self):
        self.out.flush()
        return [l for l in self.path.read_text().splitlines() if "BOOTP/DHCP" in l]

    def stop(self):
        self.proc.terminate()
        self.proc.wait()
        self.out.close()
        self.err.close()


LEASE = 30  # renewal at T1, 15 s after binding; rebinding by broadcast at 26 s


def test_unicast_renewal_reaches_the_server_with_the_relay_on(switch, tmp_path):
    """The relay is turned on after the server, the order in which a socket
    of its own would take the server's unicasts. ISC dhclient renews at T1 by
    unicast to the server; had the server not read it, the client would
    retransmit and then rebind by broadcast: the wire shows one unicast
    request and its answer, nothing else."""
    switch.vlan(10, "192.168.10.1/24")
    host = switch.port(1, 10)
    d = Daemon(switch.ns, tmp_path)
    ev = tmp_path / "dhclient.events"
    script = tmp_path / "dhclient.sh"
    script.write_text(DHCLIENT_SCRIPT.format(events=ev))
    script.chmod(0o755)
    files = ["-sf", str(script), "-lf", str(tmp_path / "dhclient.leases"),
             "-pf", str(tmp_path / "dhclient.pid")]
    client = cap = None
    try:
        d.wait_ready()
        if not relay_available(d):
            pytest.skip("no relay in this build")
        configure(d, "dhcp-server pool lan", "default-router 192.168.10.1",
                  "network 192.168.10.0/24", "begin-ip 192.168.10.100 end-ip 192.168.10.110",
                  f"lease {LEASE}", "exit", "dhcp-server enable")
        client = subprocess.Popen(["ip", "netns", "exec", host.name, "dhclient", "-d", "-1",
                                   *files, "eth0"],
                                  stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        wait_until(lambda: events(ev, "BOUND"), 20, what="dhclient bound")
        assert events(ev, "BOUND") == [f"BOUND ip=192.168.10.100 lease={LEASE}"]
        cap = Capture(host, tmp_path)
        configure(d, "dhcp-relay enable")
        assert len(port_sockets(switch.ns, 67)) == 1

        wait_until(lambda: events(ev, "RENEW"), 2 * LEASE, what="dhclient renewal at T1")
        assert events(ev, "RENEW") == [f"RENEW ip=192.168.10.100 lease={LEASE}"]
        reply = "IP 192.168.10.1.67 > 192.168.10.100.68: BOOTP/DHCP, Reply"
        wait_until(lambda: any(reply in l for l in cap.lines()), what="reply on the wire")
        lines = cap.lines()
        assert len(lines) == 2, lines
        assert "IP 192.168.10.100.68 > 192.168.10.1.67: BOOTP/DHCP, Request" in lines[0]
        assert reply in lines[1]
        assert d.proc.poll() is None
    finally:
        if cap:
            cap.stop()
        if client:
            client.kill()
            client.wait()
        d.stop()
