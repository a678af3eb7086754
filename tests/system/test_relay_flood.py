"""A flood of unanswered requests through the relay: memory stays bounded,
the CLI answers during the flood, and real clients still get addresses
after it.

Topology (each box a network namespace):

  generator --eth0==swp1--+                     +--swp8==eth0-- sink 10.20.0.3
  client    --eth0==swp2--+ relay switch        |
                            vlanif10 192.168.10.1/24
                            vlanif20 10.20.0.1/24 --swp9==swp1-- server switch
                                                                 vlanif20 10.20.0.2/24

The relay switch runs our daemon with the relay on and vlanif10's remote
server at the sink, where nothing answers: a UDP socket there only counts
what the relay forwards. The generator sends DISCOVERs with random
transaction ids from random MACs, raw frames through swp1, never more than
WINDOW frames ahead of what has come out at the sink, so no frame is lost to
a full queue however slow the daemon is. A marker request sent last tells
when the daemon has consumed the whole flood (frames are trapped and handled
in order). Every verdict counts what the relay did; timeouts only bound the
waits.

The first part of the flood passes the transaction list's cap twice, the
second part as much again (more with DHCPD_FLOOD=N, N the whole flood, as
bench/relay_flood runs it). The daemon's RSS is read before the flood and
after each part: the list at its cap costs at most what its items do, and
requests past the cap cost nothing more. Then vlanif10's remote server
moves to our server on the server switch, and udhcpc on swp2 gets an
address through the relay whose list is still full.
"""
import os
import random
import selectors
import socket
import struct
import threading
import time

import pytest

from conftest import Daemon, Switch, run, vty_request, wait_until
from msgutil import in_netns

CAP = 65536  # the relay's transaction list keeps at most this many items
FIRST = 2 * CAP  # the first part of the flood passes the cap twice
FLOOD = int(os.environ.get("DHCPD_FLOOD", 2 * FIRST))
assert FLOOD >= FIRST + CAP, f"DHCPD_FLOOD: at least {FIRST + CAP}"
WINDOW = 1024  # frames sent and not yet seen at the sink, at most
STALL = 120.0  # seconds without any forwarded datagram before giving up
ASKS = 20  # "show dhcp-relay" requests during the flood, at most

# What one item can cost at most: the 40-byte item in its slot, its index
# entry (a 16-byte node, its allocation header, one bucket pointer at load
# factor 1, doubled at a rehash), the free-slot list's word, and the
# sanitizer's redzones around the small allocations.
ITEM_BYTES = 256
# The allocator's arenas, the log's buffers and the sockets' pages of a
# daemon that has handled traffic at all.
SLACK = 16 << 20
PAST_CAP_SLACK = 4 << 20

RELAY_IP, RELAY_LINK_IP = "192.168.10.1", "10.20.0.1"
SERVER_IP, SINK_IP = "10.20.0.2", "10.20.0.3"
SINK_MAC = "02:00:5e:20:00:03"
MARKER_XID = 0x5EED0000  # the generator's xids never come from this range
MARKER_MAC = bytes.fromhex("02005e0a00ff")
FULL_LINE = "dhcp-relay transaction list full (65536 items), dropping the oldest"


def show_relay(server):
    """The answer of "show dhcp-relay" with vlanif10 relaying to `server`."""
    return (
        "********************************\n"
        "DHCP Relay is enabled.\n"
        "********************************\n"
        "\n"
        "Interface         : vlanif10\n"
        f"Remote Server-IP  : {server}\n"
        "Option-82 Enable  : Disabled\n"
        "Option-82 Strategy: replace\n"
        "Circuit-ID Mode   : normal\n"
        "Remote-ID Mode    : normal\n"
        "Circuit-ID string : \n"
        "Remote-ID String  : \n")


POOL = ("dhcp-server pool relayed", f"default-router {RELAY_IP}", "network 192.168.10.0/24",
        "begin-ip 192.168.10.100 end-ip 192.168.10.199", "lease 3600", "exit",
        "dhcp-server enable")

UDHCPC_SCRIPT = """#!/bin/sh
echo "$1 ip=$ip router=$router" >> {events}
"""

# ---- the flood's frames ----

