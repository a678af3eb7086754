"""Real DHCP clients on a simulated switch: busybox udhcpc, ISC dhclient and
dhcpcd obtain an address from the pool of their VLAN, renew it by unicast,
and release it; static and port bindings are honoured."""
import pathlib
import re
import signal
import subprocess

import pytest

from conftest import Daemon, run, wait_until

LEASE = 20  # renewal after 10 s

POOLS = [
    ("configure terminal", "log stdout debugging", "debug dhcp packet"),
    ("dhcp-server pool vlan10", "default-router 192.168.10.1", "network 192.168.10.0/24",
     "begin-ip 192.168.10.100 end-ip 192.168.10.200", "dns-server 8.8.8.8 1.1.1.1",
     f"lease {LEASE}", "exit"),
    ("dhcp-server pool vlan20", "default-router 192.168.20.1", "network 192.168.20.0/24",
     "begin-ip 192.168.20.50 end-ip 192.168.20.60", "dns-server 9.9.9.9",
     f"lease {LEASE}", "exit"),
    ("dhcp-server enable",),
]


@pytest.fixture
def server(switch, tmp_path):
    switch.vlan(10, "192.168.10.1/24")
    switch.vlan(20, "192.168.20.1/24")
    d = Daemon(switch.ns, tmp_path)
    try:
        d.wait_ready()
        cmds = [c for group in POOLS for c in group]
        r = d.sh(*cmds)
        assert r.returncode == 0, r.stdout
        wait_until(lambda: d.sh("show dhcp-server").stdout.count("interface: vlanif") == 2,
                   what="pools attached")
        yield d
    finally:
        d.stop()


class Capture:
    """tcpdump on a host's eth0: DHCP traffic as text lines. Ready once
    tcpdump says it listens."""

    def __init__(self, host, path):
        self.path = path
        self.out = open(path, "w")
        self.err_path = pathlib.Path(str(path) + ".err")
        self.err = open(self.err_path, "w")
        self.proc = subprocess.Popen(
            ["ip", "netns", "exec", host.name, "tcpdump", "-i", "eth0", "-n", "-l",
             "udp port 67 or udp port 68"], stdout=self.out, stderr=self.err)
        wait_until(lambda: "listening on eth0" in self.err_path.read_text()
                   or self.proc.poll() is not None, what="tcpdump listening")
        assert self.proc.poll() is None, self.err_path.read_text()

    def lines(self):
        self.out.flush()
        return open(self.path).read().splitlines()

    def stop(self):
        self.proc.terminate()
        self.proc.wait()
        self.out.close()
        self.err.close()


def events(path):
    try:
        return open(path).read().splitlines()
    except FileNotFoundError:
        return []


def event_with(path, prefix):
    return [e for e in events(path) if e.startswith(prefix)]


def lease_line(d, ip):
    out = d.sh(f"show dhcp-server lease {ip}").stdout.splitlines()
    rows = [l for l in out if l.startswith(ip + " ")]
    return rows[0].split() if rows else None


def assert_unicast_renewal(cap, client_ip, server_ip):
    request = rf"IP {re.escape(client_ip)}\.68 > {re.escape(server_ip)}\.67: BOOTP/DHCP, Request"
    reply = rf"IP {re.escape(server_ip)}\.67 > {re.escape(client_ip)}\.68: BOOTP/DHCP, Reply"
    # tcpdump may print the lines a moment after the client has acted on them.
    seen = lambda: all(re.search(x, "\n".join(cap.lines())) for x in (request, reply))
    try:
        wait_until(seen, what="unicast renewal on the wire")
    except AssertionError:
        raise AssertionError("\n".join(cap.lines()))


UDHCPC_SCRIPT = """#!/bin/sh
case "$1" in
  bound|renew) ip addr flush dev "$interface"; ip addr add "$ip/$mask" dev "$interface" ;;
  deconfig) ip addr flush dev "$interface" ;;
esac
echo "$1 ip=$ip router=$router dns=$dns lease=$lease" >> {events}
"""


