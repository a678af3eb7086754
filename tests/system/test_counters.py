"""The counters on the wire: real frames through a switch port (server) and
relayed frames through the relay topology; each outcome moves exactly its
counter by the number of messages sent, and no other drop counter.

Synchronisation without time windows: the server answers requests one at a
time, so once a barrier INFORM is answered every earlier request was
handled; the relay handles trapped frames in order, so once a marker request
is forwarded (or a reply delivered) every earlier frame was handled."""
import collections
import json

import pytest

from test_conformance import (CLIENT_MAC, CONFIG, HOST_IP, SERVER, Client, request)
from test_conformance import lab as server_lab  # noqa: F401 (fixture)
from test_relay import client_msg, lab, scene, server_msg  # noqa: F401 (fixtures)


def stats(d, command):
    """A statistics display as {(block, label): value}; every line is
    "  label : value" with the colons lined up."""
    r = d.sh(command)
    assert r.returncode == 0, r.stdout
    out, block, colon = {}, None, None
    for line in r.stdout.splitlines():
        if " : " not in line:
            block = line
            continue
        assert line.startswith("  ")
        at = line.index(" : ")
        assert colon in (None, at), f"colons do not line up: {line!r}"
        colon = at
        out[(block, line[2:at].rstrip())] = int(line[at + 3:])
    return out


def delta(before, after):
    keys = set(before) | set(after)
    return {k: after.get(k, 0) - before.get(k, 0) for k in keys
            if after.get(k, 0) != before.get(k, 0)}


# ---- the server ----

def barrier_answered(client, xid):
    """Nothing for `xid`, and the barrier INFORM answered."""
    assert client.replies(xid, want=0) == []


BARRIER = {("Received", "INFORM"): 1, ("Sent", "INFORM reply"): 1}
N = 3

SERVER_DROPS = [
    ("hardware length not 6", "DISCOVER", dict(hlen=7)),
    ("not a request", "DISCOVER", dict(op=2)),
    ("no pool", "DISCOVER", dict(giaddr="10.99.0.1", hops=1)),
    ("server id mismatch", "REQUEST",
     dict(options=[("server_id", "192.168.10.9"), ("requested_addr", "192.168.10.100")])),
    ("bad message type", "other", dict(msgtype=9)),
    ("wrong message type", "other", dict(msgtype="offer")),
    ("no requested address", "REQUEST", dict()),
    ("unknown client", "REQUEST", dict(ciaddr="192.168.10.105", src=HOST_IP, dst=SERVER)),
    ("option 82 invalid", "DISCOVER", dict(options=[("relay_agent_information", b"\x01\x09p")])),
    ("circuit id not allowed", "DISCOVER",
     dict(giaddr="10.20.0.1", hops=1, options=[("relay_agent_information", b"\x01\x02zz")])),
]


@pytest.mark.parametrize("reason,rtype,how", SERVER_DROPS, ids=[d[0] for d in SERVER_DROPS])
def test_each_server_drop_moves_only_its_counter(server_lab, reason, rtype, how):
    d, client, _, _ = server_lab
    how = dict(how)
    mtype = how.pop("msgtype", "request" if rtype == "REQUEST" else "discover")
    before = stats(d, "show dhcp-server statistics")
    for i in range(N):
        xid = 0x5100 + i
        client.send(request(CLIENT_MAC, xid, mtype, **how))
    barrier_answered(client, 0x51FF)
    got = delta(before, stats(d, "show dhcp-server statistics"))
    want = collections.Counter(BARRIER)
    want[("Received", rtype)] += N
    want[("Dropped", reason)] += N
    assert got == dict(want)


def test_replies_count_as_sent_by_type(server_lab):
    d, client, _, _ = server_lab
    before = stats(d, "show dhcp-server statistics")
    offers = []
    for i in range(N):
        mac = f"02:00:00:00:0b:0{i}"
        client.send(request(mac, 0x5200 + i, "discover"))
        offers += client.replies(0x5200 + i)
    naks = 0
    client.send(request(CLIENT_MAC, 0x5210, "request",
                        options=[("requested_addr", "192.168.10.109")]))
    naks += len(client.replies(0x5210))
    # Offers are held for 10 s only: the pool gauges are left out here.
    got = {k: v for k, v in delta(before, stats(d, "show dhcp-server statistics")).items()
           if not k[0].startswith("Pool")}
    want = collections.Counter()
    for _ in range(N + 1):
        want.update(BARRIER)
    want[("Received", "DISCOVER")] += N
    want[("Sent", "OFFER")] += N
    want[("Received", "REQUEST")] += 1
    want[("Sent", "NAK")] += naks
    assert (len(offers), naks) == (N, 1)
    assert got == dict(want)


