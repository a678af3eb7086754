"""The web front end's JSON requests against a live dhcpd, through its socket
/var/run/dhcp.jsr: exact replies, the running configuration each change
leaves, its save to /mnt/dhcpd.conf, and a reboot (a fresh daemon that
replays the saved file with dhcpsh -b) that restores it."""
import json
import socket

from conftest import wait_until


def jsr_path(d):
    return d.path("/var/run/dhcp.jsr")


def request(d, text):
    """One request per connection: write it, shut down the write side, read
    the reply to the end."""
    wait_until(lambda: jsr_path(d).exists(), 30, what="JSON socket")
    s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    s.settimeout(30)
    try:
        s.connect(str(jsr_path(d)))
        s.sendall(text.encode() if isinstance(text, str) else text)
        s.shutdown(socket.SHUT_WR)
        reply = b""
        while True:
            chunk = s.recv(65536)
            if not chunk:
                return reply
            reply += chunk
    finally:
        s.close()


def req(d, cmd, **members):
    return request(d, json.dumps({"cmd": cmd, **members}, separators=(",", ":")))


def running_config(d):
    r = d.sh("show running-config")
    assert r.returncode == 0, r.stderr
    return r.stdout


POOL_LAN10 = (
    "dhcp-server pool lan10\n"
    " default-router 10.0.10.1\n"
    " dns-server 8.8.8.8 8.8.4.4\n"
    " lease 7200 \n"
    " network 10.0.10.0/24\n"
    " begin-ip 10.0.10.100 end-ip 10.0.10.200\n"
    " pool enable\n"
    " static 10.0.10.50 00-11-22-33-44-55\n"
    " port-bind swp1 10.0.10.60\n"
    " quit\n"
    "!\n"
)

RELAY = (
    "dhcp-relay enable\n"
    "interface vlanif20\n"
    " dhcp-relay remote-server 10.0.20.2\n"
    " quit\n"
)

CHANGES = [
    ("dhcps_gloabl_set", {"config": [{"enable": 1, "max_lease_num": 8192}]}, b""),
    ("dhcps_pool_add", {"config": [
        {"pool_name": "lan10", "default_router": "10.0.10.1", "network": "10.0.10.0/24",
         "begin_ip": "10.0.10.100", "end_ip": "10.0.10.200", "lease_time": 7200,
         "dns_server1": "8.8.8.8", "dns_server2": "8.8.4.4"},
        {"pool_name": "bad", "default_router": "10.0.30.1", "network": "10.0.30.0/40"}]},
     b"{result: 3}"),
    ("dhcps_bind_mac_ip_add", {"config": [
        {"pool_name": "lan10", "bind_ip": "10.0.10.50", "bind_mac": "00-11-22-33-44-55"}]}, b""),
    ("dhcps_bind_port_ip_add", {"config": [
        {"pool_name": "lan10", "bind_port": "swp1", "bind_ip": "10.0.10.60"},
        {"pool_name": "lan10", "bind_port": "swp9", "bind_ip": "10.0.10.61"}]},
     b"{result: 15}"),
    ("dhcpr_state_set", {"config": [{"enable": 1}]}, b""),
    ("dhcpr_if_server_add", {"config": [
        {"if_name": "vlanif20", "server_ip": "10.0.20.2"},
        {"if_name": "vlanif99", "server_ip": "10.0.20.2"}]}, b"{result: 17}"),
]

