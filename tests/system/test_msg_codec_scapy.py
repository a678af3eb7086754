"""The option codec against scapy, an independent DHCP implementation.

Messages our codec builds are dissected by scapy with the same header fields
and options; messages scapy builds (random option sets, pads, overload of
file and sname) are read by our codec with the same values. Cases are
generated from fixed seeds.
"""
import ipaddress
import random

import pytest
from scapy.all import BOOTP, DHCP, raw
from scapy.layers.dhcp import DHCPOptions

from msgutil import CodecTool

BUILD_CASES = 300
PARSE_CASES = 300

LOG_ERR, LOG_INFO = 3, 6

# code -> (scapy's name, how the value is made)
IP_ONE = {1: "subnet_mask", 16: "swap-server", 28: "broadcast_address", 50: "requested_addr",
          54: "server_id"}
U32 = {2: "time_zone", 51: "lease_time", 58: "renewal_time", 59: "rebinding_time"}
U16 = {13: "boot-size", 26: "interface-mtu", 57: "max_dhcp_size"}
U8 = {23: "default_ttl"}
STRINGS = {12: "hostname", 15: "domain", 17: "root_disk_path", 40: "NIS_domain",
           56: "error_message", 60: "vendor_class_id", 61: "client_id", 66: "tftp_server_name",
           67: "boot-file-name"}
IP_LISTS = {3: "router", 4: "time_server", 6: "name_server", 42: "NTP_server",
            44: "NetBIOS_server"}


@pytest.fixture(scope="module")
def codec():
    t = CodecTool()
    yield t
    t.close()


def rand_ip(rng):
    return str(ipaddress.IPv4Address(rng.getrandbits(32)))


def rand_bytes(rng, lo, hi):
    return bytes(rng.getrandbits(8) for _ in range(rng.randint(lo, hi)))


def scapy_options(pkt):
    """scapy's options without pads and the end marker."""
    return [o for o in pkt[DHCP].options if o not in ("pad", "end")]


# ---- our codec builds, scapy reads ----------------------------------------

def make_build_case(seed):
    """Commands for the tool and what scapy must find in the result."""
    rng = random.Random(seed)
    mtype = rng.randint(1, 8)
    cmds = [f"init {mtype}"]
    fields = {
        "xid": rng.getrandbits(32), "secs": rng.getrandbits(16),
        "flags": rng.choice([0, 0x8000]), "ciaddr": rand_ip(rng), "yiaddr": rand_ip(rng),
        "siaddr": rand_ip(rng), "giaddr": rand_ip(rng), "chaddr": rand_bytes(rng, 6, 6),
        "hops": rng.randint(0, 16),
    }
    for name in ("hops", "secs", "flags"):
        cmds.append(f"field {name} {fields[name]}")
    cmds.append(f"field xid {fields['xid']:x}")
    for name in ("ciaddr", "yiaddr", "siaddr", "giaddr"):
        cmds.append(f"field {name} {fields[name]}")
    cmds.append(f"field chaddr {fields['chaddr'].hex()}")

    expected = [("message-type", mtype)]
    refused = []
    end = 3
    big = rng.random() < 0.3  # long strings, so that some options don't fit

    def add(code, size, opt):
        nonlocal end
        if end + size + 1 >= 308:
            refused.append(code)
        else:
            end += size
            expected.append(opt)

    pool_codes = rng.sample(sorted(IP_LISTS), rng.randint(0, 3))
    joined = None
    if rng.random() < 0.4:
        joined = rng.choice(sorted(STRINGS))
    direct = [c for c in list(IP_ONE) + list(U32) + list(U16) + list(U8) + list(STRINGS)
              if c != joined]
    for code in rng.sample(direct, rng.randint(0, 10)):
        if code in IP_ONE:
            ip = rand_ip(rng)
            cmds.append(f"simple {code} {int(ipaddress.IPv4Address(ip))}")
            add(code, 6, (IP_ONE[code], ip))
        elif code in U32:
            v = rng.getrandbits(32)
            cmds.append(f"simple {code} {v}")
            add(code, 6, (U32[code], v))
        elif code in U16:
            v = rng.getrandbits(16)
            cmds.append(f"simple {code} {v}")
            add(code, 4, (U16[code], v))
        elif code in U8:
            v = rng.getrandbits(8)
            cmds.append(f"simple {code} {v}")
            add(code, 3, (U8[code], v))
        else:
            value = rand_bytes(rng, 1, 255 if big else 40)
            cmds.append(f"binary {bytes([code, len(value)]).hex()}{value.hex()}")
            add(code, len(value) + 2, (STRINGS[code], value))

    # The pool list: addresses attached one at a time, copied in code order.
    nodes = {}
    for code in pool_codes:
        ips = [rand_ip(rng) for _ in range(rng.randint(1, 4))]
        for ip in ips:
            cmds.append(f"attach 0x31 {code} {ipaddress.IPv4Address(ip).packed.hex()}")
        nodes[code] = (len(ips) * 4, (IP_LISTS[code], *ips))
    if joined is not None:
        words = [rand_bytes(rng, 1, 12).replace(b" ", b"_") for _ in range(rng.randint(1, 3))]
        for w in words:
            cmds.append(f"attach 0x23 {joined} {w.hex()}")
        text = b" ".join(words)
        nodes[joined] = (len(text), (STRINGS[joined], text))
    if nodes:
        cmds.append("pool")
        for code in sorted(nodes):
            size, opt = nodes[code]
            add(code, size + 2, opt)
    return cmds, fields, expected, refused, end


