"""Malformed messages on the wire, generated from tables: through a switch
port to the server, and through the relay topology to the relay.

Each case is one frame built byte by byte (truncated at a header boundary,
a length field off by one or at an extreme, options running past the end,
overload into sname/file, option 82 with bad sub-option lengths, hops at the
limits, IPv4 options and fragments, bad UDP lengths and checksums). Its
outcome is decided from what the kernel and the daemon do with it:

  kernel   the kernel (or, at the relay, the trap rule) drops it: no counter
           moves, nothing is answered or forwarded;
  a drop   the daemon counts it as received by its type and dropped for
           exactly one reason, and sends nothing;
  valid    the message is still a good one: exactly its normal reply (the
           server) or its forwarded copy (the relay).

The message types the daemon decides on are read with a model of the
option scan (pads, end marker, overload into file then sname, an option
running past its area ends the scan as malformed).

The daemon is started once per group; after every case a barrier proves it
alive and handling, and makes "no reply" a verdict without a time window:
the server answers one request at a time, so once the barrier INFORM is
answered the case was handled; the relay handles trapped frames in order, so
once a marker request is forwarded and its reply delivered, the case and
the reply sent for the case's transaction were handled. The counters moved
by exactly the case and the barrier, and the leases (server) or the
transactions (relay: the reply for the case's xid is delivered only when the
case made an item) are what the case prescribes; the server's display
carries the pool gauges too, so a pool that moved shows there."""
import collections
import socket
import struct

import pytest

from conftest import Daemon, Switch, wait_until
from test_conformance import CONFIG, HOST_IP, SERVER, Client, request
from test_counters import stats, delta
from test_relay import RELAY_IP, Lab, Scene, configure, server_msg

CLIENT_MAC = "02:00:00:00:0a:01"
MAC = bytes.fromhex(CLIENT_MAC.replace(":", ""))
BROADCAST = b"\xff" * 6

# ---- building frames ----


def csum(data):
    if len(data) % 2:
        data += b"\0"
    s = sum(struct.unpack(f">{len(data) // 2}H", data))
    while s >> 16:
        s = (s & 0xFFFF) + (s >> 16)
    return ~s & 0xFFFF


def ip4(a):
    return socket.inet_aton(a)


def frame(payload, *, src="0.0.0.0", dst="255.255.255.255", smac=MAC, tag=None, ihl=None,
          ip_opts=b"", tot_len=None, ip_csum="ok", frag=0, ident=1, proto=17, sport=68, dport=67,
          ulen=None, ucsum="ok", cut=None, udp=None):
    """An Ethernet frame from `smac` (the client's MAC) to broadcast. `udp`, when
    given, is the whole IP payload (for fragments); otherwise the UDP header
    and the payload. ulen/tot_len/ihl replace the computed fields; ucsum is
    "ok" (over what the UDP length covers), "zero" or "bad"; `cut` keeps
    only that many bytes of the frame."""
    if udp is None:
        ul = 8 + len(payload) if ulen is None else ulen
        hdr = struct.pack(">HHHH", sport, dport, ul, 0)
        udp = hdr + payload
        if ucsum != "zero":
            covered = udp[:ul] if ul >= 8 else udp
            pseudo = ip4(src) + ip4(dst) + struct.pack(">BBH", 0, 17, ul)
            c = csum(pseudo + covered) or 0xFFFF
            if ucsum == "bad":
                c = c ^ 0x5A5A or 1
            udp = hdr[:6] + struct.pack(">H", c) + payload
    hlen = 20 + len(ip_opts)
    h = ihl if ihl is not None else hlen // 4
    total = hlen + len(udp) if tot_len is None else tot_len
    iph = struct.pack(">BBHHHBBH4s4s", 0x40 | (h & 0xF), 0, total & 0xFFFF, ident, frag, 64,
                      proto, 0, ip4(src), ip4(dst)) + ip_opts
    packet = bytearray(iph + udp)
    c = csum(bytes(packet[:max(h * 4, 0)]))
    if ip_csum == "bad":
        c ^= 0x1111
    packet[10:12] = struct.pack(">H", c)
    eth = BROADCAST + smac
    if tag is not None:
        eth += struct.pack(">HH", 0x8100, tag)
    out = eth + b"\x08\x00" + bytes(packet)
    return out if cut is None else out[:cut]


def bootp(xid, mtype, *, op=1, hlen=6, hops=0, ciaddr="0.0.0.0", giaddr="0.0.0.0", flags=0,
          sname=b"", file=b"", cookie=b"\x63\x82\x53\x63", options=None, tail=None):
    """A message: fixed fields, cookie, then the options (given as raw
    bytes, or the usual ones with option 53 last) and `tail` (default: the
    end marker)."""
    fixed = struct.pack(">BBBBIHH4s4s4s4s16s64s128s", op, 1, hlen, hops, xid, 0, flags,
                        ip4(ciaddr), b"\0" * 4, b"\0" * 4, ip4(giaddr), MAC,
                        sname.ljust(64, b"\0")[:64], file.ljust(128, b"\0")[:128])
    if options is None:
        options = usual_options(mtype)
    return fixed + cookie + options + (b"\xff" if tail is None else tail)


def usual_options(mtype):
    return (b"\x3d\x07\x01" + MAC + b"\x0c\x05alpha" + b"\x37\x03\x01\x03\x06" +
            bytes([53, 1, mtype]))


# Offsets in the usual message where its options begin and end.
USUAL = usual_options(8)
OPTION_STARTS = [240, 249, 256, 261]  # 61, 12, 55, 53

# ---- a model of the option scan ----


