"""Conformance of the server's replies, checked with scapy as an independent
codec: requests are built by scapy and sent as Ethernet frames from a host
behind a switch port; replies are captured on that port and compared field by
field, options in order.

The server reads requests from one socket and answers each before it reads
the next, so "no (further) reply" is checked without a time window: after a
request, a barrier (an INFORM, always answered) is sent, and once the
barrier's answer is in, every answer to the request would be in too."""
import itertools
import socket
import struct
import time

import pytest
from scapy.all import BOOTP, DHCP, IP, UDP, Ether

from conftest import Daemon, run, wait_until
from msgutil import in_netns

ETH_P_ALL = 0x0003
SERVER = "192.168.10.1"
CLIENT_MAC = "02:00:00:00:0a:01"
HOST_IP = "192.168.10.2"
REPLY_BOUND = 60


def mac_bytes(mac):
    return bytes.fromhex(mac.replace(":", ""))


class Client:
    """A raw socket on a host's eth0, opened inside the host's namespace."""

    def __init__(self, host, mac):
        self.mac = mac
        with in_netns(host):
            self.sock = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ALL))
            self.sock.bind(("eth0", 0))
        self.sock.settimeout(0.2)
        self.barriers = itertools.count(0xBA000001)

    def send(self, frame):
        self.drain()
        self.sock.send(bytes(frame))

    def drain(self):
        self.sock.setblocking(False)
        try:
            while True:
                self.sock.recv(65535)
        except BlockingIOError:
            pass
        self.sock.settimeout(0.2)

    def replies(self, xid, want=1):
        """The DHCP replies (server port 67 to client port 68) for `xid`: waits
        for `want` of them, then sends a barrier and collects any further
        replies until the barrier's own arrives."""
        out = self._collect(lambda got: len(got[xid]) >= want, xid)[xid]
        barrier = next(self.barriers)
        self.sock.send(bytes(request(self.mac, barrier, "inform", src=HOST_IP, dst=SERVER,
                                     ciaddr=HOST_IP)))
        got = self._collect(lambda got: got[barrier], xid, barrier)
        return out + got[xid]

    def _collect(self, done, *xids):
        """Reads replies for `xids` until done({xid: [replies]}); the bound
        only limits the wait."""
        got = {x: [] for x in xids}
        end = time.monotonic() + REPLY_BOUND
        while not done(got):
            if time.monotonic() > end:
                raise AssertionError(f"no reply within {REPLY_BOUND} s: {got}")
            try:
                data = self.sock.recv(65535)
            except socket.timeout:
                continue
            p = Ether(data)
            if UDP in p and p[UDP].sport == 67 and p[UDP].dport == 68 and BOOTP in p \
                    and p[BOOTP].xid in got:
                got[p[BOOTP].xid].append(p)
        return got

    def replies_before(self, marker_xid, wait=5.0):
        """Every DHCP reply captured up to and including the one for
        `marker_xid`, as (xid, packet); the wait only bounds a lost marker."""
        out, end = [], time.monotonic() + wait
        while time.monotonic() < end:
            try:
                data = self.sock.recv(65535)
            except socket.timeout:
                continue
            p = Ether(data)
            if UDP in p and p[UDP].sport == 67 and p[UDP].dport == 68 and BOOTP in p:
                out.append((p[BOOTP].xid, p))
                if p[BOOTP].xid == marker_xid:
                    return out
        raise AssertionError(f"no reply to the marker {marker_xid:#x}: {out}")

    def close(self):
        self.sock.close()


def request(mac, xid, msgtype, options=(), src="0.0.0.0", dst="255.255.255.255", **bootp):
    opts = [("message-type", msgtype), *options, "end"]
    return (Ether(src=mac, dst="ff:ff:ff:ff:ff:ff") / IP(src=src, dst=dst) /
            UDP(sport=68, dport=67) /
            BOOTP(op=bootp.pop("op", 1), chaddr=mac_bytes(mac), xid=xid, **bootp) /
            DHCP(options=opts))