def test_clear_resets_the_counters_not_the_gauges_and_survives_reconfiguration(server_lab):
    d, client, _, _ = server_lab
    client.send(request(CLIENT_MAC, 0x5300, "discover"))
    offered = client.replies(0x5300)[0]["BOOTP"].yiaddr
    client.send(request(CLIENT_MAC, 0x5301, "request", options=[("requested_addr", offered)]))
    client.replies(0x5301)
    s = stats(d, "show dhcp-server statistics")
    assert s[("Pool lan", "leased")] == 1 and s[("Sent", "ACK")] == 1
    r = d.sh("configure terminal", "dhcp-server pool extra", "default-router 172.30.0.1",
             "network 172.30.0.0/24", "exit", "no dhcp-server pool extra",
             "dhcp-server information disable", "dhcp-server disable", "dhcp-server enable")
    assert r.returncode == 0, r.stdout
    assert stats(d, "show dhcp-server statistics") == s
    assert "statistics" not in d.sh("show running-config").stdout
    assert d.sh("clear dhcp-server statistics").stdout == ""
    after = stats(d, "show dhcp-server statistics")
    assert {k: v for k, v in after.items() if not k[0].startswith("Pool")} == \
        {k: 0 for k in s if not k[0].startswith("Pool")}
    assert after[("Pool lan", "leased")] == 1
    assert after[("Pool lan", "addresses in range")] == 11


# ---- the relay ----

REL = "show dhcp-relay statistics"
V10, V20 = "Interface vlanif10", "Interface vlanif20"
MARKER = {(V10, "DISCOVER received"): 1, (V10, "requests forwarded"): 1}


def relay_case(scene, send, want):
    before = stats(scene.relay, REL)
    for i in range(N):
        send(i)
    scene.marker(1)
    got = delta(before, stats(scene.relay, REL))
    full = collections.Counter(MARKER)
    full.update(want)
    assert got == dict(full)


def test_relay_forwards_and_delivers(scene):
    before = stats(scene.relay, REL)
    for i in range(N):
        scene.relay_once(1, client_msg(0x6000 + i, scene.mac(1)))
        scene.answer(server_msg(0x6000 + i, scene.mac(1)))
        scene.delivered(1)
    got = delta(before, stats(scene.relay, REL))
    assert got == {(V10, "DISCOVER received"): N, (V10, "requests forwarded"): N,
                   (V10, "OFFER received"): N, (V10, "replies delivered"): N}


def test_relay_hops_exceeded(scene):
    relay_case(scene, lambda i: scene.send(2, client_msg(0x6100 + i, scene.mac(2), hops=9)),
               {(V10, "DISCOVER received"): N, (V10, "hops exceeded"): N})


def test_relay_wrong_request_type(scene):
    relay_case(scene, lambda i: scene.send(1, client_msg(0x6200 + i, scene.mac(1), mtype="ack")),
               {(V10, "other request received"): N, (V10, "wrong request type"): N})


def test_relay_option82_present_with_strategy_drop(scene):
    r = scene.relay.sh("configure terminal", "interface vlanif10",
                       "dhcp-relay information enable", "dhcp-relay information strategy drop")
    assert r.returncode == 0, r.stdout
    sent = lambda i: scene.send(1, client_msg(0x6300 + i, scene.mac(1),  # noqa: E731
                                              extra=[("relay_agent_information", b"\x01\x01x")]))
    relay_case(scene, sent, {(V10, "DISCOVER received"): N, (V10, "option 82 present"): N})


def test_channel_refusals(scene):
    def send(i):
        scene.send(1, client_msg(0x6400 + i, scene.mac(1)), sport=68, dport=546)
        scene.send(1, client_msg(0x6410 + i, scene.mac(1)), proto="tcp", sport=68, dport=67)
    relay_case(scene, send, {("Channel", "wrong port"): N, ("Channel", "not UDP"): N})


def test_relay_reply_without_transaction_counts_where_it_came_in(scene):
    before = stats(scene.relay, REL)
    for i in range(N):
        scene.answer(server_msg(0x6500 + i, scene.mac(1)))
    # A delivered reply after them: the relay handled them all.
    scene.relay_once(1, client_msg(0x6510, scene.mac(1)))
    scene.answer(server_msg(0x6510, scene.mac(1)))
    scene.delivered(1)
    got = delta(before, stats(scene.relay, REL))
    assert got == {(V20, "OFFER received"): N, (V20, "no transaction"): N,
                   (V10, "DISCOVER received"): 1, (V10, "requests forwarded"): 1,
                   (V10, "OFFER received"): 1, (V10, "replies delivered"): 1}
    # Clearing one interface leaves the other.
    assert scene.relay.sh("clear dhcp-relay statistics interface vlanif20").stdout == ""
    s = stats(scene.relay, REL)
    assert s[(V20, "OFFER received")] == 0 and (V20, "no transaction") not in s
    assert s[(V10, "replies delivered")] >= 1


# ---- JSON and metrics agree with the displays ----