ETH, IP, UDP = 14, 20, 8
BOOTP_AT = ETH + IP + UDP
PAYLOAD = 300  # a client pads its message to the BOOTP minimum


def discover_template():
    """A broadcast DISCOVER frame; the MAC and xid are filled in per frame."""
    options = bytes([53, 1, 1, 55, 4, 1, 3, 6, 51, 255])
    bootp = struct.pack("!BBBBIHHIIII16s64s128sI", 1, 1, 6, 0, 0, 0, 0, 0, 0, 0, 0, b"", b"",
                        b"", 0x63825363) + options
    bootp += bytes(PAYLOAD - len(bootp))
    udp = struct.pack("!HHHH", 68, 67, UDP + len(bootp), 0)  # checksum 0: none
    ip = bytearray(struct.pack("!BBHHHBBH4s4s", 0x45, 0, IP + len(udp) + len(bootp), 0, 0, 64,
                               17, 0, bytes(4), b"\xff" * 4))
    total = sum(struct.unpack("!10H", ip))
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    struct.pack_into("!H", ip, 10, ~total & 0xFFFF)
    return bytearray(b"\xff" * 6 + bytes(6) + b"\x08\x00" + ip + udp + bootp)


def fill(frame, mac, xid):
    frame[6:12] = mac
    frame[BOOTP_AT + 28:BOOTP_AT + 34] = mac  # chaddr
    struct.pack_into("!I", frame, BOOTP_AT + 4, xid)


class Flood:
    """The generator's raw socket and the sink's counting socket."""

    def __init__(self, generator, sink):
        with in_netns(generator):
            self.tx = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
            self.tx.bind(("eth0", 0))
        with in_netns(sink):
            self.rx = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            self.rx.setsockopt(socket.SOL_SOCKET, 33, 32 << 20)  # SO_RCVBUFFORCE
            self.rx.bind(("0.0.0.0", 67))
        self.rx.setblocking(False)
        self.sel = selectors.DefaultSelector()
        self.sel.register(self.rx, selectors.EVENT_READ)
        self.frame = discover_template()
        self.rng = random.Random(0xF100D)
        self.seen = 0  # flood requests forwarded to the sink, all parts
        self.markers = 0
        self.foreign = []  # datagrams at the sink that are not relayed DISCOVERs
        self.buf = bytearray(2048)
        self.marker_no = 0

    def close(self):
        self.sel.close()
        self.tx.close()
        self.rx.close()

    def drain(self, wait):
        """Counts what has reached the sink; waits up to `wait` s for the first."""
        if wait and not self.sel.select(wait):
            return False
        got = False
        while True:
            try:
                n = self.rx.recv_into(self.buf)
            except BlockingIOError:
                return got
            got = True
            msg = bytes(self.buf[:n])
            # As relayed: a request, hops 1, giaddr the relay's VLAN address.
            if n < 240 or msg[0] != 1 or msg[3] != 1 or msg[24:28] != socket.inet_aton(RELAY_IP):
                self.foreign.append(msg[:64])
            elif struct.unpack_from("!I", msg, 4)[0] & 0xFFFF0000 == MARKER_XID:
                self.markers += 1
            else:
                self.seen += 1

    def send_marker(self):
        self.marker_no += 1
        fill(self.frame, MARKER_MAC, MARKER_XID | self.marker_no)
        self.tx.send(self.frame)

    def through(self):
        """Sends a marker and waits until one comes out at the sink: every
        frame trapped before it has then been handled. Markers are sent again
        while waiting, in case one was lost."""
        before = self.markers
        end = time.monotonic() + STALL
        while self.markers == before:
            assert time.monotonic() < end, f"no marker came through the relay in {STALL} s"
            self.send_marker()
            deadline = time.monotonic() + 2
            while self.markers == before and time.monotonic() < deadline:
                self.drain(0.2)

    def send(self, count, on_progress=None):
        """Sends `count` DISCOVERs with random xids from random MACs, at most
        WINDOW ahead of what the sink has seen, then waits for them all to be
        handled. on_progress(sent) is called after every batch."""
        start_seen = self.seen
        sent = 0
        last_progress, last_seen = time.monotonic(), self.seen
        rnd = self.rng.randbytes
        while sent < count:
            room = min(256, count - sent, WINDOW - (sent - (self.seen - start_seen)))
            if room <= 0:
                self.drain(0.5)
                if self.seen != last_seen:
                    last_progress, last_seen = time.monotonic(), self.seen
                assert time.monotonic() - last_progress < STALL, \
                    f"the relay stopped forwarding: {self.seen - start_seen} of {sent} sent"
                continue
            block = rnd(10 * room)
            for i in range(room):
                mac = bytearray(block[10 * i:10 * i + 6])
                mac[0] = (mac[0] & 0xFC) | 0x02  # unicast, locally administered
                xid = struct.unpack_from("!I", block, 10 * i + 6)[0]
                if xid & 0xFFFF0000 == MARKER_XID:
                    xid ^= 0x80000000
                fill(self.frame, mac, xid)
                self.tx.send(self.frame)
            sent += room
            self.drain(0)
            if on_progress:
                on_progress(sent)
        self.through()
        return self.seen - start_seen