def options(p):
    """The reply's options as a list of (name, value), end marker dropped."""
    return [o for o in p[DHCP].options if isinstance(o, tuple)]


def walk(p):
    """(option codes in order, index of the end marker), from the raw bytes."""
    raw = bytes(p[BOOTP])[240:]
    out, i = [], 0
    while i < len(raw) and raw[i] != 255:
        if raw[i] == 0:
            i += 1
            continue
        out.append(raw[i])
        i += 2 + raw[i + 1]
    return out, i


def codes(p):
    return walk(p)[0]


def checksums_ok(p):
    ip_sum, udp_sum = p[IP].chksum, p[UDP].chksum
    fresh = Ether(bytes(p))
    del fresh[IP].chksum
    del fresh[UDP].chksum
    fresh = Ether(bytes(fresh))
    return fresh[IP].chksum == ip_sum and fresh[UDP].chksum == udp_sum


CONFIG = [
    "configure terminal", "log stdout debugging", "debug dhcp packet", "debug dhcp events",
    "dhcp-server pool lan", "default-router 192.168.10.1", "network 192.168.10.0/24",
    "begin-ip 192.168.10.100 end-ip 192.168.10.110", "dns-server 8.8.8.8 1.1.1.1",
    "lease 3600", "exit",
    "dhcp-server pool relayed", "default-router 10.20.0.1", "network 10.20.0.0/24",
    "begin-ip 10.20.0.50 end-ip 10.20.0.59", "dns-server 9.9.9.9", "lease 7200",
    "allow circuit-id port7", "exit",
    "dhcp-server enable",
]


@pytest.fixture
def lab(switch, tmp_path):
    switch.vlan(10, SERVER + "/24")
    host = switch.port(1, 10, mac=CLIENT_MAC)
    host.ip("addr", "add", HOST_IP + "/24", "dev", "eth0")
    d = Daemon(switch.ns, tmp_path)
    client = None
    try:
        d.wait_ready()
        r = d.sh(*CONFIG)
        assert r.returncode == 0, r.stdout
        wait_until(lambda: "interface: vlanif10" in d.sh("show dhcp-server").stdout,
                   what="pool attached")
        client = Client(host, CLIENT_MAC)
        yield d, client, switch, host
    finally:
        if client:
            client.close()
        d.stop()


def offer_for(client, xid, mac=CLIENT_MAC, **kw):
    client.send(request(mac, xid, "discover", **kw))
    got = client.replies(xid)
    assert len(got) == 1, f"{len(got)} replies"
    return got[0]


def test_discover_gets_an_exact_offer(lab):
    d, client, _, _ = lab
    p = offer_for(client, 0x1001)
    b = p[BOOTP]
    assert (b.op, b.htype, b.hlen, b.hops, b.xid) == (2, 1, 6, 0, 0x1001)
    assert (b.ciaddr, b.yiaddr, b.siaddr, b.giaddr) == ("0.0.0.0", "192.168.10.100", SERVER,
                                                       "0.0.0.0")
    assert b.chaddr[:6] == mac_bytes(CLIENT_MAC) and b.flags == 0
    assert codes(p) == [53, 54, 51, 58, 59, 1, 3, 6, 28]
    assert options(p) == [("message-type", 2), ("server_id", SERVER), ("lease_time", 3600),
                          ("renewal_time", 1800), ("rebinding_time", 3150),
                          ("subnet_mask", "255.255.255.0"), ("router", SERVER),
                          ("name_server", "8.8.8.8", "1.1.1.1"),
                          ("broadcast_address", "192.168.10.255")]
    # Unicast to the client's MAC (ciaddr 0 as the destination, as specified).
    assert p[Ether].dst == CLIENT_MAC
    assert (p[IP].src, p[IP].dst, p[IP].ttl) == (SERVER, "0.0.0.0", 64)
    # The datagram ends right after the end marker.
    assert p[IP].len == 20 + 8 + 240 + walk(p)[1] + 1
    assert p[UDP].len == p[IP].len - 20
    assert checksums_ok(p)


