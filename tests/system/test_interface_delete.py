"""The operator deletes an interface that a pool is attached to ("no
interface IFNAME") on a live dhcpd: the pool lets go of it at once, the
displays and the running configuration keep working, and since the kernel
still has the interface it is learned afresh, so a client on that VLAN is
served again. Run under the sanitizer build this is the use-after-free
check: the daemon must write no sanitizer report."""
import socket

import pytest
from scapy.all import BOOTP, DHCP, IP, UDP, Ether

import sanitizer
from conftest import wait_until
from msgutil import in_netns

ETH_P_ALL = 0x0003
SERVER = "192.168.1.1"
CLIENT_MAC = "02:00:00:00:0a:01"

CONFIG = [
    "configure terminal",
    "dhcp-server pool lan",
    "default-router 192.168.1.1",
    "network 192.168.1.0/24",
    "begin-ip 192.168.1.100 end-ip 192.168.1.110",
    "exit",
    "dhcp-server enable",
]


def pool_line(d):
    """The 'interface: ..., state: ...' line of the pool, or the failure."""
    r = d.sh("show dhcp-server")
    assert r.returncode == 0, f"show dhcp-server failed:\n{r.stdout}{r.stderr}\n{d.log()}"
    lines = [l for l in r.stdout.splitlines() if l.startswith("interface: ")]
    assert len(lines) == 1, r.stdout
    return lines[0]


def no_sanitizer_report(d):
    # Checked here as well as when the daemon stops: the report is wanted
    # from the moment the freed interface could have been read.
    sanitizer.check_outcome("dhcpd", 0, d.log())


class Client:
    """A raw socket on the host's eth0, opened inside the host's namespace."""

    def __init__(self, host):
        with in_netns(host):
            self.sock = socket.socket(socket.AF_PACKET, socket.SOCK_RAW,
                                      socket.htons(ETH_P_ALL))
            self.sock.bind(("eth0", 0))
        self.sock.settimeout(0.2)

    def discover(self, xid):
        frame = (Ether(src=CLIENT_MAC, dst="ff:ff:ff:ff:ff:ff") /
                 IP(src="0.0.0.0", dst="255.255.255.255") / UDP(sport=68, dport=67) /
                 BOOTP(op=1, chaddr=bytes.fromhex(CLIENT_MAC.replace(":", "")), xid=xid) /
                 DHCP(options=[("message-type", "discover"), "end"]))
        self.sock.send(bytes(frame))

    def reply(self, xid):
        """The next reply for `xid`, or None when none came within the read timeout."""
        try:
            data = self.sock.recv(65535)
        except socket.timeout:
            return None
        p = Ether(data)
        if UDP in p and p[UDP].sport == 67 and BOOTP in p and p[BOOTP].xid == xid:
            return p
        return None

    def close(self):
        self.sock.close()


@pytest.fixture
def served(switch, make_daemon):
    """A dhcpd on the switch with pool 'lan' attached to vlanif10, and a
    client behind port 1 of VLAN 10."""
    switch.vlan(10, SERVER + "/24")
    host = switch.port(1, 10, mac=CLIENT_MAC)
    d = make_daemon(ns=switch.ns)
    r = d.sh(*CONFIG)
    assert (r.returncode, r.stdout) == (0, ""), r.stdout
    wait_until(lambda: pool_line(d) == "interface: vlanif10, state: run", what="pool attached")
    client = Client(host)
    yield d, client
    client.close()


def offer(client, xid):
    """Sends DISCOVERs until an OFFER for `xid` comes (the wait is bounded)."""
    got = []

    def answered():
        client.discover(xid)
        for _ in range(5):
            p = client.reply(xid)
            if p is not None:
                got.append(p)
                return True
        return False

    wait_until(answered, timeout=20, step=0, what="an OFFER")
    return got[0]


def options(p):
    return [o for o in p[DHCP].options if isinstance(o, tuple)]


def test_no_interface_detaches_the_pool_and_the_daemon_serves_on(served):
    d, client = served
    r = d.sh("configure terminal", "no interface vlanif10")
    assert (r.returncode, r.stdout) == (0, "")
    # The displays walk the pool right after the record went.
    assert pool_line(d) in ("interface: all, state: run", "interface: vlanif10, state: run")
    r = d.sh("show running-config")
    assert r.returncode == 0, r.stdout
    assert " network 192.168.1.0/24\n begin-ip 192.168.1.100 end-ip 192.168.1.110\n" in r.stdout
    # The kernel still has vlanif10: learned again, with its address.
    wait_until(lambda: pool_line(d) == "interface: vlanif10, state: run", what="pool attached again")
    p = offer(client, 0x5001)
    assert options(p)[:2] == [("message-type", 2), ("server_id", SERVER)]
    assert p[BOOTP].yiaddr == "192.168.1.100"
    assert d.proc.poll() is None
    no_sanitizer_report(d)


def test_no_interface_twice_and_inside_its_own_node(served):
    d, client = served
    s = d.sh("configure terminal", "interface vlanif10", "no interface vlanif10",
             "no interface vlanif10", "interface vlanif10", "exit")
    assert (s.returncode, s.stdout) == (0, "")
    pool_line(d)
    wait_until(lambda: pool_line(d) == "interface: vlanif10, state: run", what="pool attached again")
    p = offer(client, 0x5002)
    assert p[BOOTP].yiaddr == "192.168.1.100"
    r = d.sh("configure terminal", "no dhcp-server pool lan")
    assert (r.returncode, r.stdout) == (0, "")
    assert "dhcp-server pool" not in d.sh("show dhcp-server").stdout
    assert d.proc.poll() is None
    no_sanitizer_report(d)


def test_a_session_configuring_a_deleted_interface_is_moved_out(served):
    d, _ = served
    from conftest import vty_request
    a, b = d.connect_vty(), d.connect_vty()
    try:
        assert vty_request(a, "configure terminal")[1] == 0
        text, code, prompt = vty_request(a, "interface vlanif10")
        assert (text, code) == ("", 0) and prompt.endswith("(config-if)# "), prompt
        assert vty_request(a, "dhcp-relay remote-server 10.9.9.9")[1] == 0
        # Another operator deletes the interface under the first session.
        assert vty_request(b, "configure terminal")[1] == 0
        assert vty_request(b, "no interface vlanif10")[:2] == ("", 0)
        # The first session is back in the configuration node with no
        # interface; its interface commands are no longer reachable there.
        text, code, prompt = vty_request(a, "dhcp-relay information enable")
        assert prompt.endswith("(config)# "), prompt
        assert code != 0
        assert vty_request(a, "show dhcp-relay")[1] == 0
    finally:
        a.close()
        b.close()
    assert d.proc.poll() is None
    no_sanitizer_report(d)