def cpu_seconds(pid):
    """utime + stime of a process so far."""
    fields = open(f"/proc/{pid}/stat").read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def rss(pid):
    for line in open(f"/proc/{pid}/status"):
        if line.startswith("VmRSS:"):
            return int(line.split()[1]) * 1024
    raise AssertionError("no VmRSS")


# ---- the topology ----


@pytest.fixture
def net():
    relay, server = Switch(), Switch()
    try:
        relay.vlan(10, f"{RELAY_IP}/24")
        relay.vlan(20, f"{RELAY_LINK_IP}/24")
        generator = relay.port(1, 10)
        # A million random source MACs would fill the bridge's forwarding
        # table, which is not what is measured here.
        relay.ns.ip("link", "set", "swp1", "type", "bridge_slave", "learning", "off")
        client = relay.port(2, 10)
        sink = relay.port(8, 20, mac=SINK_MAC)
        sink.ip("addr", "add", f"{SINK_IP}/24", "dev", "eth0")
        # Known from the start: no request waits for (or is lost to) ARP.
        relay.ns.ip("neigh", "replace", SINK_IP, "lladdr", SINK_MAC, "dev", "vlanif20", "nud",
                    "permanent")
        server.vlan(20, f"{SERVER_IP}/24")
        run(["ip", "link", "add", "swp9", "netns", relay.ns.name, "type", "veth", "peer", "name",
             "swp1", "netns", server.ns.name])
        relay.ns.ip("link", "set", "swp9", "master", "vlanif20", "up")
        server.ns.ip("link", "set", "swp1", "master", "vlanif20", "up")
        server.ns.ip("route", "add", "192.168.10.0/24", "via", RELAY_LINK_IP)
        for ns, dev in ((relay.ns, "vlanif10"), (relay.ns, "vlanif20"), (server.ns, "vlanif20")):
            wait_until(lambda: "LOWER_UP" in ns.ip("link", "show", dev).stdout, 10,
                       what=f"{dev} up")
        yield relay, server, generator, client, sink
    finally:
        relay.delete()
        server.delete()


@pytest.fixture
def daemons(net, tmp_path):
    relay, server = net[0], net[1]
    # The sanitizer's allocator keeps freed blocks in a quarantine of up to
    # 256 MiB; kept small here, the RSS measures what the daemon holds.
    prelude = 'export ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}quarantine_size_mb=1"; '
    r = Daemon(relay.ns, tmp_path, prelude=prelude)
    s = Daemon(server.ns, tmp_path)
    try:
        r.wait_ready()
        s.wait_ready()
        # Without a syslog daemon each line would be written to the console
        # (one line a request here); the daemon's own log file keeps them.
        out = r.sh("configure terminal", "no log syslog", "dhcp-relay enable",
                   "interface vlanif10", f"dhcp-relay remote-server {SINK_IP}", "quit")
        assert out.returncode == 0 and out.stdout == "", out.stdout + out.stderr
        out = s.sh("configure terminal", *POOL)
        assert out.returncode == 0, out.stdout + out.stderr
        yield r, s
    finally:
        r.stop()
        s.stop()