def json_counters(d, cmd):
    r = d.shell("-j", json.dumps({"cmd": cmd}))
    assert r.returncode == 0, r.stderr
    out = {}
    for o in json.loads(r.stdout)["data"]:
        where = o.get("pool") or o.get("interface")
        out[(o["name"], where)] = o["value"]
    return out


SERVER_NAMES = {"Received": "received_", "Sent": "sent_", "Dropped": "dropped_"}
SERVER_TYPES = {"DISCOVER": "discover", "REQUEST": "request", "DECLINE": "decline",
                "RELEASE": "release", "INFORM": "inform", "other": "other", "OFFER": "offer",
                "ACK": "ack", "NAK": "nak", "INFORM reply": "inform_reply",
                "hardware length not 6": "bad_hlen", "no pool": "no_pool"}
POOL_NAMES = {"addresses in range": ("pool_range", "dhcpd_server_pool_addresses"),
              "leased": ("pool_leased", "dhcpd_server_pool_leased"),
              "offered": ("pool_offered", "dhcpd_server_pool_offered"),
              "reserved by conflicts": ("pool_reserved", "dhcpd_server_pool_reserved"),
              "static bindings": ("pool_static", "dhcpd_server_pool_static_bindings")}


def metrics(d):
    from prometheus_client.parser import text_string_to_metric_families
    r = d.shell("--metrics")
    assert r.returncode == 0, r.stderr
    out = {}
    for fam in text_string_to_metric_families(r.stdout):
        for s in fam.samples:
            out[(s.name, tuple(sorted(s.labels.items())))] = s.value
    return out


def test_json_and_metrics_agree_with_the_server_display(server_lab):
    d, client, _, _ = server_lab
    # The answered request goes last: each send drains what the socket
    # already holds, which could otherwise be its reply.
    client.send(request(CLIENT_MAC, 0x5401, "discover", hlen=7))
    client.send(request(CLIENT_MAC, 0x5402, "discover", giaddr="10.99.0.1", hops=1))
    client.send(request(CLIENT_MAC, 0x5400, "discover"))
    client.replies(0x5400)
    shown = stats(d, "show dhcp-server statistics")
    js = json_counters(d, "dhcps_statistics_get")
    prom = metrics(d)
    assert shown[("Dropped", "hardware length not 6")] == 1
    assert shown[("Dropped", "no pool")] == 1
    lines = 0
    for (block, label), value in shown.items():
        if block.startswith("Pool "):
            pool = block[len("Pool "):]
            name, metric = POOL_NAMES[label]
            assert js[(name, pool)] == value
            assert prom[(metric, (("pool", pool),))] == value
        else:
            name = SERVER_NAMES[block] + SERVER_TYPES[label]
            assert js[(name, None)] == value, name
            kind = "reason" if block == "Dropped" else "type"
            metric = f"dhcpd_server_{block.lower()}"
            # The parser names counter samples with their _total suffix.
            assert prom[(metric + "_total", ((kind, SERVER_TYPES[label]),))] == value, name
        lines += 1
    assert lines == len(js)


def test_json_and_metrics_agree_with_the_relay_display(scene):
    scene.send(2, client_msg(0x6600, scene.mac(2), hops=9))
    scene.answer(server_msg(0x6601, scene.mac(1)))
    scene.send(1, client_msg(0x6602, scene.mac(1)), proto="tcp", sport=68, dport=67)
    scene.marker(1)
    shown = stats(scene.relay, REL)
    js = json_counters(scene.relay, "dhcpr_statistics_get")
    prom = metrics(scene.relay)
    assert shown[(V10, "hops exceeded")] == 1 and shown[(V20, "no transaction")] == 1
    assert js[("dropped_hops_exceeded", "vlanif10")] == 1
    assert js[("dropped_no_transaction", "vlanif20")] == 1
    assert js[("requests_forwarded", "vlanif10")] == shown[(V10, "requests forwarded")]
    assert js[("refused_not_udp", None)] == shown[("Channel", "not UDP")] == 1
    assert len(js) == len(shown)
    assert prom[("dhcpd_relay_dropped_total",
                 (("interface", "vlanif10"), ("reason", "hops_exceeded")))] == 1
    assert prom[("dhcpd_relay_requests_forwarded_total", (("interface", "vlanif10"),))] == \
        shown[(V10, "requests forwarded")]
    assert prom[("dhcpd_relay_replies_received_total",
                 (("interface", "vlanif20"), ("type", "offer")))] == 1
    assert prom[("dhcpd_relay_channel_refused_total", (("reason", "not_udp"),))] == 1
    # Clearing through JSON answers nothing and clears.
    r = scene.relay.shell("-j", json.dumps({"cmd": "dhcpr_statistics_clear"}))
    assert (r.returncode, r.stdout) == (0, "")
    assert all(v == 0 for v in stats(scene.relay, REL).values())