READS = [
    ("dhcps_gloabl_get", b'{"data":[{"enable" :"1","max_lease_num" :"8192"}]}'),
    ("dhcps_pool_list", b'{"data":[{"pool_name" :"lan10"}]}'),
    ("dhcps_pool_get_all",
     b'{"data":[{"pool_name" :"lan10","network":"10.0.10.0/24","begin_ip":"10.0.10.100",'
     b'"end_ip":"10.0.10.200","lease_time":7200,"default_router":"10.0.10.1",'
     b'"dns_server1":"8.8.8.8","dns_server2":"8.8.4.4","domain_name":"","netbios_server":""}]}'),
    ("dhcps_bind_mac_ip_get_all",
     b'{"data":[{"pool_name" :"lan10","bind_ip":"10.0.10.50","bind_mac":"00-11-22-33-44-55"}]}'),
    ("dhcps_l2_if_list", b'{"data":[{"name" :"swp1"}, {"name" :"swp2"}]}'),
    ("dhcps_bind_port_ip_get_all",
     b'{"data":[{"pool_name" :"lan10","bind_port":"swp1","bind_ip":"10.0.10.60"}]}'),
    ("dhcpr_state_get", b'{"data":[{"enable" :"1"}]}'),
    ("dhcpr_l3_if_list", b'{"data":[{"name" :"vlanif10"}, {"name" :"vlanif20"}]}'),
    ("dhcpr_if_server_get_all", b'{"data":[{"if_name" :"vlanif20","server_ip":"10.0.20.2"}]}'),
    ("dhcps_leases_get_page", b'{"total":0,"data":[]}'),
]


def build_switch(switch):
    switch.vlan(10, "10.0.10.1/24")
    switch.vlan(20, "10.0.20.1/24")
    switch.port(1, 10)
    switch.port(2, 10)


def test_requests_change_save_and_survive_a_reboot(switch, make_daemon):
    build_switch(switch)
    first = make_daemon(ns=switch.ns)
    for cmd, members, reply in CHANGES:
        assert req(first, cmd, **members) == reply, cmd
    for cmd, reply in READS:
        assert req(first, cmd) == reply, cmd

    written = running_config(first)
    assert POOL_LAN10 in written
    assert "dhcp-server enable\n" in written
    assert "dhcp-server max-lease-num 8192\n" in written
    assert RELAY in written
    assert "pool bad" not in written
    saved = first.path("/mnt/dhcpd.conf").read_text()
    assert saved == written
    first.stop()

    # Reboot: same switch, a fresh daemon, the saved file replayed.
    fresh = make_daemon(ns=switch.ns)
    fresh.path("/mnt/dhcpd.conf").write_text(saved)
    r = fresh.shell("-b")
    assert (r.returncode, r.stderr) == (0, "")
    assert running_config(fresh) == written
    for cmd, reply in READS:
        assert req(fresh, cmd) == reply, cmd


def test_a_deletion_is_saved_and_a_failed_request_saves_too(make_daemon):
    d = make_daemon()
    assert req(d, "dhcps_pool_add", config=[
        {"pool_name": "a", "default_router": "10.1.0.1", "network": "10.1.0.0/16"},
        {"pool_name": "b", "default_router": "10.2.0.1", "network": "10.2.0.0/16"}]) == b""
    assert "dhcp-server pool b\n" in d.path("/mnt/dhcpd.conf").read_text()
    d.path("/mnt/dhcpd.conf").unlink()
    assert req(d, "dhcps_pool_delete",
               config=[{"pool_name": "b"}, {"pool_name": "nope"}]) == b"{result: 10}"
    saved = d.path("/mnt/dhcpd.conf").read_text()
    assert "dhcp-server pool a\n" in saved and "dhcp-server pool b\n" not in saved
    assert saved == running_config(d)


def test_reading_requests_change_nothing_and_bad_texts_are_answered(make_daemon):
    d = make_daemon()
    before = running_config(d)
    assert req(d, "dhcps_pool_list") == b'{"data":[]}'
    assert request(d, '{"cmd":"dhcps_gloabl_get"}') == (
        b'{"data":[{"enable" :"0","max_lease_num" :"4096"}]}')
    assert request(d, '{"cmd":"no_such_request"}').startswith(b'{"error":')
    assert request(d, '{"cmd":').startswith(b'{"error":')
    assert running_config(d) == before
    assert not d.path("/mnt/dhcpd.conf").exists()