def find_option(msg, code):
    """Where option `code` starts in the message's record (its code byte) as
    the daemon's scan finds it, or None."""
    rec = bytes(msg[:628]).ljust(628, b"\0")
    pos, remaining, overload = 240, 388, 0
    while remaining > 0:
        c = rec[pos]
        if c == 0:
            remaining -= 1
            pos += 1
            continue
        if c == 255:
            if overload & 0x101 == 1:
                overload |= 0x101
                pos, remaining = 108, 128
            elif overload & 0x202 == 2:
                overload |= 0x202
                pos, remaining = 44, 64
            else:
                return None
            continue
        if remaining < 2:
            return None
        step = rec[pos + 1] + 2
        remaining -= step
        if remaining < 0:
            return None
        if c == code:
            return pos
        if c == 52 and (rec[pos + 1] > 0 or remaining > 0):
            overload |= rec[pos + 2]
        pos += step
    return None


def get_option(msg, code):
    """The value of option `code` as the daemon's scan finds it, or None."""
    at = find_option(msg, code)
    if at is None:
        return None
    rec = bytes(msg[:628]).ljust(628, b"\0")
    return rec[at + 2:at + 2 + rec[at + 1]]


def end_option(options):
    """Where the end marker of an options area is (its size when none)."""
    i = 0
    while i < len(options) and options[i] != 255:
        if options[i] != 0:
            if i + 1 >= len(options):
                return len(options)
            i += options[i + 1] + 1
        i += 1
    return min(i, len(options))


def msg_type(msg):
    v = get_option(msg, 53)
    return v[0] if v else 0


def parse82(data):
    """(0 when the server takes option 82's sub-options, else nonzero;
    whether a circuit id is among them)."""
    if len(data) < 1:
        return -4, False
    pos, circuit = 0, False
    while pos < len(data):
        if pos + 1 >= len(data):
            return -1, circuit
        sub = struct.unpack("b", data[pos + 1:pos + 2])[0]
        if sub < 0 or pos + 2 + sub > len(data):
            return -1, circuit
        circuit |= data[pos] == 1
        pos += 2 + sub
    return 0, circuit


SERVER_RX = {1: "DISCOVER", 3: "REQUEST", 4: "DECLINE", 7: "RELEASE", 8: "INFORM"}


def server_outcome(msg):
    """What the server does with a datagram `msg` (only INFORMs, or
    messages without a usable type, are sent to it)."""
    rec = bytes(msg[:628]).ljust(628, b"\0")
    t = msg_type(rec)
    rx = SERVER_RX.get(t, "other")
    if rec[2] != 6:
        return ("drop", rx, "hardware length not 6")
    if rec[0] != 1:
        return ("drop", rx, "not a request")
    o82 = get_option(rec, 82)
    if o82 is not None and parse82(o82)[0] != 0:
        return ("drop", rx, "option 82 invalid")
    # A circuit id is admitted only by a pool that allows it; the port's
    # pool allows none.
    if o82 is not None and parse82(o82)[1]:
        return ("drop", rx, "circuit id not allowed")
    sid = get_option(rec, 54)
    if sid is not None and sid[:4].ljust(4, b"\0") != ip4(SERVER):
        return ("drop", rx, "server id mismatch")
    if t == 0 or t > 8:
        return ("drop", rx, "bad message type")
    assert t == 8, "the generated cases are INFORMs"
    return ("reply", rx, None)


KERNEL = ("kernel", None, None)

# ---- the server's cases ----


class Case:
    def __init__(self, name, build, outcome):
        self.name, self.build, self.outcome = name, build, outcome


def inform(xid, **kw):
    return bootp(xid, 8, ciaddr=HOST_IP, **kw)


def by_model(name, make):
    """A case whose datagram is `make(xid)`, sent whole; the outcome from
    the model."""
    return Case(name, lambda xid: frame(make(xid)), lambda: server_outcome(make(0)))


def fixed(name, build, outcome):
    return Case(name, build, lambda: outcome)


FIELD_BOUNDARIES = [0, 1, 2, 3, 4, 8, 10, 12, 16, 20, 24, 28, 44, 108, 236, 237, 239, 240]
OPTION_CUTS = sorted({240 + i for i in range(len(USUAL) + 2)})


MSG_LEN = len(inform(0))


def server_truncated_frames():
    cases = []
    msg_len = MSG_LEN
    # Frames cut short with every length field still telling the whole
    # length: the kernel drops them whatever the cut.
    for cut in [14, 15, 16, 20, 22, 24, 26, 28, 30, 33, 34, 36, 38, 40, 41, 42]:
        cases.append(fixed(f"frame-cut-{cut}", lambda x, c=cut: frame(inform(x), cut=c), KERNEL))
    for at in FIELD_BOUNDARIES + [249, 256, 261, 263, msg_len - 1]:
        cases.append(fixed(f"frame-cut-dhcp-{at}",
                           lambda x, a=at: frame(inform(x), cut=42 + a), KERNEL))
    # 802.1Q: the VLAN interface takes no tagged frames, cut or whole.
    for cut in [16, 18, 20, 38, 46, 46 + 240]:
        cases.append(fixed(f"tagged-cut-{cut}", lambda x, c=cut: frame(inform(x), tag=10, cut=c),
                           KERNEL))
    cases.append(fixed("tagged-vlan10-whole", lambda x: frame(inform(x), tag=10), KERNEL))
    return cases


def server_truncated_messages():
    cases = []
    # Messages cut short with IP and UDP lengths telling the cut length:
    # the server reads the rest of its record as zeros.
    for at in FIELD_BOUNDARIES + OPTION_CUTS:
        cases.append(by_model(f"message-cut-{at}", lambda x, a=at: inform(x)[:a]))
    return cases