def test_udhcpc_obtains_renews_and_releases(server, switch, tmp_path):
    host = switch.port(3, 20)
    ev = tmp_path / "udhcpc.events"
    script = tmp_path / "udhcpc.sh"
    script.write_text(UDHCPC_SCRIPT.format(events=ev))
    script.chmod(0o755)
    cap = Capture(host, tmp_path / "udhcpc.pcap.txt")
    client = subprocess.Popen(["ip", "netns", "exec", host.name, "busybox", "udhcpc", "-i",
                               "eth0", "-f", "-t", "10", "-T", "3", "-s", str(script)],
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        wait_until(lambda: event_with(ev, "bound"), 60, what="udhcpc bound")
        assert event_with(ev, "bound")[0] == \
            f"bound ip=192.168.20.50 router=192.168.20.1 dns=9.9.9.9 lease={LEASE}"
        row = lease_line(server, "192.168.20.50")
        assert row is not None and row[2] == str(LEASE)
        client.send_signal(signal.SIGUSR1)  # renew now
        wait_until(lambda: event_with(ev, "renew"), 60, what="udhcpc renew")
        assert event_with(ev, "renew")[0].startswith("renew ip=192.168.20.50 ")
        assert_unicast_renewal(cap, "192.168.20.50", "192.168.20.1")
        client.send_signal(signal.SIGUSR2)  # release
        wait_until(lambda: lease_line(server, "192.168.20.50")[-1] == "0",
                   what="lease released")
        assert server.proc.poll() is None
    finally:
        client.kill()
        client.wait()
        cap.stop()


DHCLIENT_SCRIPT = """#!/bin/sh
case "$reason" in
  BOUND|RENEW|REBIND|REBOOT)
    ip addr flush dev "$interface"
    ip addr add "$new_ip_address/$new_subnet_mask" dev "$interface" ;;
  RELEASE|EXPIRE|STOP) ip addr flush dev "$interface" ;;
esac
echo "$reason ip=$new_ip_address routers=$new_routers dns=$new_domain_name_servers lease=$new_dhcp_lease_time" >> {events}
"""


def test_dhclient_obtains_renews_and_releases(server, switch, tmp_path):
    host = switch.port(1, 10)
    ev = tmp_path / "dhclient.events"
    script = tmp_path / "dhclient.sh"
    script.write_text(DHCLIENT_SCRIPT.format(events=ev))
    script.chmod(0o755)
    files = ["-sf", str(script), "-lf", str(tmp_path / "dhclient.leases"),
             "-pf", str(tmp_path / "dhclient.pid")]
    cap = Capture(host, tmp_path / "dhclient.pcap.txt")
    client = subprocess.Popen(["ip", "netns", "exec", host.name, "dhclient", "-d", "-1", *files,
                               "eth0"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        wait_until(lambda: event_with(ev, "BOUND"), 90, what="dhclient bound")
        assert event_with(ev, "BOUND")[0] == (
            f"BOUND ip=192.168.10.100 routers=192.168.10.1 dns=8.8.8.8 1.1.1.1 lease={LEASE}")
        wait_until(lambda: event_with(ev, "RENEW"), 60, what="dhclient renewal at T1")
        assert event_with(ev, "RENEW")[0].startswith("RENEW ip=192.168.10.100 ")
        assert_unicast_renewal(cap, "192.168.10.100", "192.168.10.1")
        r = run(["ip", "netns", "exec", host.name, "dhclient", "-r", *files, "eth0"],
                check=False, timeout=60)
        assert r.returncode == 0, r.stderr
        wait_until(lambda: lease_line(server, "192.168.10.100")[-1] == "0",
                   what="lease released")
    finally:
        client.kill()
        client.wait()
        cap.stop()


DHCPCD_SCRIPT = """#!/bin/sh
echo "$reason ip=$new_ip_address routers=$new_routers dns=$new_domain_name_servers lease=$new_dhcp_lease_time" >> {events}
"""


def test_dhcpcd_obtains_renews_and_releases(server, switch, tmp_path):
    host = switch.port(2, 10)
    ev = tmp_path / "dhcpcd.events"
    script = tmp_path / "dhcpcd.sh"
    script.write_text(DHCPCD_SCRIPT.format(events=ev))
    script.chmod(0o755)
    # dhcpcd keeps state in /run and /var/lib/dhcpcd: give it private ones.
    inner = ("mount -t tmpfs tmpfs /run && mkdir -p /var/lib/dhcpcd && "
             "mount -t tmpfs tmpfs /var/lib/dhcpcd && "
             f"exec dhcpcd -B -4 -L -f /dev/null -c {script} -t 90 eth0")
    cap = Capture(host, tmp_path / "dhcpcd.pcap.txt")
    client = subprocess.Popen(["ip", "netns", "exec", host.name, "unshare", "--mount",
                               "--propagation", "private", "sh", "-c", inner],
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        wait_until(lambda: event_with(ev, "BOUND"), 90, what="dhcpcd bound")
        assert event_with(ev, "BOUND")[0] == (
            f"BOUND ip=192.168.10.100 routers=192.168.10.1 dns=8.8.8.8 1.1.1.1 lease={LEASE}")
        wait_until(lambda: event_with(ev, "RENEW"), 60, what="dhcpcd renewal at T1")
        assert_unicast_renewal(cap, "192.168.10.100", "192.168.10.1")
        r = run(["nsenter", "-t", str(client.pid), "-m", "-n", "dhcpcd", "-4", "-k", "eth0"],
                check=False, timeout=60)
        assert r.returncode == 0, r.stderr
        wait_until(lambda: lease_line(server, "192.168.10.100")[-1] == "0",
                   what="lease released")
    finally:
        client.kill()
        client.wait()
        cap.stop()


def obtain_once(host, tmp_path, name):
    """One udhcpc exchange (-q: quit once bound); returns the bound event."""
    ev = tmp_path / f"{name}.events"
    script = tmp_path / f"{name}.sh"
    script.write_text(UDHCPC_SCRIPT.format(events=ev))
    script.chmod(0o755)
    run(["ip", "netns", "exec", host.name, "busybox", "udhcpc", "-i", "eth0", "-f", "-q", "-n",
         "-t", "10", "-T", "3", "-s", str(script)], check=False, timeout=60)
    bound = event_with(ev, "bound")
    assert bound, events(ev)
    return bound[0]


def test_static_binding_gives_the_bound_address(server, switch, tmp_path):
    host = switch.port(4, 10, mac="02:00:00:00:00:42")
    r = server.sh("configure terminal", "dhcp-server pool vlan10",
                  "static 192.168.10.150 02-00-00-00-00-42")
    assert r.returncode == 0, r.stdout
    assert obtain_once(host, tmp_path, "static").startswith("bound ip=192.168.10.150 ")


def test_port_binding_gives_the_ports_address(server, switch, tmp_path):
    host = switch.port(5, 10)
    r = server.sh("configure terminal", "dhcp-server pool vlan10",
                  "port-bind swp5 192.168.10.160")
    assert r.returncode == 0, r.stdout
    assert obtain_once(host, tmp_path, "portbind").startswith("bound ip=192.168.10.160 ")
