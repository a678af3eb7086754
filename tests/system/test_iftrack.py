"""Interface and address tracking against a live dhcpd on a simulated switch:
pools attach when an address of their network appears on an interface and
detach when it goes (address removed, interface deleted), as the server
display and the event traces show; and the port of a learned MAC through the
hardware-abstraction layer (tests/tools/hal_probe)."""
import re

import pytest

from conftest import BUILD, run, wait_until
from sanitizer import checked

HAL_PROBE = BUILD / "tests" / "tools" / "hal_probe"


def debug_line(text):
    return f"dhcpd: debug: {text}"


def pool_state(daemon, name):
    """The 'interface: ..., state: ...' line of one pool in show dhcp-server."""
    out = daemon.sh("show dhcp-server").stdout.splitlines()
    for i, line in enumerate(out):
        if line == f"dhcp-server pool {name}":
            for follow in out[i + 1:]:
                if follow.startswith("dhcp-server pool "):
                    break
                if follow.startswith("interface: "):
                    return follow
    return None


def wait_state(daemon, name, want, timeout=30.0):
    wait_until(lambda: pool_state(daemon, name) == want, timeout,
               what=f"{name}: {want!r} (now {pool_state(daemon, name)!r})")


def traced(daemon):
    r = daemon.sh("debug dhcp events", "configure terminal", "log stdout debugging")
    assert r.returncode == 0, r.stdout


def make_pool(daemon, name, router, network):
    r = daemon.sh("configure terminal", f"dhcp-server pool {name}", f"default-router {router}",
                  f"network {network}")
    assert r.returncode == 0, r.stdout


@pytest.fixture
def on_switch(switch, make_daemon):
    """A dhcpd inside the switch's namespace."""
    return make_daemon(ns=switch.ns)


def test_address_add_and_delete_attach_and_detach(switch, on_switch):
    d = on_switch
    switch.vlan(10)
    traced(d)
    make_pool(d, "p1", "192.168.1.1", "192.168.1.0/24")
    assert pool_state(d, "p1") == "interface: all, state: run"

    switch.ns.ip("addr", "add", "192.168.1.1/24", "dev", "vlanif10")
    d.wait_log(debug_line("interface vlanif10 address add 192.168.1.1/24"))
    wait_state(d, "p1", "interface: vlanif10, state: run")

    switch.ns.ip("addr", "del", "192.168.1.1/24", "dev", "vlanif10")
    d.wait_log(debug_line("interface vlanif10 address delete 192.168.1.1/24"))
    wait_state(d, "p1", "interface: all, state: run")


def test_interface_add_up_down_and_delete_are_traced(switch, on_switch):
    d = on_switch
    traced(d)
    make_pool(d, "p1", "192.168.20.1", "192.168.20.0/24")
    switch.ns.ip("link", "add", "vlanif20", "type", "bridge")
    d.wait_log(debug_line("interface add vlanif20 index "))
    line = next(l for l in d.log().splitlines() if "interface add vlanif20" in l)
    assert re.search(r"interface add vlanif20 index \d+ flags [0-9a-f]+ metric 0 mtu 1500$", line)

    switch.ns.ip("link", "set", "vlanif20", "up")
    d.wait_log("is up")
    line = next(l for l in d.log().splitlines() if l.endswith(" is up"))
    assert re.search(r"debug: interface vlanif20 index \d+ flags 0x[0-9a-f]+ metric 0 mtu 1500 is up$",
                     line)
    switch.ns.ip("addr", "add", "192.168.20.1/24", "dev", "vlanif20")
    wait_state(d, "p1", "interface: vlanif20, state: run")

    # Down changes nothing for the pool.
    switch.ns.ip("link", "set", "vlanif20", "down")
    d.wait_log(debug_line("Interface[vlanif20] state change to down."))
    assert pool_state(d, "p1") == "interface: vlanif20, state: run"

    # Deleting the interface detaches; it stays known by name.
    switch.ns.ip("link", "del", "vlanif20")
    d.wait_log(debug_line("interface delete vlanif20 index "))
    wait_state(d, "p1", "interface: all, state: run")
    assert "but interface is still up" not in d.log()

    # Made again: attached again through the kernel's events.
    switch.vlan(20, "192.168.20.1/24")
    wait_state(d, "p1", "interface: vlanif20, state: run")