@pytest.mark.parametrize("seed", range(BUILD_CASES))
def test_built_message_reads_the_same_in_scapy(codec, seed):
    cmds, fields, expected, refused, end = make_build_case(seed)
    codec.cmd("clear")
    codec.cmd(f"debug {seed % 2}")
    adding, not_fit = 0, []
    for c in cmds:
        _, logs = codec.cmd(c)
        for prio, text in logs:
            if text.startswith(b"Adding option: "):
                assert prio == LOG_INFO
                adding += 1
            elif b"did not fit" in text:
                assert prio == LOG_ERR
                not_fit.append(text.decode())
    codec.cmd("debug 0")
    assert codec.cmd("end")[0] == str(end)
    wire = bytes.fromhex(codec.cmd("dump")[0])
    assert len(wire) == 240 + end + 1

    pkt = BOOTP(wire)
    assert pkt.op == (2 if expected[0][1] in (2, 5, 6) else 1)
    assert (pkt.htype, pkt.hlen, pkt.hops) == (1, 6, fields["hops"])
    assert pkt.xid == fields["xid"]
    assert pkt.secs == fields["secs"]
    assert int(pkt.flags) == fields["flags"]
    for name in ("ciaddr", "yiaddr", "siaddr", "giaddr"):
        assert getattr(pkt, name) == fields[name]
    assert pkt.chaddr == fields["chaddr"] + bytes(10)
    assert pkt.sname == bytes(64) and pkt.file == bytes(128)
    assert pkt.options == b"c\x82Sc"
    assert scapy_options(pkt) == expected
    assert pkt[DHCP].options[-1] == "end"

    assert not_fit == [f"option 0x{c:02x} did not fit into the packet" for c in refused]
    assert adding == (len(expected) if seed % 2 else 0)


# ---- scapy builds, our codec reads ------------------------------------------

def rand_option(rng, short=False):
    """A random option in scapy's form."""
    kind = rng.choice(["ip", "u32", "u16", "u8", "str", "list", "raw"])
    if kind == "ip":
        return (IP_ONE[rng.choice(sorted(IP_ONE))], rand_ip(rng))
    if kind == "u32":
        return (U32[rng.choice(sorted(U32))], rng.getrandbits(32))
    if kind == "u16":
        return (U16[rng.choice(sorted(U16))], rng.getrandbits(16))
    if kind == "u8":
        return (U8[23], rng.getrandbits(8))
    if kind == "str":
        return (STRINGS[rng.choice(sorted(STRINGS))], rand_bytes(rng, 0, 8 if short else 30))
    if kind == "list":
        return (IP_LISTS[rng.choice(sorted(IP_LISTS))],
                *[rand_ip(rng) for _ in range(rng.randint(1, 2 if short else 4))])
    # An option scapy has no name for, or whose name is taken: raw code and bytes.
    code = rng.choice([77, 82, 100, 150, 200, 224, 240, 254, 121, 249, 252])
    return (code, rand_bytes(rng, 0, 6 if short else 20))