def server_length_fields():
    cases = []
    msg_len = MSG_LEN
    # IP total length.
    ip_total = 20 + 8 + msg_len
    for name, v in [("minus1", ip_total - 1), ("plus1", ip_total + 1), ("zero", 0),
                    ("header-only", 20), ("below-header", 19), ("udp-header-only", 28),
                    ("max", 0xFFFF)]:
        cases.append(fixed(f"ip-total-length-{name}",
                           lambda x, v=v: frame(inform(x), tot_len=v), KERNEL))
    # IHL (the checksum made over what the IHL says).
    for v in [0, 1, 4, 6, 7, 15]:
        cases.append(fixed(f"ip-ihl-{v}", lambda x, v=v: frame(inform(x), ihl=v), KERNEL))
    cases.append(fixed("ip-header-checksum-bad",
                       lambda x: frame(inform(x), ip_csum="bad"), KERNEL))
    # UDP length and checksum.
    udp_len = 8 + msg_len
    cases.append(fixed("udp-length-plus1", lambda x: frame(inform(x), ulen=udp_len + 1), KERNEL))
    cases.append(fixed("udp-length-plus1-nosum",
                       lambda x: frame(inform(x), ulen=udp_len + 1, ucsum="zero"), KERNEL))
    cases.append(fixed("udp-length-max", lambda x: frame(inform(x), ulen=0xFFFF), KERNEL))
    for v in [0, 1, 7]:
        cases.append(fixed(f"udp-length-{v}", lambda x, v=v: frame(inform(x), ulen=v,
                                                                    ucsum="zero"), KERNEL))
    # Shorter than the datagram: the kernel trims to it (the checksum, when
    # one is given, covers the trimmed datagram).
    for less in [1, 2, 8, 100]:
        cases.append(Case(f"udp-length-minus{less}",
                          lambda x, n=less: frame(inform(x), ulen=udp_len - n),
                          lambda n=less: server_outcome(inform(0)[:msg_len - n])))
    cases.append(Case("udp-length-minus1-checksum-of-whole",
                      lambda x: frame(inform(x), ulen=udp_len - 1, ucsum="bad"),
                      lambda: KERNEL))
    for v in [8, 9, 10, 11]:
        cases.append(Case(f"udp-length-{v}-datagram-{v - 8}",
                          lambda x, v=v: frame(inform(x), ulen=v, ucsum="zero"),
                          lambda v=v: server_outcome(inform(0)[:v - 8])))
    cases.append(fixed("udp-checksum-bad", lambda x: frame(inform(x), ucsum="bad"), KERNEL))
    cases.append(Case("udp-checksum-none", lambda x: frame(inform(x), ucsum="zero"),
                      lambda: server_outcome(inform(0))))
    cases.append(fixed("udp-dport-68", lambda x: frame(inform(x), dport=68), KERNEL))
    cases.append(fixed("udp-dport-66", lambda x: frame(inform(x), dport=66), KERNEL))
    cases.append(fixed("tcp-to-67", lambda x: frame(inform(x), proto=6), KERNEL))
    cases.append(Case("udp-sport-0", lambda x: frame(inform(x), sport=0),
                      lambda: server_outcome(inform(0))))
    return cases


def server_fields_and_options():
    cases = []
    # hlen.
    for v in [0, 1, 5, 7, 16, 17, 255]:
        cases.append(by_model(f"hlen-{v}", lambda x, v=v: inform(x, hlen=v)))
    cases.append(by_model("op-2", lambda x: inform(x, op=2)))
    cases.append(by_model("op-0", lambda x: inform(x, op=0)))
    cases.append(by_model("cookie-zero", lambda x: inform(x, cookie=b"\0\0\0\0")))
    # Option lengths off by one and at the extremes.
    for at, code in zip(OPTION_STARTS, (61, 12, 55, 53)):
        for name, d in [("minus1", -1), ("plus1", 1)]:
            def make(x, at=at, d=d):
                m = bytearray(inform(x))
                m[at + 1] = (m[at + 1] + d) & 0xFF
                return bytes(m)
            cases.append(by_model(f"option{code}-length-{name}", make))
        for v in [0, 254, 255]:
            def make(x, at=at, v=v):
                m = bytearray(inform(x))
                m[at + 1] = v
                return bytes(m)
            cases.append(by_model(f"option{code}-length-{v}", make))
    # Options running past the end of the area, before and after type.
    for n in [1, 2, 100, 147, 148, 200]:
        cases.append(by_model(f"past-end-before-type-pad{n}", lambda x, n=n: inform(
            x, options=b"\0" * n + b"\x2b\xff" + b"v" * (387 - n - 2), tail=b"")))
        cases.append(by_model(f"past-end-after-type-pad{n}", lambda x, n=n: inform(
            x, options=bytes([53, 1, 8]) + b"\0" * n + b"\x2b\xff" + b"v" * 20, tail=b"")))
    cases.append(by_model("no-end-marker-area-full", lambda x: inform(
        x, options=bytes([53, 1, 8]) + b"\x2b\xff" + b"v" * 255 + b"\x2b\x7c" + b"w" * 124,
        tail=b"")))
    cases.append(by_model("length-byte-last-in-area", lambda x: inform(
        x, options=b"\0" * 387 + b"\x2b", tail=b"")))
    cases.append(by_model("type-last-in-area", lambda x: inform(
        x, options=b"\0" * 385 + bytes([53, 1, 8]), tail=b"")))
    cases.append(by_model("type-one-past-area", lambda x: inform(
        x, options=b"\0" * 386 + bytes([53, 1, 8]), tail=b"")))
    cases.append(by_model("datagram-longer-than-record", lambda x: inform(
        x, tail=b"\xff" + b"\x00" * 500)))
    return cases