def test_request_gets_an_ack_and_the_lease_is_shown(lab):
    d, client, _, _ = lab
    offer_for(client, 0x1002)
    client.send(request(CLIENT_MAC, 0x1003, "request",
                        [("requested_addr", "192.168.10.100"), ("server_id", SERVER),
                         ("hostname", b"alpha")]))
    (p,) = client.replies(0x1003)
    assert options(p)[0] == ("message-type", 5)
    assert codes(p) == [53, 54, 51, 58, 59, 1, 3, 6, 28]
    assert p[BOOTP].yiaddr == "192.168.10.100"
    out = d.sh("show dhcp-server lease").stdout
    assert "192.168.10.100    02-00-00-00-0a-01  alpha" in out
    assert out.endswith("\nTotal: 1 leases match.\n")


def test_request_without_lease_gets_a_broadcast_nak(lab):
    _, client, _, _ = lab
    client.send(request(CLIENT_MAC, 0x1004, "request", [("requested_addr", "192.168.10.105")]))
    (p,) = client.replies(0x1004)
    assert codes(p) == [53, 54]
    assert options(p) == [("message-type", 6), ("server_id", SERVER)]
    assert p[BOOTP].yiaddr == "0.0.0.0"
    assert (p[Ether].dst, p[IP].dst) == ("ff:ff:ff:ff:ff:ff", "255.255.255.255")
    assert checksums_ok(p)


def test_renewing_request_from_a_stranger_gets_no_answer(lab):
    _, client, _, _ = lab
    client.send(request(CLIENT_MAC, 0x1005, "request", ciaddr="192.168.10.107"))
    assert client.replies(0x1005, want=0) == []


def test_broadcast_flag_gets_a_broadcast_offer(lab):
    _, client, _, _ = lab
    p = offer_for(client, 0x1006, flags=0x8000)
    assert p[BOOTP].flags == 0x8000
    assert (p[Ether].dst, p[IP].dst) == ("ff:ff:ff:ff:ff:ff", "255.255.255.255")


def test_inform_gets_pool_options_only(lab):
    _, client, _, _ = lab
    client.send(request(CLIENT_MAC, 0x1007, "inform", src="192.168.10.2", dst=SERVER,
                        ciaddr="192.168.10.2"))
    (p,) = client.replies(0x1007)
    assert codes(p) == [53, 54, 1, 3, 6, 28]
    assert options(p)[0] == ("message-type", 5)
    assert (p[BOOTP].yiaddr, p[BOOTP].ciaddr) == ("0.0.0.0", "192.168.10.2")
    assert (p[Ether].dst, p[IP].dst) == (CLIENT_MAC, "192.168.10.2")


def relayed(xid, options=(), mac="02:00:00:00:0b:01"):
    return request(mac, xid, "discover", options, src="192.168.10.2", dst=SERVER,
                   giaddr="10.20.0.1", hops=1)


def test_relayed_discover_is_served_from_the_relay_pool(lab):
    _, client, _, _ = lab
    client.send(relayed(0x2001))
    (p,) = client.replies(0x2001)
    b = p[BOOTP]
    assert (b.yiaddr, b.giaddr, b.hops) == ("10.20.0.50", "10.20.0.1", 0)
    assert codes(p) == [53, 54, 51, 58, 59, 1, 3, 6, 28]
    assert dict(options(p))["lease_time"] == 7200
    # To the relay's address and the client port, in a broadcast frame.
    assert (p[Ether].dst, p[IP].dst, p[UDP].dport) == ("ff:ff:ff:ff:ff:ff", "10.20.0.1", 68)
    # The relay pool is attached nowhere: its source is its network address.
    assert p[IP].src == "10.20.0.0"
    assert dict(options(p))["server_id"] == SERVER


