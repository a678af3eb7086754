"""The load generator bench/dhcpload against our server, for correctness only:
every exchange completes, each client gets its own address from the pool and
the server's lease table agrees. Rates are modest and losses are retried, so
nothing here depends on the machine's speed; malformed replies never stop the
generator."""
import re
import signal
import subprocess
import threading

import pytest
from scapy.all import BOOTP, DHCP, IP, UDP, Dot1Q, Ether, Raw, sendp

import sanitizer
from conftest import BUILD, Daemon, wait_until
from msgutil import in_netns

DHCPLOAD = BUILD / "bench" / "dhcpload"
CLIENTS = 200
POOL = ("dhcp-server pool vlan10", "default-router 192.168.10.1", "network 192.168.10.0/24",
        "begin-ip 192.168.10.10 end-ip 192.168.10.250", "lease 3600", "exit")


@pytest.fixture
def server(switch, tmp_path):
    switch.vlan(10, "192.168.10.1/24")
    d = Daemon(switch.ns, tmp_path)
    try:
        d.wait_ready()
        r = d.sh("configure terminal", *POOL, "dhcp-server enable")
        assert r.returncode == 0, r.stdout
        wait_until(lambda: "interface: vlanif10" in d.sh("show dhcp-server").stdout,
                   what="pool attached")
        yield d
    finally:
        d.stop()


def summary(out):
    lines = [l for l in out.splitlines() if l.startswith("dhcpload: sent_discover=")]
    assert len(lines) == 1, out
    return {k: v for k, v in re.findall(r"(\w+)=([^ ]+)", lines[0])}


def leases(out):
    return [tuple(l.split()[1:]) for l in out.splitlines() if l.startswith("lease ")]


def load(host, *args):
    # At most 3 retransmissions a message: a busy machine may lose a frame,
    # never an exchange.
    r = host.exec(str(DHCPLOAD), "-i", "eth0", "--clients", str(CLIENTS), "--exchanges",
                  str(CLIENTS), "--rate", "100", "--seconds", "600", "--timeout", "1",
                  "--retries", "3", "--leases", *args, check=False, timeout=300)
    sanitizer.checked(r, "dhcpload")
    return r.stdout


def check_all_leased(server, out):
    s = summary(out)
    assert s["sent_discover"] == str(CLIENTS)
    assert (s["completed"], s["acks"], s["naks"], s["timeouts"]) == (str(CLIENTS),) * 2 + ("0",) * 2
    got = leases(out)
    assert sorted(mac for mac, _ in got) == [f"02:00:00:00:{i >> 8:02x}:{i & 0xff:02x}"
                                             for i in range(CLIENTS)]
    ips = [ip for _, ip in got]
    assert len(set(ips)) == CLIENTS
    assert all(10 <= int(ip.split(".")[3]) <= 250 and ip.startswith("192.168.10.") for ip in ips)
    # The server's table holds exactly these bindings.
    table = server.sh("show dhcp-server lease").stdout.splitlines()
    assert table[-1] == f"Total: {CLIENTS} leases match."
    rows = {tuple(row.split()[:2]) for row in table[1:-1] if row.strip()}
    assert rows == {(ip, mac.replace(":", "-")) for mac, ip in got}


def test_direct_clients_each_get_an_address(switch, server):
    host = switch.port(1, 10)
    check_all_leased(server, load(host))


def test_direct_broadcast_flag(switch, server):
    host = switch.port(1, 10)
    check_all_leased(server, load(host, "--broadcast"))


def test_relay_mode_replies_at_port_68(switch, server):
    """As a relay agent with giaddr = its own address: our server answers the
    relayed requests at giaddr port 68."""
    host = switch.port(1, 10)
    host.ip("addr", "add", "192.168.10.2/24", "dev", "eth0")
    out = load(host, "--mode", "relay", "--server", "192.168.10.1", "--port", "68")
    check_all_leased(server, out)


def garbage(mac):
    """Frames a client port may see: five replies that match no exchange
    (cut short, no server identifier, an option running past the end, a
    foreign transaction id untagged and tagged), then five broken frames that
    never reach the message parser."""
    head = Ether(dst=mac, src="02:aa:00:00:00:01")
    ip_udp = IP(src="192.168.10.1", dst="255.255.255.255") / UDP(sport=67, dport=68)
    reply = head / ip_udp
    ours = BOOTP(op=2, xid=0, chaddr=bytes.fromhex("020000000000"), yiaddr="192.168.10.9")
    foreign = BOOTP(op=2, xid=0xffffffff) / DHCP(options=[("message-type", "ack"), "end"])
    whole = bytes(reply / foreign)
    udp_at = 14 + 20
    return [
        reply / Raw(b"\x02\x01\x06"),
        reply / ours / DHCP(options=[("message-type", "offer"), "end"]),
        reply / ours / Raw(b"\x63\x82\x53\x63\x35\x05\x02"),
        reply / foreign,
        head / Dot1Q(vlan=10) / ip_udp / foreign,
        Ether(dst=mac, type=0x0800) / Raw(b"\x45"),              # no room for IPv4
        Ether(dst=mac, type=0x8100) / Raw(b"\x00"),              # tag cut short
        head / IP(ihl=15, proto=17) / Raw(b"\x00" * 8),          # header past the end
        Ether(whole[:16] + b"\xff\xff" + whole[18:]),             # IP length past the end
        Ether(whole[:udp_at + 4] + b"\xff\xff" + whole[udp_at + 6:]),  # UDP length too
    ]


def test_malformed_replies_never_stop_the_generator(switch):
    """No server: the generator reads only broken frames and replies that
    belong to none of its exchanges, counts the replies as unmatched and ends
    with its summary when told to stop."""
    switch.vlan(10)
    host = switch.port(1, 10)
    proc = host_popen(host, "--clients", "4", "--rate", "10", "--seconds", "600", "--progress")
    watchdog = threading.Timer(120, proc.send_signal, (signal.SIGINT,))
    watchdog.start()
    try:
        assert proc.stderr.readline().startswith("dhcpload: ready on eth0"), proc.stderr.read()
        with in_netns(switch.ns):
            sendp(garbage("02:00:00:00:00:00") * 20, iface="swp1", verbose=False)
        for line in proc.stderr:
            if "unmatched=100" in line:
                break
    finally:
        watchdog.cancel()
        proc.send_signal(signal.SIGINT)
        out, err = proc.communicate(timeout=30)
    sanitizer.check_outcome("dhcpload", proc.returncode, out + err)
    s = summary(out)
    assert (s["offers"], s["acks"], s["completed"], s["unmatched"]) == ("0", "0", "0", "100")


def host_popen(host, *args):
    return subprocess.Popen(["ip", "netns", "exec", host.name, str(DHCPLOAD), "-i", "eth0", *args],
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