def encode(opt):
    """scapy's wire form of one option: (code, value bytes)."""
    if opt == "pad":
        return None
    b = raw(DHCP(options=[opt]))
    assert len(b) == b[1] + 2
    return b[0], b[2:]


def area_bytes(opts, size):
    b = raw(DHCP(options=opts + ["end"]))
    assert len(b) <= size
    return b + bytes(size - len(b))


def lookup(main, file_opts, sname_opts, code):
    """Where the first option `code` is, following overload: main, then file
    (bit 1), then sname (bit 2), each area once."""
    areas = {"main": main, "file": file_opts, "sname": sname_opts}
    overload, area = 0, "main"
    while True:
        for opt in areas[area]:
            enc = encode(opt)
            if enc is None:
                continue
            c, value = enc
            if c == code:
                return value
            if c == 52 and value:
                overload |= value[0]
        if overload & 0x101 == 1:
            overload |= 0x101
            area = "file"
        elif overload & 0x202 == 2:
            overload |= 0x202
            area = "sname"
        else:
            return None


def make_parse_case(seed):
    rng = random.Random(10_000 + seed)
    main = []
    for _ in range(rng.randint(0, 10)):
        main += ["pad"] * rng.choice([0, 0, 1, 3])
        main.append(rand_option(rng))
    if rng.random() < 0.3:  # the same code twice: the first one counts
        main.append(main[rng.randrange(len(main))] if main else rand_option(rng))
    overload = rng.choice([0, 0, 1, 2, 3])
    file_opts, sname_opts = [], []
    if overload:
        main.insert(rng.randint(0, len(main)), ("dhcp-option-overload", overload))
    # Overloaded or not, the areas carry options: only option 52 makes them count.
    while True:
        file_opts = [rand_option(rng, short=True) for _ in range(rng.randint(0, 4))]
        if rng.random() < 0.2:  # chain: file names sname as well
            file_opts.append(("dhcp-option-overload", 2))
        if len(raw(DHCP(options=file_opts + ["end"]))) <= 128:
            break
    while True:
        sname_opts = [rand_option(rng, short=True) for _ in range(rng.randint(0, 3))]
        if rng.random() < 0.5:
            sname_opts.insert(0, "pad")
        if len(raw(DHCP(options=sname_opts + ["end"]))) <= 64:
            break
    while len(raw(DHCP(options=main + ["end"]))) > 380:
        main.pop()
    pkt = BOOTP(op=1, xid=rng.getrandbits(32), chaddr=rand_bytes(rng, 6, 6),
                sname=area_bytes(sname_opts, 64), file=area_bytes(file_opts, 128)) / \
        DHCP(options=main + ["end"])
    wire = raw(pkt)
    # Garbage after the end marker is never read as options.
    wire += rand_bytes(rng, 0, 628 - len(wire))
    return wire, main, file_opts, sname_opts


@pytest.mark.parametrize("seed", range(PARSE_CASES))
def test_scapy_message_reads_the_same_in_codec(codec, seed):
    wire, main, file_opts, sname_opts = make_parse_case(seed)
    assert codec.cmd(f"load {wire.hex()}")[0] == str(len(wire))
    answer, _ = codec.cmd("scan")
    *found, absent = answer.split()
    got = {int(c): bytes.fromhex(v) for c, n, v in (f.split(":") for f in found)}
    assert all(len(got[int(f.split(":")[0])]) == int(f.split(":")[1]) for f in found)
    expected = {}
    for code in range(1, 255):
        value = lookup(main, file_opts, sname_opts, code)
        if value is not None:
            expected[code] = value
    assert got == expected
    assert absent == "end=notfound"


