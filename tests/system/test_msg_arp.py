"""The ARP probe against a responder in a peer namespace."""
import socket
import threading
import time

import pytest
from scapy.all import ARP, Ether, raw

from msgutil import ETH_P_ARP, VethPair, tool

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
    every `flood` seconds meanwhile."""

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


def probe(link, safe_mac="-", user=None):
    cmd = [tool("dhcp_arp_tool"), link.if_a, TEST_IP, link.addr_a, link.mac_a, safe_mac]
    if user is not None:
        cmd = ["setpriv", f"--reuid={user}", f"--regid={user}", "--clear-groups"] + cmd
    out = link.a.exec(*cmd, timeout=30).stdout.splitlines()
    logs = [l[4:] for l in out if l.startswith("log ")]
    _, result, _, elapsed = next(l for l in out if l.startswith("result ")).split()
    return int(result), int(elapsed), logs


def test_no_answer_is_free_after_two_seconds(link):
    with Responder(link) as r:
        result, elapsed, logs = probe(link, CLIENT_MAC)
    assert result == 1
    assert 1900 <= elapsed <= 2300
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
        result, elapsed, logs = probe(link, CLIENT_MAC)
    assert result == 0
    assert 150 <= elapsed < 1500
    assert logs == ["6 Arp reply received for this address"]


def test_answer_without_safe_mac_is_in_use(link):
    with Responder(link, answer_mac=CLIENT_MAC):
        result, elapsed, logs = probe(link, "-")
    assert result == 0
    assert logs == ["6 Arp reply received for this address"]


def test_client_itself_answers_free(link):
    with Responder(link, answer_mac=CLIENT_MAC, delay=0.1):
        result, elapsed, logs = probe(link, CLIENT_MAC)
    assert result == 1
    assert elapsed < 1500  # the answer ends the wait
    assert logs == ["6 No arp reply received for this address"]


def test_answer_after_the_budget_is_not_seen(link):
    with Responder(link, answer_mac=OTHER_MAC, delay=2.5):
        result, elapsed, _ = probe(link, CLIENT_MAC)
    assert result == 1
    assert elapsed <= 2300


def test_unrelated_arp_traffic_does_not_extend_the_budget(link):
    with Responder(link, flood=0.002) as r:
        start = r.flooded
        result, elapsed, logs = probe(link, CLIENT_MAC)
        sent = r.flooded - start
    assert result == 1
    assert logs == ["6 No arp reply received for this address"]
    assert sent >= 200, "the flood was too thin to mean anything"
    # Every frame wakes the probe and costs at least a millisecond more than
    # measured: the wait ends no later than the budget, usually well before.
    assert elapsed <= 2100
    print(f"probe ended after {elapsed} ms with {sent} unrelated frames")


def test_without_privilege_in_use_at_once(link):
    with Responder(link) as r:
        result, elapsed, logs = probe(link, CLIENT_MAC, user=65534)
    assert result == 0
    assert elapsed < 100
    assert logs == ["3 can not create raw socket"]
    assert r.requests == []