def server_overload():
    cases = []
    # Overload into file and sname.
    good = bytes([53, 1, 8, 255])
    contents = {
        "type": good,
        "nothing": b"",
        "end-only": b"\xff",
        "past-end": b"\x2b\xfe" + b"v" * 10,
        "type-empty": bytes([53, 0, 255]),
        "type-zero": bytes([53, 1, 0, 255]),
        "type-nine": bytes([53, 1, 9, 255]),
        "nested-overload": bytes([52, 1, 3, 255]),
        "no-end": b"\x2b\x05vvvvv" + bytes([53, 1, 8]),
    }
    for ov in [0, 1, 2, 3, 4, 255]:
        for where in ["file", "sname"]:
            for cname, body in contents.items():
                def make(x, ov=ov, where=where, body=body):
                    return inform(x, options=bytes([52, 1, ov]), **{where: body})
                cases.append(by_model(f"overload{ov}-{where}-{cname}", make))
    cases.append(by_model("overload-empty-option", lambda x: inform(
        x, options=bytes([52, 0, 1]), file=good)))
    cases.append(by_model("overload-last-in-area", lambda x: inform(
        x, options=b"\0" * 386 + bytes([52, 0]), tail=b"", file=good)))
    return cases


def server_option82_hops_ip():
    cases = []
    # Option 82 (the server's information setting is on).
    for name, o82 in [("empty", b""), ("sub-length-missing", b"\x01"),
                      ("sub-past-end-by-1", b"\x01\x03ab"), ("sub-past-end-far", b"\x01\x7fab"),
                      ("sub-negative", b"\x01\x80ab"), ("sub-ff", b"\x01\xffab"),
                      ("second-sub-past-end", b"\x01\x01a\x02\x05bb"),
                      ("second-sub-length-missing", b"\x01\x01a\x02"),
                      ("exact", b"\x01\x02ab"), ("zero-length-subs", b"\x01\x00\x02\x00"),
                      ("unknown-sub", b"\x09\x01z"), ("long-circuit", b"\x01\x7d" + b"c" * 125)]:
        cases.append(by_model(f"option82-{name}", lambda x, o=o82: inform(
            x, options=USUAL + bytes([82, len(o)]) + o)))
    cases.append(by_model("option82-past-area", lambda x: inform(
        x, options=USUAL + b"\x52\xff\x01\x01a")))
    # Hops are not the server's concern.
    for v in [1, 16, 17, 255]:
        cases.append(by_model(f"hops-{v}", lambda x, v=v: inform(x, hops=v)))
    # IPv4 options and fragments.
    for name, opts in [("nop", b"\x01\x01\x01\x01"), ("eol", b"\x00\x00\x00\x00"),
                       ("router-alert", b"\x94\x04\x00\x00"),
                       ("record-route", b"\x07\x07\x04" + b"\0" * 4 + b"\0"),
                       ("timestamp", b"\x44\x0c\x05\x00" + b"\0" * 8)]:
        cases.append(Case(f"ip-option-{name}",
                          lambda x, o=opts: frame(inform(x), ip_opts=o),
                          lambda: server_outcome(inform(0))))
    for name, opts in [("length-zero", b"\x07\x00\x00\x00"), ("length-past-header",
                                                               b"\x07\x09\x04\x00"),
                       ("length-one", b"\x44\x01\x00\x00")]:
        cases.append(fixed(f"ip-option-{name}", lambda x, o=opts: frame(inform(x), ip_opts=o),
                           KERNEL))
    cases.append(Case("fragments-in-order", lambda x: fragments(inform(x), [0, 1]),
                      lambda: server_outcome(inform(0))))
    cases.append(Case("fragments-reversed", lambda x: fragments(inform(x), [1, 0]),
                      lambda: server_outcome(inform(0))))
    cases.append(fixed("fragment-first-only", lambda x: fragments(inform(x), [0]), KERNEL))
    cases.append(fixed("fragment-last-only", lambda x: fragments(inform(x), [1]), KERNEL))
    return cases


def server_cases():
    return (server_truncated_frames() + server_truncated_messages() + server_length_fields() +
            server_fields_and_options() + server_overload() + server_option82_hops_ip())