def test_scapy_client_discover(codec):
    """A DISCOVER the way a client sends it."""
    pkt = BOOTP(op=1, xid=0x1234abcd, flags=0x8000, chaddr=b"\x02\x01\x02\x03\x04\x05") / \
        DHCP(options=[("message-type", "discover"), ("client_id", b"\x01\x02\x01\x02\x03\x04\x05"),
                      ("requested_addr", "192.168.1.50"), ("hostname", b"switch-client"),
                      ("param_req_list", [1, 3, 6, 15, 51, 58, 59]), ("max_dhcp_size", 1500),
                      "end", "pad", "pad", "pad"])
    codec.cmd(f"load {raw(pkt).hex()}")
    assert codec.cmd("get 53")[0] == "found 1 01"
    assert codec.cmd("get 50")[0] == "found 4 c0a80132"
    assert codec.cmd("get 12")[0] == f"found 13 {b'switch-client'.hex()}"
    assert codec.cmd("get 55")[0] == "found 7 0103060f333a3b"
    assert codec.cmd("get 57")[0] == "found 2 05dc"
    assert codec.cmd("get 54")[0] == "none"


# ---- malformed messages ---------------------------------------------------

def message(options, file=b"", sname=b""):
    pkt = BOOTP(op=1, xid=1, sname=sname + bytes(64 - len(sname)),
                file=file + bytes(128 - len(file)))
    return raw(pkt) + b"c\x82Sc" + options


MALFORMED = {
    # An option running past the 388-byte area: the one before it is found,
    # the search for anything else ends malformed.
    "runs_past_area": (message(b"\x35\x01\x05" + bytes(297) + b"\x0c\x64" + b"x" * 86),
                       {53: "05"}, "end=malformed"),
    "no_end_marker": (message(b"\x3c\x02ab" * 97), {60: "6162"}, "end=malformed"),
    "only_pads": (message(bytes(388)), {}, "end=malformed"),
    "code_on_last_byte": (message(bytes(387) + b"\x0c"), {}, "end=malformed"),
    "runs_past_file": (message(b"\x34\x01\x03\xff", file=bytes(120) + b"\x0f\x0a",
                               sname=b"\x0c\x01s\xff"), {52: "03"}, "end=malformed"),
    "exactly_fills_sname": (message(b"\x34\x01\x02\xff", sname=bytes(60) + b"\x0c\x02ab"),
                            {52: "02", 12: "6162"}, "end=malformed"),
    "end_then_garbage": (message(b"\x35\x01\x03\xff\x0c\xff\xff"), {53: "03"}, "end=notfound"),
}


@pytest.mark.parametrize("name", sorted(MALFORMED))
def test_malformed_message(codec, name):
    wire, expected, absent = MALFORMED[name]
    codec.cmd(f"load {wire.hex()}")
    answer, _ = codec.cmd("scan")
    *found, end = answer.split()
    got = {int(c): v for c, n, v in (f.split(":") for f in found)}
    assert got == expected
    assert end == absent
    # scapy agrees on the options it can read before the damage.
    if name in ("runs_past_area", "no_end_marker"):
        scapy_first = [o for o in BOOTP(wire)[DHCP].options if isinstance(o, tuple)][0]
        assert DHCPOptions[int(next(iter(expected)))].name == scapy_first[0]


def test_malformed_logs_only_with_events_debug(codec):
    wire, _, _ = MALFORMED["runs_past_area"]
    codec.cmd(f"load {wire.hex()}")
    codec.cmd("debug 0")
    assert codec.cmd("get 15") == ("none", [])
    codec.cmd("debug 1")
    assert codec.cmd("get 15") == ("none", [(LOG_ERR, b"bad packet, malformed option field")])
    assert codec.cmd("get 53") == ("found 1 05", [(LOG_INFO, b"Option 0x35 found")])
    codec.cmd("debug 0")


def test_adding_to_message_without_end_marker_is_refused(codec):
    wire, _, _ = MALFORMED["no_end_marker"]
    codec.cmd(f"load {wire.hex()}")
    before = codec.cmd("dumpall")[0]
    _, logs = codec.cmd("binary 350105")
    assert logs == [(LOG_ERR, b"option 0x35 did not fit into the packet")]
    assert codec.cmd("dumpall")[0] == before
    assert codec.cmd("end")[0] == "388"