def test_addresses_present_at_start_arrive_through_the_dump(switch, make_daemon):
    switch.vlan(10, "192.168.10.1/24")
    switch.vlan(30, "10.30.0.1/16")
    d = make_daemon(ns=switch.ns)
    # A pool configured later finds the address already learned.
    make_pool(d, "lan10", "192.168.10.1", "192.168.10.0/24")
    make_pool(d, "lan30", "10.30.0.1", "10.30.0.0/16")
    wait_state(d, "lan10", "interface: vlanif10, state: run")
    wait_state(d, "lan30", "interface: vlanif30, state: run")
    # A link deleted with its address detaches its pool only.
    switch.ns.ip("link", "del", "vlanif30")
    wait_state(d, "lan30", "interface: all, state: run")
    assert pool_state(d, "lan10") == "interface: vlanif10, state: run"


def test_address_on_another_interface_and_peer_addresses(switch, on_switch):
    d = on_switch
    switch.vlan(10, "192.168.1.1/24")
    switch.vlan(20)
    traced(d)
    make_pool(d, "p1", "192.168.1.1", "192.168.1.0/24")
    make_pool(d, "p5", "192.168.5.1", "192.168.5.0/24")
    wait_state(d, "p1", "interface: vlanif10, state: run")

    # The same network shows up on vlanif20 and goes again: the pool is
    # detached whichever interface it was attached to.
    switch.ns.ip("addr", "add", "192.168.1.2/24", "dev", "vlanif20")
    wait_state(d, "p1", "interface: vlanif20, state: run")
    switch.ns.ip("addr", "del", "192.168.1.2/24", "dev", "vlanif20")
    wait_state(d, "p1", "interface: all, state: run")

    # A point-to-point address matches on its peer's network.
    switch.ns.ip("addr", "add", "10.0.0.1", "peer", "192.168.5.2/24", "dev", "vlanif20")
    d.wait_log(debug_line("interface vlanif20 address add 10.0.0.1/24"))
    wait_state(d, "p5", "interface: vlanif20, state: run")


def test_burst_of_addresses_is_followed(switch, on_switch, tmp_path):
    d = on_switch
    switch.vlan(10)
    make_pool(d, "p1", "10.77.200.1", "10.77.200.0/24")
    batch = tmp_path / "batch"
    batch.write_text("".join(f"addr add 10.77.{i}.1/24 dev vlanif10\n" for i in range(1, 256)))
    switch.ns.ip("-batch", str(batch))
    wait_state(d, "p1", "interface: vlanif10, state: run")
    batch.write_text("".join(f"addr del 10.77.{i}.1/24 dev vlanif10\n" for i in range(1, 256)))
    switch.ns.ip("-batch", str(batch))
    wait_state(d, "p1", "interface: all, state: run")
    assert d.proc.poll() is None


def test_mac_port_from_the_forwarding_database(switch):
    switch.vlan(10)
    switch.vlan(20)
    h1 = switch.port(1, 10, mac="02:00:00:00:0a:01")
    switch.port(2, 10)
    # h1 speaks once: the bridge learns its MAC on swp1.
    h1.exec("/usr/bin/python3", "-c", (
        "import socket\n"
        "s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)\n"
        "s.bind(('eth0', 0))\n"
        "s.send(b'\\xff' * 6 + bytes.fromhex('020000000a01') + b'\\x88\\xb5' + b'x' * 46)\n"))
    run(["bridge", "-n", switch.ns.name, "fdb", "add", "02:00:00:00:0b:02", "dev", "swp2",
         "master", "static"])

    def probe(vid, mac, *extra):
        r = checked(switch.ns.exec(str(HAL_PROBE), str(vid), mac, *extra, check=False))
        return r.stdout.splitlines()

    wait_until(lambda: probe(10, "02:00:00:00:0a:01")[0] == "rc=0 port=0x1000001",
               what="learned MAC on swp1")
    assert probe(10, "02:00:00:00:0b:02")[0] == "rc=0 port=0x1000002"
    assert probe(10, "02:00:00:00:0c:03")[0] == "rc=0 port=0"
    assert probe(20, "02:00:00:00:0a:01")[0] == "rc=0 port=0"
    assert probe(99, "02:00:00:00:0a:01")[0] == "rc=0 port=0"
    assert probe(10, "02:00:00:00:0b:02", "10", "dump")[0] == "rc=0 port=0x1000002"
    # Cheap enough to ask once per request: one socket, kept open between
    # the calls.
    out = probe(10, "02:00:00:00:0a:01", "2000")
    assert out == ["rc=0 port=0x1000001", "opened=1"]