def fragments(msg, order, at=160):
    """The datagram split in two IPv4 fragments (the first `at` bytes of
    the IP payload, then the rest), sent in `order`; several frames."""
    whole = frame(msg)
    udp = whole[14 + 20:]
    ident = struct.unpack(">H", msg[6:8])[0]  # from the xid: no two cases share it
    parts = [frame(b"", udp=udp[:at], frag=0x2000, ident=ident),
             frame(b"", udp=udp[at:], frag=at // 8, ident=ident)]
    return [parts[i] for i in order]


def leases(d):
    """The lease display without its clock: the seconds left (the last
    column) go."""
    out = d.sh("show dhcp-server lease").stdout.splitlines()
    return [line.split()[:-1] if line[:1].isdigit() else line.split() for line in out]


SERVER_CASES = server_cases()
BARRIER = {("Received", "INFORM"): 1, ("Sent", "INFORM reply"): 1}


class ServerLab:
    def __init__(self, tmp):
        self.switch = Switch()
        self.client = None
        self.d = None
        try:
            self.switch.vlan(10, SERVER + "/24")
            host = self.switch.port(1, 10, mac=CLIENT_MAC)
            host.ip("addr", "add", HOST_IP + "/24", "dev", "eth0")
            self.d = Daemon(self.switch.ns, tmp).wait_ready()
            r = self.d.sh(*CONFIG, "dhcp-server information enable")
            assert r.returncode == 0, r.stdout
            wait_until(lambda: "interface: vlanif10" in self.d.sh("show dhcp-server").stdout,
                       what="pool attached")
            self.client = Client(host, CLIENT_MAC)
            # A lease to keep an eye on.
            self.client.send(request(CLIENT_MAC, 0x11, "discover"))
            offered = self.client.replies(0x11)[0]["BOOTP"].yiaddr
            self.client.send(request(CLIENT_MAC, 0x12, "request",
                                     options=[("requested_addr", offered)]))
            assert len(self.client.replies(0x12)) == 1
            self.stats = stats(self.d, "show dhcp-server statistics")
            self.leases = leases(self.d)
            assert self.leases[-1] == ["Total:", "1", "leases", "match."]
        except BaseException:
            self.close()
            raise

    def close(self):
        try:
            if self.client:
                self.client.close()
            if self.d:
                self.d.stop()
        finally:
            self.switch.delete()


@pytest.fixture(scope="module")
def server(tmp_path_factory):
    lab = ServerLab(tmp_path_factory.mktemp("malformed-server"))
    try:
        yield lab
    finally:
        lab.close()


def send_frames(client, frames):
    client.drain()
    for f in frames if isinstance(frames, list) else [frames]:
        try:
            client.sock.send(f)
        except OSError as e:
            raise AssertionError(f"the host could not send {f.hex()}: {e}")


@pytest.mark.parametrize("case", SERVER_CASES, ids=[c.name for c in SERVER_CASES])
def test_server(server, case):
    xid = 0x4D000000 + SERVER_CASES.index(case)
    kind, rx, why = case.outcome()
    send_frames(server.client, case.build(xid))
    got = server.client.replies(xid, want=1 if kind == "reply" else 0)
    assert server.d.proc.poll() is None, "the daemon is gone"
    after = stats(server.d, "show dhcp-server statistics")
    moved = delta(server.stats, after)
    server.stats = after
    want = collections.Counter(BARRIER)
    if kind != "kernel":
        want[("Received", rx)] += 1
    if kind == "drop":
        want[("Dropped", why)] += 1
    if kind == "reply":
        want[("Sent", "INFORM reply")] += 1
        assert len(got) == 1
        assert (got[0]["BOOTP"].op, got[0]["BOOTP"].xid) == (2, xid)
    else:
        assert got == []
    assert moved == dict(want)
    assert leases(server.d) == server.leases


# ---- the relay ----
#
# Trapped frames pass a rule first (the switch chip's): IPv4, UDP or TCP, the
# first fragment, a header of at least 20 bytes, port 67 or 68 at either end.
# The relay then reads only the frame: the IP and UDP length fields and the
# checksums are not looked at, the payload is what follows the headers.

V10, V20 = "Interface vlanif10", "Interface vlanif20"
RELAY_RX = {1: "DISCOVER received", 3: "REQUEST received", 4: "DECLINE received",
            7: "RELEASE received", 8: "INFORM received"}
MARKER = {(V10, "DISCOVER received"): 1, (V10, "requests forwarded"): 1,
          (V10, "OFFER received"): 1, (V10, "replies delivered"): 1}


def u16(b, at):
    return struct.unpack(">H", b[at:at + 2])[0] if at + 2 <= len(b) else None


def trapped(f):
    """Whether the trap rule takes frame `f` (a read past the frame
    refuses it)."""
    off = 18 if u16(f, 12) == 0x8100 else 14
    if u16(f, off - 2) != 0x0800 or len(f) < off + 20:
        return False
    ihl = f[off] & 0x0F
    if f[off] >> 4 != 4 or f[off + 9] not in (6, 17) or u16(f, off + 6) & 0x1FFF or ihl < 5:
        return False
    # The source port first: when it is 67 or 68 the rule reads no further.
    return u16(f, off + ihl * 4) in (67, 68) or u16(f, off + ihl * 4 + 2) in (67, 68)


def own_option82(remote):
    """The relay's option 82 for a client on port 1 of VLAN 10."""
    return bytes([82, 27, 1, 6]) + b"001001" + bytes([2, 17]) + remote


def option82_edit(payload, strategy, remote):
    """The payload as the relay forwards it with option 82 on: kept as it
    came (keep, option present); else the client's option taken out
    (replace: the bytes after it up to the payload's end move down over it)
    and the relay's own added before the end marker when it fits the
    308-byte area. The length never changes."""
    n = len(payload)
    rec = bytearray(payload.ljust(628, b"\0"))
    at = find_option(rec, 82)
    if strategy == "keep" and at is not None:
        return payload
    if strategy == "replace" and at is not None:
        end = at + 2 + rec[at + 1]
        if end < n:
            rec[at:at + n - end] = rec[end:n]
    own = own_option82(remote)
    end = end_option(rec[240:])
    if end + len(own) + 1 < 308:
        rec[240 + end:240 + end + len(own)] = own
        rec[240 + end + len(own)] = 255
    return bytes(rec[:n])


def relay_outcome(f, strategy=None, remote=None):
    """(kind, labels moved, forwarded payload or None) for a client's frame."""
    if not trapped(f):
        return ("kernel", {}, None)
    off = 18 if u16(f, 12) == 0x8100 else 14
    ip = f[off:]
    if ip[9] != 17:
        return ("refused", {("Channel", "not UDP"): 1}, None)
    ihl = (ip[0] & 0x0F) * 4
    payload = ip[ihl + 8:]
    if len(ip) < ihl + 8:  # a length below 0 is refused before the port is read
        return ("refused", {("Channel", "bad length"): 1}, None)
    if u16(ip, ihl + 2) not in (67, 68):
        return ("refused", {("Channel", "wrong port"): 1}, None)
    if not 240 <= len(payload) <= 628:
        return ("refused", {("Channel", "bad length"): 1}, None)
    t = msg_type(payload) if payload[0] in (1, 2) else 0
    rx = RELAY_RX.get(t, "other request received")
    moved = {(V10, rx): 1}
    if payload[3] >= 9:
        moved[(V10, "hops exceeded")] = 1
        return ("drop", moved, None)
    if strategy == "drop" and get_option(payload, 82) is not None:
        moved[(V10, "option 82 present")] = 1
        return ("drop", moved, None)
    if t not in RELAY_RX:
        moved[(V10, "wrong request type")] = 1
        return ("drop", moved, None)
    moved[(V10, "requests forwarded")] = 1
    if strategy is not None:
        payload = option82_edit(payload, strategy, remote)
    out = bytearray(payload)
    out[3] += 1
    if out[24:28] == b"\0\0\0\0":
        out[24:28] = ip4(RELAY_IP)
    if out[10] & 0x80:
        out[10:12] = b"\0\0"
    return ("forward", moved, bytes(out))


def discover(xid, pad=300, **kw):
    m = bootp(xid, 1, **kw)
    return m + b"\0" * max(0, pad - len(m))


def relay_truncated(add):
    usual = usual_options(1)
    for cut in [14, 20, 33, 34, 36, 37, 38, 40, 41, 42]:
        add(f"frame-cut-{cut}", lambda x, c=cut: frame(discover(x), cut=c))
    for at in FIELD_BOUNDARIES[1:] + [240] + [240 + i for i in range(1, len(usual) + 2)]:
        add(f"frame-cut-dhcp-{at}", lambda x, a=at: frame(discover(x), cut=42 + a))
    for cut in [16, 18, 38, 46, 46 + 239, 46 + 240]:
        add(f"tagged-cut-{cut}", lambda x, c=cut: frame(discover(x), tag=10, cut=c))
    add("tagged-vlan10-whole", lambda x: frame(discover(x), tag=10))
    add("message-cut-consistent-239", lambda x: frame(discover(x)[:239]))
    add("message-cut-consistent-240", lambda x: frame(discover(x)[:240]))
    for at in OPTION_CUTS:
        add(f"message-cut-consistent-{at}-padded",
            lambda x, a=at: frame(discover(x, pad=0)[:a].ljust(300, b"\0")))


def relay_lengths_and_headers(add):
    full = len(discover(0))
    ip_total = 20 + 8 + full
    for name, v in [("minus1", ip_total - 1), ("plus1", ip_total + 1), ("zero", 0),
                    ("below-header", 19), ("max", 0xFFFF)]:
        add(f"ip-total-length-{name}", lambda x, v=v: frame(discover(x), tot_len=v))
    for v in [0, 4, 6, 7, 15]:
        add(f"ip-ihl-{v}", lambda x, v=v: frame(discover(x), ihl=v))
    add("ip-header-checksum-bad", lambda x: frame(discover(x), ip_csum="bad"))
    add("ip-version-6", lambda x: b"".join([frame(discover(x))[:14],
                                            bytes([0x65]), frame(discover(x))[15:]]))
    for name, v in [("minus1", full + 7), ("plus1", full + 9), ("zero", 0), ("seven", 7),
                    ("max", 0xFFFF)]:
        add(f"udp-length-{name}", lambda x, v=v: frame(discover(x), ulen=v))
    add("udp-checksum-bad", lambda x: frame(discover(x), ucsum="bad"))
    add("udp-checksum-none", lambda x: frame(discover(x), ucsum="zero"))
    add("udp-dport-546", lambda x: frame(discover(x), dport=546))
    add("udp-sport-546", lambda x: frame(discover(x), sport=546))
    add("udp-neither-port", lambda x: frame(discover(x), sport=1000, dport=1001))
    add("tcp-to-67", lambda x: frame(discover(x), proto=6))
    add("payload-628", lambda x: frame(discover(x, pad=628)))
    add("payload-629", lambda x: frame(discover(x, pad=629)))
    add("payload-1400", lambda x: frame(discover(x, pad=1400)))


def relay_fields_and_options(add):
    for v in [0, 5, 7, 16, 255]:
        add(f"hlen-{v}", lambda x, v=v: frame(discover(x, hlen=v)))
    for v in [0, 2, 3]:
        add(f"op-{v}", lambda x, v=v: frame(discover(x, op=v)))
    add("cookie-zero", lambda x: frame(discover(x, cookie=b"\0\0\0\0")))
    add("server-reply-to-67", lambda x: frame(bootp(x, 2, op=2).ljust(300, b"\0"), sport=67))
    for v in [1, 7, 8, 9, 16, 17, 255]:
        add(f"hops-{v}", lambda x, v=v: frame(discover(x, hops=v)))
    add("nearer-relay-giaddr", lambda x: frame(discover(x, hops=1, giaddr="172.16.5.1")))
    add("broadcast-flag", lambda x: frame(discover(x, flags=0x8000)))
    for at, code in zip(OPTION_STARTS, (61, 12, 55, 53)):
        for v in [-1, 1, 0, 254, 255]:
            def make(x, at=at, v=v):
                m = bytearray(discover(x))
                m[at + 1] = (m[at + 1] + v) & 0xFF if v in (-1, 1) else v
                return frame(bytes(m))
            add(f"option{code}-length-{v}", make)
    for n in [1, 100, 200]:
        add(f"past-end-before-type-pad{n}", lambda x, n=n: frame(bootp(
            x, 1, options=b"\0" * n + b"\x2b\xff" + b"v" * (387 - n - 2), tail=b"")))
        add(f"past-end-after-type-pad{n}", lambda x, n=n: frame(bootp(
            x, 1, options=bytes([53, 1, 1]) + b"\0" * n + b"\x2b\xff" + b"v" * 20, tail=b"")))
    for ov in [1, 2, 3, 255]:
        for where in ["file", "sname"]:
            for cname, body in [("type", bytes([53, 1, 1, 255])), ("past-end", b"\x2b\xfe"),
                                ("type-nine", bytes([53, 1, 9, 255]))]:
                add(f"overload{ov}-{where}-{cname}",
                    lambda x, ov=ov, w=where, b=body: frame(bootp(
                        x, 1, options=bytes([52, 1, ov]), **{w: b}).ljust(300, b"\0")))


def relay_option82_and_ip(add):
    usual = usual_options(1)
    o82s = [("empty", b""), ("sub-length-missing", b"\x01"), ("sub-past-end", b"\x01\x03ab"),
            ("sub-negative", b"\x01\x80ab"), ("second-sub-past-end", b"\x01\x01a\x02\x05bb"),
            ("exact", b"\x01\x02ab")]
    for strategy in ["drop", "keep", "replace"]:
        add(f"option82-{strategy}-absent", lambda x: frame(discover(x)), strategy)
        for name, o in o82s:
            add(f"option82-{strategy}-{name}", lambda x, o=o: frame(bootp(
                x, 1, options=usual + bytes([82, len(o)]) + o).ljust(300, b"\0")), strategy)
        # Longer than the payload: within the record, so found (and, when
        # replaced, nothing after it in the payload to move down).
        add(f"option82-{strategy}-past-payload", lambda x: frame(bootp(
            x, 1, options=usual + b"\x52\xff\x01\x01a", tail=b"")), strategy)
        # Past the options area: the scan ends there, malformed.
        add(f"option82-{strategy}-past-area", lambda x: frame(bootp(
            x, 1, options=usual + b"\0" * (380 - len(usual)) + b"\x52\xff\x01\x01a",
            tail=b"")), strategy)
        add(f"option82-{strategy}-no-room-for-own", lambda x: frame(bootp(
            x, 1, options=usual + b"\x2b\xff" + b"v" * 255, tail=b"\xff").ljust(628, b"\0")),
            strategy)
        add(f"option82-{strategy}-at-area-end", lambda x: frame(bootp(
            x, 1, options=usual + b"\0" * (388 - len(usual) - 5) + b"\x52\x03\x01\x01a",
            tail=b"")), strategy)
    for name, opts in [("nop", b"\x01\x01\x01\x01"), ("router-alert", b"\x94\x04\x00\x00"),
                       ("record-route", b"\x07\x07\x04" + b"\0" * 5),
                       ("forty-bytes", b"\x01" * 40), ("bad-length", b"\x07\x09\x04\x00")]:
        add(f"ip-option-{name}", lambda x, o=opts: frame(discover(x), ip_opts=o))
    add("fragment-first-short", lambda x: fragments(discover(x), [0])[0])
    add("fragment-first-long", lambda x: fragments(discover(x), [0], at=264)[0])
    add("fragment-last-only", lambda x: fragments(discover(x), [1])[0])


def relay_cases():
    cases = []

    def add(name, build, strategy=None):
        cases.append((name, build, strategy))

    for group in (relay_truncated, relay_lengths_and_headers, relay_fields_and_options,
                  relay_option82_and_ip):
        group(add)
    return cases


RELAY_CASES = relay_cases()


class RelayLab:
    def __init__(self, tmp):
        self.lab = Lab(tmp)
        self.scene = None
        try:
            self.scene = Scene(self.lab)
            self.strategy = None
            self.remote = self.lab.port_mac(1).replace(":", "-").encode()
            self.stats = stats(self.scene.relay, "show dhcp-relay statistics")
        except BaseException:
            self.close()
            raise

    def set_strategy(self, strategy):
        if strategy == self.strategy:
            return
        cmds = ["configure terminal", "interface vlanif10"]
        if strategy is None:
            cmds.append("dhcp-relay information disable")
        else:
            cmds += ["dhcp-relay information enable", f"dhcp-relay information strategy {strategy}"]
        configure(self.scene.relay, *cmds)
        self.strategy = strategy

    def close(self):
        try:
            if self.scene:
                self.scene.close()
        finally:
            self.lab.delete()


@pytest.fixture(scope="module")
def relay(tmp_path_factory):
    lab = RelayLab(tmp_path_factory.mktemp("malformed-relay"))
    try:
        yield lab
    finally:
        lab.close()


def delivered_until(wire, marker):
    """The xids of the replies delivered on `wire` up to the marker's."""
    seen = []
    while True:
        f = wire.next_udp(68)
        xid = struct.unpack(">I", f.payload[4:8])[0]
        if xid == marker:
            return seen
        seen.append(xid)


@pytest.mark.parametrize("case", RELAY_CASES, ids=[c[0] for c in RELAY_CASES])
def test_relay(relay, case):
    name, build, strategy = case
    relay.set_strategy(strategy)
    s = relay.scene
    xid = 0x52000000 + RELAY_CASES.index(case)
    f = build(xid)
    kind, moved, payload = relay_outcome(f, strategy, relay.remote)
    s.hosts[1].send(f)
    if kind == "forward":
        got = s.forwarded()
        assert struct.unpack(">I", got.payload[4:8])[0] == xid
        assert got.payload == payload
    # The reply for the case finds an item only when the case made one.
    s.answer(server_msg(xid, CLIENT_MAC))
    s.marker(1)
    s.answer(server_msg(s.marks, CLIENT_MAC))
    assert delivered_until(s.hosts[1], s.marks) == ([xid] if kind == "forward" else [])
    assert relay.scene.relay.proc.poll() is None, "the daemon is gone"
    after = stats(s.relay, "show dhcp-relay statistics")
    got_moved = delta(relay.stats, after)
    relay.stats = after
    want = collections.Counter(MARKER)
    want.update(moved)
    if kind == "forward":
        want.update({(V10, "OFFER received"): 1, (V10, "replies delivered"): 1})
    else:
        want.update({(V20, "OFFER received"): 1, (V20, "no transaction"): 1})
    assert got_moved == dict(want)


# ---- the relay's reply path ----
#
# Each case first has a good request forwarded (an item for its xid), then
# the server's malformed reply arrives, then a good reply for the same xid:
# that one is delivered exactly when the malformed one left the item alone.

SERVER_MAC = bytes.fromhex("020000000b01")
REPLY_RX = {2: "OFFER received", 5: "ACK received", 6: "NAK received"}
OFFER_OPTIONS = (bytes([53, 1, 2, 54, 4]) + ip4("10.20.0.2") + bytes([51, 4, 0, 0, 2, 88]) +
                 bytes([1, 4, 255, 255, 255, 0]))


def offer(xid, options=OFFER_OPTIONS, pad=300, **kw):
    m = bootp(xid, 2, op=kw.pop("op", 2), giaddr=RELAY_IP, options=options, **kw)
    return m + b"\0" * max(0, pad - len(m))


def from_server(payload, **kw):
    return frame(payload, src="10.20.0.2", dst=RELAY_IP, smac=SERVER_MAC, sport=67, dport=68,
                 **kw)


def reply_outcome(f):
    """(kind, labels moved, delivered payload or None); kind "kept" when
    the item stays."""
    kind, moved, _ = relay_outcome(f)
    if kind in ("kernel", "refused"):
        return ("kept", moved, None)
    off = 14 + (f[14] & 0x0F) * 4 + 8
    payload = f[off:]
    t = msg_type(payload) if payload[0] in (1, 2) else -1
    moved = {(V10, REPLY_RX.get(t, "other reply received")): 1}
    if t not in REPLY_RX:
        moved[(V10, "wrong reply type")] = 1
        return ("dropped", moved, None)
    if get_option(payload, 54) is None:
        moved[(V10, "no server identifier")] = 1
        return ("dropped", moved, None)
    moved[(V10, "replies delivered")] = 1
    return ("delivered", moved, payload)


def reply_cases():
    cases = []

    def add(name, build):
        cases.append((name, build))

    for cut in [20, 36, 41, 42, 42 + 100, 42 + 239, 42 + 240]:
        add(f"reply-frame-cut-{cut}", lambda x, c=cut: from_server(offer(x), cut=c))
    for at in range(240, 240 + len(OFFER_OPTIONS) + 1, 3):
        add(f"reply-message-cut-{at}", lambda x, a=at: from_server(offer(x, pad=0)[:a]))
    add("reply-ip-total-length-zero", lambda x: from_server(offer(x), tot_len=0))
    add("reply-udp-length-max", lambda x: from_server(offer(x), ulen=0xFFFF))
    add("reply-udp-checksum-bad", lambda x: from_server(offer(x), ucsum="bad"))
    add("reply-ip-ihl-4", lambda x: from_server(offer(x), ihl=4))
    add("reply-fragment-last-only", lambda x: fragments_from_server(offer(x)))
    add("reply-payload-629", lambda x: from_server(offer(x, pad=629)))
    for v in [0, 1, 3, 7, 9, 255]:
        add(f"reply-type-{v}", lambda x, v=v: from_server(offer(
            x, options=bytes([53, 1, v]) + OFFER_OPTIONS[3:])))
    for v in [0, 2, 254]:
        add(f"reply-type-length-{v}", lambda x, v=v: from_server(offer(
            x, options=bytes([53, v]) + OFFER_OPTIONS[2:])))
    for v in [0, 3, 5, 255]:
        add(f"reply-server-id-length-{v}", lambda x, v=v: from_server(offer(
            x, options=OFFER_OPTIONS[:4] + bytes([v]) + OFFER_OPTIONS[5:])))
    add("reply-without-server-id", lambda x: from_server(offer(
        x, options=OFFER_OPTIONS[:3] + OFFER_OPTIONS[9:])))
    for v in [0, 3]:
        add(f"reply-op-{v}", lambda x, v=v: from_server(offer(x, op=v)))
    add("reply-hops-255", lambda x: from_server(offer(x, hops=255)))
    add("reply-hlen-0", lambda x: from_server(offer(x, hlen=0)))
    add("reply-type-in-file", lambda x: from_server(offer(
        x, options=bytes([52, 1, 1]) + OFFER_OPTIONS[3:], file=bytes([53, 1, 5, 255]))))
    add("reply-server-id-past-area", lambda x: from_server(offer(
        x, options=OFFER_OPTIONS[:3] + b"\0" * 378 + OFFER_OPTIONS[3:9], tail=b"")))
    return cases


def fragments_from_server(msg):
    whole = from_server(msg)
    udp = whole[14 + 20:]
    ident = struct.unpack(">H", msg[6:8])[0]
    return frame(b"", src="10.20.0.2", dst=RELAY_IP, smac=SERVER_MAC, udp=udp[160:],
                 frag=20, ident=ident)


REPLY_CASES = reply_cases()


@pytest.mark.parametrize("case", REPLY_CASES, ids=[c[0] for c in REPLY_CASES])
def test_relay_reply(relay, case):
    name, build = case
    relay.set_strategy(None)
    s = relay.scene
    xid = 0x53000000 + REPLY_CASES.index(case)
    s.relay_once(1, bootp(xid, 1).ljust(300, b"\0"))
    f = build(xid)
    kind, moved, payload = reply_outcome(f)
    s.up.send(f)
    good = offer(xid)
    s.up.send(from_server(good))
    s.marker(1)
    s.answer(server_msg(s.marks, CLIENT_MAC))
    seen = []
    while True:
        got = s.hosts[1].next_udp(68)
        if struct.unpack(">I", got.payload[4:8])[0] == s.marks:
            break
        seen.append(got.payload)
    assert s.relay.proc.poll() is None, "the daemon is gone"
    assert seen == {"kept": [good], "delivered": [payload], "dropped": []}[kind]
    after = stats(s.relay, "show dhcp-relay statistics")
    got_moved = delta(relay.stats, after)
    relay.stats = after
    want = collections.Counter(MARKER)
    want.update({(V10, "DISCOVER received"): 1, (V10, "requests forwarded"): 1})
    want.update(moved)
    if kind == "kept":
        want.update({(V10, "OFFER received"): 1, (V10, "replies delivered"): 1})
    else:
        want.update({(V20, "OFFER received"): 1, (V20, "no transaction"): 1})
    assert got_moved == dict(want)


def test_case_counts():
    assert len(SERVER_CASES) + len(RELAY_CASES) + len(REPLY_CASES) >= 300
