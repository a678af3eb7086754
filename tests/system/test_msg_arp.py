"""The ARP probe against a responder in a peer namespace.

Where an answer decides the outcome, the probe runs in the tool's hold mode
(its clock stands still, each wait lasts until a frame comes): the frames
alone decide, however slow the machine. How the budget runs out with time
is pinned in tests/unit/test_dhcp_arp.cpp with a fake clock."""
import socket
import threading
import time

import pytest
from scapy.all import ARP, Ether, raw

from msgutil import ETH_P_ARP, VethPair, run_tool, tool

TEST_IP = "10.77.0.99"
CLIENT_MAC = "02:00:5e:00:00:c1"
OTHER_MAC = "02:00:5e:00:00:0e"


@pytest.fixture
def link():
    pair = VethPair()
    yield pair
    pair.delete()


class Responder(threading.Thread):
    """Reads ARP frames on the peer's end; answers requests for TEST_IP from
    `answer_mac` after `delay` seconds, and may send unrelated ARP traffic
    (FLOOD_BURST frames every `flood` seconds) meanwhile."""

    FLOOD_BURST = 4

    def __init__(self, link, answer_mac=None, delay=0.0, flood=None):
        super().__init__(daemon=True)
        self.sock = link.packet_socket(ETH_P_ARP)
        self.sock.settimeout(min(0.05, flood or 0.05))
        self.link = link
        self.answer_mac, self.delay, self.flood = answer_mac, delay, flood
        self.noise = [self.unrelated(n) for n in range(4)]
        self.requests = []
        self.flooded = 0
        self.stop = threading.Event()

    def unrelated(self, n):
        mine = self.link.mac_b
        kinds = [
            # a request for another address
            Ether(dst="ff:ff:ff:ff:ff:ff", src=mine) /
            ARP(op=1, hwsrc=mine, psrc="10.77.0.2", pdst="10.77.0.7"),
            # a reply, but for another address
            Ether(dst=self.link.mac_a, src=mine) /
            ARP(op=2, hwsrc=mine, psrc="10.77.0.50", hwdst=self.link.mac_a, pdst="10.77.0.1"),
            # a request that names the address under test as its target
            Ether(dst="ff:ff:ff:ff:ff:ff", src=mine) /
            ARP(op=1, hwsrc=mine, psrc="10.77.0.2", pdst=TEST_IP),
        ]
        frame = raw(kinds[n % len(kinds)])
        if n % 4 == 3:
            # Shorter than 42 bytes, though its ARP fields say "reply for TEST_IP".
            frame = raw(Ether(dst=self.link.mac_a, src=mine, type=0x0806) /
                        ARP(op=2, psrc=TEST_IP))[:40]
        return frame

    def run(self):
        answer_at = None
        next_flood = time.monotonic()
        while not self.stop.is_set():
            now = time.monotonic()
            if self.flood is not None and now >= next_flood:
                for _ in range(self.FLOOD_BURST):
                    self.sock.send(self.noise[self.flooded % len(self.noise)])
                    self.flooded += 1
                next_flood = now + self.flood
            if answer_at is not None and now >= answer_at:
                answer_at = None
                req = self.requests[-1]
                self.sock.send(raw(Ether(dst=req.src, src=self.answer_mac) /
                                   ARP(op=2, hwsrc=self.answer_mac, psrc=TEST_IP,
                                       hwdst=req[ARP].hwsrc, pdst=req[ARP].psrc)))
            try:
                data = self.sock.recv(2048)
            except socket.timeout:
                continue
            pkt = Ether(data)
            if ARP in pkt and pkt[ARP].op == 1 and pkt[ARP].pdst == TEST_IP and \
                    pkt.src == self.link.mac_a:
                self.requests.append(pkt)
                self.raw_request = data
                if self.answer_mac is not None:
                    answer_at = time.monotonic() + self.delay

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *exc):
        self.stop.set()
        self.join(5)
        self.sock.close()


def probe(link, safe_mac="-", user=None, hold=False):
    """Runs the tool; returns (result, waits, log lines)."""
    cmd = [tool("dhcp_arp_tool"), link.if_a, TEST_IP, link.addr_a, link.mac_a, safe_mac]
    if hold:
        cmd.append("hold")
    if user is not None:
        cmd = ["setpriv", f"--reuid={user}", f"--regid={user}", "--clear-groups"] + cmd
    out = run_tool(link.a, *cmd, timeout=300).stdout.splitlines()
    logs = [l[4:] for l in out if l.startswith("log ")]
    _, result, _, waits = next(l for l in out if l.startswith("result ")).split()
    return int(result), int(waits), logs


def test_no_answer_is_free(link):
    with Responder(link) as r:
        result, _, logs = probe(link, CLIENT_MAC)
    assert result == 1
    assert logs == ["6 No arp reply received for this address"]
    # Exactly one request, and exactly this frame.
    assert len(r.requests) == 1
    expected = (bytes.fromhex("ffffffffffff") + bytes.fromhex(link.mac_a.replace(":", "")) +
                bytes.fromhex("0806 0001 0800 06 04 0001") +
                bytes.fromhex(link.mac_a.replace(":", "")) + socket.inet_aton(link.addr_a) +
                bytes(6) + socket.inet_aton(TEST_IP) + bytes(18))
    assert len(expected) == 60
    assert r.raw_request == expected


def test_another_host_answers_in_use(link):
    with Responder(link, answer_mac=OTHER_MAC, delay=0.2):
        result, waits, logs = probe(link, CLIENT_MAC, hold=True)
    assert (result, waits) == (0, 1)
    assert logs == ["6 Arp reply received for this address"]


def test_answer_without_safe_mac_is_in_use(link):
    with Responder(link, answer_mac=CLIENT_MAC):
        result, waits, logs = probe(link, "-", hold=True)
    assert (result, waits) == (0, 1)
    assert logs == ["6 Arp reply received for this address"]


def test_client_itself_answers_free(link):
    with Responder(link, answer_mac=CLIENT_MAC, delay=0.1):
        result, waits, logs = probe(link, CLIENT_MAC, hold=True)
    # The answer ends the wait: no second one.
    assert (result, waits) == (1, 1)
    assert logs == ["6 No arp reply received for this address"]


def test_unrelated_arp_traffic_does_not_extend_the_budget(link):
    with Responder(link, flood=0.002) as r:
        result, waits, logs = probe(link, CLIENT_MAC, hold=True)
    assert result == 1
    assert logs == ["6 No arp reply received for this address"]
    # Every unrelated frame costs at least a millisecond of the 2000 ms
    # budget: with the clock standing still, 2000 frames spend it all and
    # the one read after them ends the wait.
    assert waits == 2001
    assert r.flooded >= waits


def test_without_privilege_in_use_at_once(link):
    with Responder(link) as r:
        result, waits, logs = probe(link, CLIENT_MAC, user=65534)
    assert (result, waits) == (0, 0)
    assert logs == ["3 can not create raw socket"]
    assert r.requests == []