def test_relayed_discover_with_option82_is_admitted_and_echoed_last(lab):
    _, client, _, _ = lab
    agent = b"\x01\x05port7\x02\x03abc"
    client.send(relayed(0x2002, [("relay_agent_information", agent)]))
    (p,) = client.replies(0x2002)
    assert codes(p) == [53, 54, 51, 58, 59, 1, 3, 6, 28, 82]
    raw = bytes(p[BOOTP])[240:]
    assert raw.endswith(bytes([82, len(agent)]) + agent + b"\xff") or \
        (bytes([82, len(agent)]) + agent + b"\xff") in raw
    # A circuit id no pool allows gets nothing.
    client.send(relayed(0x2003, [("relay_agent_information", b"\x01\x05portX")]))
    assert client.replies(0x2003, want=0) == []


def test_option82_is_ignored_when_handling_is_off(lab):
    d, client, _, _ = lab
    assert d.sh("configure terminal", "dhcp-server information disable").returncode == 0
    client.send(relayed(0x2004, [("relay_agent_information", b"\x01\x05portX")]))
    (p,) = client.replies(0x2004)
    assert 82 not in codes(p)


@pytest.mark.parametrize("name,frame", [
    ("no message type",
     Ether(src=CLIENT_MAC, dst="ff:ff:ff:ff:ff:ff") / IP(src="0.0.0.0", dst="255.255.255.255") /
     UDP(sport=68, dport=67) / BOOTP(chaddr=mac_bytes(CLIENT_MAC), xid=0x3001) /
     DHCP(options=[("hostname", b"x"), "end"])),
    ("hlen 7", request(CLIENT_MAC, 0x3001, "discover", hlen=7)),
    ("BOOTREPLY", request(CLIENT_MAC, 0x3001, "discover", op=2)),
    ("bad option 82", request(CLIENT_MAC, 0x3001, "discover",
                              [("relay_agent_information", b"\x01\x09ab")])),
    ("truncated", Ether(src=CLIENT_MAC, dst="ff:ff:ff:ff:ff:ff") /
     IP(src="0.0.0.0", dst="255.255.255.255") / UDP(sport=68, dport=67) / (b"\x01" * 20)),
])
def test_malformed_requests_get_no_reply_and_the_server_goes_on(lab, name, frame):
    d, client, _, _ = lab
    client.send(frame)
    assert client.replies(0x3001, want=0) == [], name
    assert offer_for(client, 0x3002)[BOOTP].yiaddr == "192.168.10.100"
    assert d.proc.poll() is None


def test_exhausted_range_gets_no_offer(lab):
    d, client, _, _ = lab
    r = d.sh("configure terminal", "dhcp-server pool lan",
             "begin-ip 192.168.10.100 end-ip 192.168.10.101")
    assert r.returncode == 0, r.stdout
    for i, want in ((1, "192.168.10.100"), (2, "192.168.10.101")):
        mac = f"02:00:00:00:0c:0{i}"
        assert offer_for(client, 0x4000 + i, mac=mac)[BOOTP].yiaddr == want
    client.send(request("02:00:00:00:0c:03", 0x4003, "discover"))
    assert client.replies(0x4003, want=0) == []
    d.wait_log("no free IP addresses. OFFER abandoned")


def test_release_expires_the_lease_now(lab):
    d, client, _, _ = lab
    offer_for(client, 0x5001)
    client.send(request(CLIENT_MAC, 0x5002, "request",
                        [("requested_addr", "192.168.10.100"), ("server_id", SERVER)]))
    client.replies(0x5002)
    client.send(request(CLIENT_MAC, 0x5003, "release", [("server_id", SERVER)],
                        src="192.168.10.100", dst=SERVER, ciaddr="192.168.10.100"))
    wait_until(lambda: d.sh("show dhcp-server lease 192.168.10.100").stdout.split("\n")[1]
               .split()[-1] == "0", what="expiry now")