def ask_during(vty, flood, part, answers, stop):
    """Asks "show dhcp-relay" a few times, until `stop`; records each answer
    with the count forwarded when it came."""
    for _ in range(ASKS):
        if stop.is_set():
            return
        text, code, _ = vty_request(vty, "show dhcp-relay")
        answers.append((text, code, flood.seen - part))
        stop.wait(0.05)


def test_flood_of_unanswered_requests(net, daemons, tmp_path):
    _, _, generator, client, sink = net
    relay, server = daemons
    flood = Flood(generator, sink)
    report = []
    try:
        # The relay forwards at all (the trap is on): one marker through.
        flood.through()
        assert flood.foreign == []
        rss0 = rss(relay.pid)

        t0, cpu0 = time.monotonic(), cpu_seconds(relay.pid)
        first = flood.send(FIRST)
        rss1 = rss(relay.pid)
        assert first == FIRST
        # The list filled once and has stayed full: one line for the episode.
        assert relay.log().count(FULL_LINE) == 1

        # The rest of the flood, with the CLI asked while it runs.
        vty = relay.connect_vty()
        vty.settimeout(STALL)
        answers, stop = [], threading.Event()
        asker = threading.Thread(target=ask_during, args=(vty, flood, flood.seen, answers, stop))
        rest = FLOOD - FIRST

        def start_asking(sent):
            if sent >= rest // 4 and asker.ident is None:
                asker.start()

        try:
            second = flood.send(rest, start_asking)
        finally:
            stop.set()
            if asker.ident is not None:
                asker.join(STALL)
            vty.close()
        elapsed, cpu = time.monotonic() - t0, cpu_seconds(relay.pid) - cpu0
        rss2 = rss(relay.pid)
        assert second == rest
        assert flood.foreign == []
        assert relay.log().count(FULL_LINE) == 1

        assert answers, "the CLI never answered"
        expected = (show_relay(SINK_IP), 0)
        assert all((text, code) == expected for text, code, _ in answers), answers
        # The first answer came while the flood was still being handled.
        assert answers[0][2] < rest, answers[0]

        report.append(f"relay-flood: {FLOOD} requests in {elapsed:.1f} s "
                      f"(relay CPU {cpu:.1f} s), RSS before {rss0 >> 10} KiB, "
                      f"after {FIRST} {rss1 >> 10} KiB, after {FLOOD} {rss2 >> 10} KiB, "
                      f"{len(answers)} CLI answers during")
        # The list at its cap costs at most what its items do...
        assert rss1 - rss0 <= CAP * ITEM_BYTES + SLACK, report
        # ...and requests past the cap cost nothing more.
        assert rss2 - rss1 <= PAST_CAP_SLACK, report
    finally:
        flood.close()
        print("\n" + "\n".join(report))

    # A real client still gets an address, through the relay whose list is
    # still full, from our server on the server switch.
    out = relay.sh("configure terminal", "interface vlanif10",
                   f"dhcp-relay remote-server {SERVER_IP}", "quit")
    assert out.returncode == 0 and out.stdout == "", out.stdout
    assert relay.sh("show dhcp-relay").stdout == show_relay(SERVER_IP)
    ev = tmp_path / "udhcpc.events"
    script = tmp_path / "udhcpc.sh"
    script.write_text(UDHCPC_SCRIPT.format(events=ev))
    script.chmod(0o755)
    client.exec("busybox", "udhcpc", "-i", "eth0", "-f", "-q", "-n", "-t", "10", "-T", "2", "-s",
                str(script), check=False, timeout=60)
    bound = [e for e in (ev.read_text().splitlines() if ev.exists() else [])
             if e.startswith("bound ")]
    assert bound and bound[0].startswith("bound ip=192.168.10.1"), bound
    assert bound[0].endswith(f" router={RELAY_IP}"), bound
    ip = bound[0].split()[1][3:]
    assert 100 <= int(ip.split(".")[3]) <= 199
    mac = client.ip("-br", "link", "show", "eth0").stdout.split()[2].replace(":", "-")
    table = server.sh("show dhcp-server lease").stdout.splitlines()
    assert table[-1] == "Total: 1 leases match.", table
    assert [row.split()[:2] for row in table[1:-1] if row.strip()] == [[ip, mac]], table
    assert relay.log().count(FULL_LINE) == 1
