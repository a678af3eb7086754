"""The server's commands against a live dhcpd: the whole configuration written,
replayed into a fresh daemon and written again, byte for byte; the pool
node's prompt; the pool limit."""
from conftest import vty_request

SETUP = [
    "configure terminal",
    "dhcp-server enable",
    "dhcp-server write-time 600",
    "dhcp-server max-lease-num 8192",
    "dhcp-server information disable",
    # Off is written by leaving the line out, so a replay would turn it back
    # on; the round trip keeps it on.
    "dhcp-server information enable",
    "dhcp-server pool lan10",
    "default-router 10.0.10.1",
    "network 10.0.10.0/24",
    "begin-ip 10.0.10.100 end-ip 10.0.10.200",
    "domain-name 1.2.3.4",
    "dns-server 8.8.8.8 8.8.4.4",
    "netbios-name-server 10.0.10.5",
    "lease 7200",
    "allow circuit-id port1",
    "allow circuit-id uplink",
    "static 10.0.10.50 00-11-22-33-44-55",
    "static 10.0.10.51 00-11-22-33-44-66",
    "port-bind swp1 10.0.10.60",
    "port-bind swp2 10.0.10.61",
    "pool disable",
    "quit",
    "dhcp-server pool guest",
    "default-router 192.168.5.1",
    "network 192.168.5.0/24",
    "dns-server 9.9.9.9",
    "lease infinite",
    "end",
]

SERVER_BLOCK = (
    "dhcp-server enable\n"
    "dhcp-server write-time 600\n"
    "dhcp-server max-lease-num 8192\n"
    "dhcp-server information enable\n"
    "dhcp-server pool guest\n"
    " default-router 192.168.5.1\n"
    " dns-server 9.9.9.9\n"
    " lease 0 \n"
    " network 192.168.5.0/24\n"
    " begin-ip 192.168.5.0 end-ip 192.168.5.255\n"
    " pool enable\n"
    " quit\n"
    "!\n"
    "dhcp-server pool lan10\n"
    " default-router 10.0.10.1\n"
    " dns-server 8.8.8.8 8.8.4.4\n"
    " domain-name 1.2.3.4\n"
    " netbios-name-server 10.0.10.5\n"
    " lease 7200 \n"
    " network 10.0.10.0/24\n"
    " begin-ip 10.0.10.100 end-ip 10.0.10.200\n"
    " pool disable\n"
    " static 10.0.10.50 00-11-22-33-44-55\n"
    " static 10.0.10.51 00-11-22-33-44-66\n"
    " port-bind swp1 10.0.10.60\n"
    " port-bind swp2 10.0.10.61\n"
    " allow circuit-id port1\n"
    " allow circuit-id uplink\n"
    " quit\n"
    "!\n"
)

LEASE_HEADER = ("Ip Address        MAC Address        Host Name             "
                "Lease Time(s)  Expires(s)\n")


def running_config(d):
    r = d.sh("show running-config")
    assert r.returncode == 0, r.stderr
    return r.stdout


def test_full_configuration_replays_into_a_fresh_daemon_byte_for_byte(switch, make_daemon):
    switch.vlan(10)
    switch.port(1, 10)
    switch.port(2, 10)
    first = make_daemon(ns=switch.ns)
    r = first.sh(*SETUP)
    assert (r.returncode, r.stdout, r.stderr) == (0, "", "")
    written = running_config(first)
    assert written.startswith("!\n") and written.endswith("end\n")
    assert SERVER_BLOCK in written
    first.stop()

    # Same switch, so the ports named by the port bindings exist again.
    fresh = make_daemon(ns=switch.ns)
    fresh.path("/mnt/replay.conf").write_text(written)
    r = fresh.shell("-f", "/mnt/replay.conf")
    assert (r.returncode, r.stdout, r.stderr) == (0, "", "")
    assert running_config(fresh) == written


def test_pool_node_prompt_names_the_pool(daemon):
    s = daemon.connect_vty()
    vty_request(s, "configure terminal")
    text, code, prompt = vty_request(s, "dhcp-server pool office")
    assert (text, code) == ("", 0)
    assert prompt.endswith("(config-office)# ")
    text, code, prompt = vty_request(s, "dhcp-server pool lab")
    assert prompt.endswith("(config-lab)# ")
    text, code, prompt = vty_request(s, "lease 99999999")
    assert code == 2
    text, code, prompt = vty_request(s, "exit")
    assert prompt.endswith("(config)# ")
    s.close()


def test_seventeenth_pool_is_refused(daemon):
    pools = [f"dhcp-server pool p{i:02d}" for i in range(1, 17)]
    r = daemon.sh("configure terminal", *pools)
    assert (r.returncode, r.stdout) == (0, "")
    r = daemon.sh("configure terminal", "dhcp-server pool p17")
    assert (r.returncode, r.stdout) == (1, "% Max dhcp server pool is16\n")
    written = running_config(daemon)
    assert "dhcp-server pool p17" not in written
    assert written.count(" quit\n") == 16
    r = daemon.sh("configure terminal", "dhcp-server pool p05", "lease 60")
    assert (r.returncode, r.stdout) == (0, "")


def test_refusals_print_their_message_and_fail(daemon):
    r = daemon.sh("configure terminal", "dhcp-server pool lan", "network 10.0.0.0/24")
    assert (r.returncode, r.stdout) == (1, "Please set default-router first \n")
    r = daemon.sh("configure terminal", "no dhcp-server pool nope")
    assert (r.returncode, r.stdout) == (1, "% dhcp pool nope not exsit\n")


def test_empty_lease_table_display(daemon):
    r = daemon.sh("show dhcp-server lease")
    assert (r.returncode, r.stdout) == (0, LEASE_HEADER + "\nTotal: 0 leases match.\n")
    r = daemon.sh("show dhcp-server lease 300.1.1.1")
    assert (r.returncode, r.stdout) == (1, "% Malformed address \n")


def test_point_to_point_and_host_networks_keep_their_range_inside(daemon):
    # /31: both addresses of the link, whichever was typed; /32: the one address.
    r = daemon.sh("configure terminal",
                  "dhcp-server pool link", "default-router 10.0.0.0", "network 10.0.0.1/31",
                  "exit",
                  "dhcp-server pool host", "default-router 10.0.0.9", "network 10.0.0.9/32",
                  "exit",
                  "dhcp-server pool wide", "default-router 10.2.0.1", "network 10.2.0.1/30",
                  "exit")
    assert (r.returncode, r.stdout) == (0, "")
    written = running_config(daemon)
    assert " network 10.0.0.0/31\n begin-ip 10.0.0.0 end-ip 10.0.0.1\n" in written
    assert " network 10.0.0.9/32\n begin-ip 10.0.0.9 end-ip 10.0.0.9\n" in written
    assert " network 10.2.0.0/30\n begin-ip 10.2.0.1 end-ip 10.2.0.3\n" in written
    # Deleting them walks their own addresses only.
    r = daemon.sh("configure terminal", "no dhcp-server pool link", "no dhcp-server pool host",
                  "no dhcp-server pool wide")
    assert (r.returncode, r.stdout) == (0, "")
    assert "dhcp-server pool" not in running_config(daemon)