def test_expired_address_answered_by_a_host_is_reserved_and_offered(lab):
    """The only address of the range holds an expired lease and another host
    answers ARP for it: the probe reserves it and the offer names it anyway,
    exactly as the search's last step is written."""
    d, client, switch, _ = lab
    other = switch.port(2, 10, mac="02:00:00:00:0d:01")
    r = d.sh("configure terminal", "dhcp-server pool lan",
             "begin-ip 192.168.10.100 end-ip 192.168.10.100", "lease 1")
    assert r.returncode == 0, r.stdout
    offer_for(client, 0x6001)
    client.send(request(CLIENT_MAC, 0x6002, "request",
                        [("requested_addr", "192.168.10.100"), ("server_id", SERVER)]))
    assert client.replies(0x6002)
    # Wall-clock seconds: two of them end the one-second lease, whatever
    # the machine's speed.
    granted = time.time()
    wait_until(lambda: time.time() >= granted + 2.2, what="the lease's end")
    other.ip("addr", "add", "192.168.10.100/24", "dev", "eth0")
    client.send(request("02:00:00:00:0d:02", 0x6003, "discover"))
    got = client.replies(0x6003)
    d.wait_log("192.168.10.100 belongs to someone, reserving it for 60 seconds")
    assert [p[BOOTP].yiaddr for p in got] == ["192.168.10.100"]


MARKER_XID = 0x7fff


def answers_to(client, frame, xid):
    """Replies to `frame`: it is sent, then a DISCOVER as a marker. The server
    handles one datagram after the other, so whatever `frame` gets is captured
    before the marker's offer, and nothing after it can still come."""
    client.send(frame)
    client.sock.send(bytes(request("02:00:00:00:0f:01", MARKER_XID, "discover")))
    return [p for x, p in client.replies_before(MARKER_XID) if x == xid]


@pytest.mark.parametrize("name,opt50", [
    ("0.0.0.0", ("requested_addr", "0.0.0.0")),
    ("empty", (50, b"")),
    ("two bytes", (50, b"\xc0\xa8")),
    ("three bytes of the offered address", (50, b"\xc0\xa8\x0a")),
])
def test_request_carrying_option_50_is_naked_whatever_its_value(lab, name, opt50):
    """Option 50 decides by being there: 0.0.0.0 and short values (missing
    bytes read as 0) are requests for an address no lease holds."""
    d, client, _, _ = lab
    offer_for(client, 0x1101)
    got = answers_to(client, request(CLIENT_MAC, 0x1102, "request", [opt50]), 0x1102)
    assert len(got) == 1, name
    p = got[0]
    assert options(p) == [("message-type", 6), ("server_id", SERVER)], name
    assert (p[BOOTP].yiaddr, p[Ether].dst, p[IP].dst) == \
        ("0.0.0.0", "ff:ff:ff:ff:ff:ff", "255.255.255.255"), name
    assert "no requested IP and no ciaddr, ignoring" not in d.log()


@pytest.mark.parametrize("name,opt54", [
    ("empty", (54, b"")),
    ("three bytes of ours", (54, b"\xc0\xa8\x0a")),
])
def test_short_server_id_names_another_server(lab, name, opt54):
    d, client, _, _ = lab
    frame = request(CLIENT_MAC, 0x1103, "request", [opt54, ("requested_addr", "192.168.10.100")])
    assert answers_to(client, frame, 0x1103) == [], name
    assert "server ID doesn't match, ignoring" in d.log()


def test_empty_overload_option_takes_the_byte_after_its_length(lab):
    """Option 52 with length 0 then the end marker: the end marker (0xff) is
    the overload value, so file is searched, and it holds the message type."""
    _, client, _, _ = lab
    frame = (Ether(src=CLIENT_MAC, dst="ff:ff:ff:ff:ff:ff") /
             IP(src="0.0.0.0", dst="255.255.255.255") / UDP(sport=68, dport=67) /
             BOOTP(chaddr=mac_bytes(CLIENT_MAC), xid=0x1104, file=b"\x35\x01\x01\xff") /
             DHCP(options=[b"\x34\x00", "end"]))
    assert bytes(frame[BOOTP])[236:243] == bytes.fromhex("63825363" "3400ff")
    got = answers_to(client, frame, 0x1104)
    assert len(got) == 1
    assert options(got[0])[0] == ("message-type", 2)
    assert got[0][BOOTP].yiaddr == "192.168.10.100"
