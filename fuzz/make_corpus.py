#!/usr/bin/env python3
"""Writes the seed corpus of the fuzzers: tricky messages for
fuzz_get_option, tricky option lists for fuzz_build_reply, trapped-frame
exchanges for fuzz_relay_frame, requests for fuzz_option82, client
conversations for fuzz_dhcps_request, lease files for fuzz_lease_file,
command lines for fuzz_cli, shell-protocol streams for fuzz_vty_proto,
management-bus streams for fuzz_uclient, interface-manager messages for
fuzz_zclient and one JSON request of each kind for fuzz_json_request. Seeds
named regress-* are regression inputs of fixed bugs and are kept as they are.

Run from anywhere; rewrites fuzz/corpus/<target>/ beside this script."""
import json
import pathlib
import shutil

HERE = pathlib.Path(__file__).resolve().parent
COOKIE = bytes.fromhex("63825363")


def message(options=b"", file=b"", sname=b"", op=1):
    fixed = bytes([op, 1, 6, 0]) + bytes(24) + bytes.fromhex("020000000001") + bytes(10)
    return fixed + sname.ljust(64, b"\0") + file.ljust(128, b"\0") + COOKIE + options


def get_option_cases():
    # Each input: wanted code, flags (bit 0: events debug), message.
    cases = {
        "empty_area": (53, message(b"\xff")),
        "discover": (53, message(bytes.fromhex("350101" "3d0701020000000001" "3204c0a80132"
                                               "0c04686f7374" "370401030f06" "ff"))),
        "pads_then_option": (12, message(b"\0" * 20 + b"\x0c\x03abc\xff")),
        "overload_file_sname": (12, message(b"\x34\x01\x03\xff", file=b"\x0f\x01f\xff",
                                            sname=b"\x0c\x01s\xff")),
        "overload_chain_in_file": (12, message(b"\x34\x01\x01\xff", file=b"\x34\x01\x02\xff",
                                               sname=b"\x0c\x02ss\xff")),
        "overload_in_sname_then_file": (60, message(b"\x34\x01\x02\xff",
                                                    file=b"\x3c\x01x\xff",
                                                    sname=b"\x34\x01\x01\xff")),
        "overload_empty_value": (12, message(b"\x34\x00\xff", file=b"\x0c\x01f\xff")),
        "overload_empty_next_code": (12, message(b"\x34\x00\x02\x01x\xff",
                                                 sname=b"\x0c\x01s\xff")),
        "overload_empty_at_area_end": (52, message(bytes(386) + b"\x34\x00")),
        "overload_empty_at_file_end": (12, message(b"\x34\x01\x01\xff",
                                                   file=bytes(126) + b"\x34\x00",
                                                   sname=b"\x0c\x01s\xff")),
        "overload_empty_at_sname_end": (12, message(b"\x34\x01\x02\xff",
                                                    sname=bytes(62) + b"\x34\x00",
                                                    file=b"\x0c\x01f\xff")),
        "short_requested_ip_at_area_end": (50, message(b"\x35\x01\x03" + bytes(381) +
                                                       b"\x32\x02\xc0\xa8")),
        "runs_past_area": (15, message(b"\x35\x01\x05" + bytes(297) + b"\x0c\x64" + b"x" * 86)),
        "no_end_marker": (61, message(b"\x3c\x02ab" * 97)),
        "only_pads": (1, message(bytes(388))),
        "code_on_last_byte": (12, message(bytes(387) + b"\x0c")),
        "value_ends_at_area_end": (12, message(bytes(383) + b"\x0c\x03xyz")),
        "runs_past_file": (12, message(b"\x34\x01\x03\xff", file=bytes(120) + b"\x0f\x0a",
                                       sname=b"\x0c\x01s\xff")),
        "fills_sname_exactly": (12, message(b"\x34\x01\x02\xff", sname=bytes(60) + b"\x0c\x02ab")),
        "code_on_sname_last_byte": (12, message(b"\x34\x01\x02\xff", sname=bytes(63) + b"\x0c")),
        "long_option_in_slack": (82, message(b"\x0c\xff" + b"h" * 255 + b"\x52\x40" +
                                             b"r" * 64 + b"\xff")),
        "end_then_garbage": (12, message(b"\x35\x01\x03\xff\x0c\xff\xff")),
        "short_message": (53, message()[:100]),
        "end_at_307": (53, message(b"\x35\x01\x05" + bytes(304) + b"\xff")),
        "end_at_306_add_refused": (53, message(b"\x35\x01\x05" + bytes(303) + b"\xff")),
        "end_at_303_add_fits": (53, message(b"\x35\x01\x05" + bytes(300) + b"\xff")),
    }
    out = {}
    for name, (code, msg) in cases.items():
        out[name] = bytes([code, 0]) + msg
        out[name + "_debug"] = bytes([code, 1]) + msg
    return out


def rec(op, flags, code, value):
    return bytes([op, flags, code, len(value)]) + value


def build_reply_cases():
    # Each input: message type, flags (bit 0: events debug), records
    # {op, flags, code, length, value}; op 0 attach, 1 delete, 2 simple, 3 binary.
    ip = lambda *b: bytes(b)
    return {
        "pool_basic": bytes([2, 1]) + rec(0, 0x11, 1, ip(255, 255, 255, 0)) +
        rec(0, 0x31, 3, ip(10, 0, 0, 1)) + rec(0, 0x31, 6, ip(8, 8, 8, 8)) +
        rec(0, 0x31, 6, ip(8, 8, 4, 4)) + rec(0, 0x14, 15, ip(10, 0, 0, 2)) +
        rec(0, 0x13, 51, b"3600") + rec(2, 0, 54, ip(10, 0, 0, 1)) +
        rec(2, 0, 51, ip(0, 0, 14, 16)),
        "dns_list_to_255": bytes([5, 0]) + b"".join(
            rec(0, 0x31, 6, ip(10, 0, 0, i)) for i in range(70)),
        "string_join": bytes([5, 1]) + b"".join(
            rec(0, 0x23, 56, b"word%d" % i) for i in range(60)),
        "string_join_edge": bytes([5, 0]) + rec(0, 0x23, 56, b"a" * 250) + rec(0, 0x23, 56, b"bcde") +
        rec(0, 0x23, 56, b""),
        "host_list_join": bytes([2, 0]) + rec(0, 0x24, 40, b"x") + rec(0, 0x24, 40, b"yz"),
        "binary_hex": bytes([5, 1]) + rec(0, 0x09, 224, b"0a0B0c") + rec(0, 0x09, 225, b"0g") +
        rec(0, 0x29, 226, b"0102") + rec(0, 0x29, 226, b"abc"),
        "second_value_ignored": bytes([2, 0]) + rec(0, 0x14, 15, b"abcd") + rec(0, 0x14, 15, b"efgh"),
        "delete_and_reattach": bytes([5, 0]) + rec(0, 0x31, 3, ip(1, 1, 1, 1)) + rec(1, 0, 3, b"") +
        rec(0, 0x31, 3, ip(2, 2, 2, 2)) + rec(1, 0, 99, b"") + rec(1, 0, 3, b""),
        "fill_to_307": bytes([2, 1]) + rec(3, 0, 12, b"h" * 255) + rec(3, 0, 60, b"v" * 44) +
        rec(3, 0, 61, b""),
        "refused_at_308": bytes([5, 1]) + rec(3, 0, 12, b"h" * 255) + rec(3, 0, 60, b"v" * 45),
        "simple_every_code": bytes([6, 1]) + b"".join(
            rec(2, 0, c, ip(1, 2, 3, 4)) for c in (1, 2, 3, 12, 13, 23, 33, 52, 82, 121, 212, 252)),
        "long_values": bytes([2, 0]) + rec(0, 0x03, 17, b"p" * 255) + rec(0, 0x03, 67, b"q" * 255) +
        rec(0, 0x31, 6, b"r" * 255),
        "unknown_types": bytes([8, 1]) + rec(0, 0x0f, 200, b"abc") + rec(0, 0xff, 201, b"xyz") +
        rec(0, 0x2c, 202, b"1") + rec(0, 0x2c, 202, b"2"),
        "request_types": bytes([4, 0]) + rec(2, 0, 50, ip(10, 0, 0, 5)),
        "truncated_record": bytes([3, 0]) + bytes([0, 0x31, 6, 200, 1, 2]),
    }


def dhcp_payload(op, mtype, xid, options=b"", hops=0, flags=0, giaddr=bytes(4), length=300):
    fixed = (bytes([op, 1, 6, hops]) + xid.to_bytes(4, "big") + bytes(2) +
             flags.to_bytes(2, "big") + bytes(12) + giaddr + bytes.fromhex("001122334455") +
             bytes(10))
    msg = fixed + bytes(192) + COOKIE + bytes([53, 1, mtype]) + options + b"\xff"
    return msg.ljust(length, b"\0")


def udp_frame(payload, dport=67, sport=68, tag=None, ip_option_words=0, proto=17):
    eth = b"\xff" * 6 + bytes.fromhex("001122334455")
    if tag is not None:
        eth += b"\x81\x00" + tag.to_bytes(2, "big")
    eth += b"\x08\x00"
    ihl = 5 + ip_option_words
    udp_len = 8 + len(payload)
    ip = (bytes([0x40 | ihl, 0]) + (ihl * 4 + udp_len).to_bytes(2, "big") + bytes(4) +
          bytes([64, proto]) + bytes(2) + bytes(4) + b"\xff" * 4 + b"\x01" * (ip_option_words * 4))
    udp = sport.to_bytes(2, "big") + dport.to_bytes(2, "big") + udp_len.to_bytes(2, "big") + bytes(2)
    return eth + ip + udp + payload


def trap(frame, port=3, vlan_sel=0, gap=2, mtype=1):
    return bytes([mtype, port, vlan_sel, gap]) + len(frame).to_bytes(2, "big") + frame


def relay_frame_cases():
    # Settings byte: bit 0 option 82 on, bits 1-2 strategy, bit 3 circuit-id
    # string, bit 4 remote-id string, bit 5 record disabled; then the two
    # string lengths.
    server_id = bytes([54, 4, 10, 0, 20, 2])
    discover = dhcp_payload(1, 1, 0x1234)
    offer = dhcp_payload(2, 2, 0x1234, server_id, giaddr=bytes([192, 168, 10, 1]))
    reply = trap(udp_frame(offer, dport=68, sport=67), port=9, vlan_sel=1)
    client82 = bytes([82, 4, 1, 2]) + b"xy"
    return {
        "discover_offer": bytes([0, 0, 0]) + trap(udp_frame(discover)) + reply,
        "tagged_discover_offer": (bytes([1, 0, 0]) + trap(udp_frame(discover, tag=10)) +
                                  trap(udp_frame(offer, 68, 67, tag=20), 9, 1)),
        "broadcast_flag": (bytes([1, 0, 0]) +
                           trap(udp_frame(dhcp_payload(1, 1, 0x1234, flags=0x8000))) + reply),
        "ip_options": bytes([0, 0, 0]) + trap(udp_frame(discover, ip_option_words=3), gap=0),
        "string_ids": bytes([0x19, 12, 40]) + trap(udp_frame(discover)),
        "strategy_drop": bytes([1, 0, 0]) + trap(udp_frame(dhcp_payload(1, 1, 7, client82))),
        "strategy_keep": bytes([3, 0, 0]) + trap(udp_frame(dhcp_payload(1, 3, 7, client82))),
        "strategy_replace": bytes([5, 0, 0]) + trap(udp_frame(dhcp_payload(1, 1, 7, client82))),
        "hops_8_and_9": (bytes([0, 0, 0]) + trap(udp_frame(dhcp_payload(1, 1, 1, hops=8))) +
                         trap(udp_frame(dhcp_payload(1, 1, 2, hops=9)))),
        "off_subnet_giaddr": (bytes([0, 0, 0]) +
                              trap(udp_frame(dhcp_payload(1, 1, 5, hops=1,
                                                          giaddr=bytes([172, 16, 5, 1])))) +
                              trap(udp_frame(dhcp_payload(2, 2, 5, server_id,
                                                          giaddr=bytes([172, 16, 5, 1])),
                                             68, 67), 9, 1)),
        "release_reply": (bytes([0, 0, 0]) + trap(udp_frame(discover)) +
                          trap(udp_frame(dhcp_payload(2, 7, 0x1234, server_id), 68, 67), 9, 1)),
        "tcp_and_546": (bytes([0, 0, 0]) + trap(udp_frame(discover, proto=6)) +
                        trap(udp_frame(discover, dport=546))),
        "short_and_long": (bytes([0, 0, 0]) + trap(udp_frame(discover[:239])) +
                           trap(udp_frame(discover.ljust(629, b"\0")))),
        "unknown_vlan_and_type": (bytes([0, 0, 0]) + trap(udp_frame(discover), vlan_sel=2) +
                                  trap(udp_frame(discover), vlan_sel=3) +
                                  trap(udp_frame(discover), mtype=0xff)),
        "disabled_record": bytes([0x20, 0, 0]) + trap(udp_frame(discover)),
    }


def option82_cases():
    # Settings (bit 0 circuit-id string, bit 1 remote-id string), VLAN, port,
    # string lengths, payload length, then the message.
    def case(msg, length, bits=0, vlan=10, port=3, lc=0, lr=0):
        return bytes([bits]) + vlan.to_bytes(2, "big") + bytes([port, lc, lr]) + \
            (length - 240).to_bytes(2, "big") + msg
    discover = dhcp_payload(1, 1, 0x1234)
    return {
        "discover_300": case(discover, 300),
        "discover_tight": case(discover, 253 + 29),
        "discover_no_room": case(discover, 253),
        "string_ids_long": case(discover, 400, bits=3, lc=40, lr=31),
        "client_82": case(dhcp_payload(1, 1, 1, bytes([82, 3, 1, 1, 0x7a])), 300),
        "near_building_end": case(dhcp_payload(1, 1, 1, bytes([12, 255]) + b"h" * 255 +
                                               bytes([60, 20]) + b"v" * 20, length=628), 628),
        "no_end_marker": case(dhcp_payload(1, 1, 1)[:243] + b"\x3c\x02ab" * 90, 600),
        "overload_file": case(bytes([1, 1, 6, 0]) + bytes(104) + b"\x52\x01\x00\xff" +
                              bytes(124) + COOKIE + b"\x34\x01\x01\xff", 300),
    }


def ip4(text):
    return bytes(int(x) for x in text.split("."))


def mac(last):
    return bytes([2, 0, 0, 0, 0, last])


def client_msg(mtype, last, options=b"", ciaddr="0.0.0.0", giaddr="0.0.0.0", hops=0,
               flags=0, xid=0x1234, length=300):
    fixed = (bytes([1, 1, 6, hops]) + xid.to_bytes(4, "big") + bytes(2) +
             flags.to_bytes(2, "big") + ip4(ciaddr) + bytes(8) + ip4(giaddr) +
             mac(last) + bytes(10))
    msg = fixed + bytes(192) + COOKIE + bytes([53, 1, mtype]) + options + b"\xff"
    return msg.ljust(length, b"\0")


def opt(code, value):
    return bytes([code, len(value)]) + value


def rec_req(msg, where=0, dt=0):
    return bytes([where, dt]) + len(msg).to_bytes(2, "big") + msg


def dhcps_request_cases():
    # Settings: bit 0 option 82, bit 1 relay port 67, bit 2 8 leases,
    # bit 3 leases from before, bits 4-5 debug.
    sid = opt(54, ip4("192.168.1.1"))
    want = lambda a: opt(50, ip4(a))
    c82 = opt(82, b"\x01\x05port1\x02\x03abc")
    host = opt(12, b"laptop") + opt(55, b"\x01\x03\x06")
    return {
        "discover_request": bytes([0x09]) + rec_req(client_msg(1, 7, host)) +
        rec_req(client_msg(3, 7, want("192.168.1.10") + sid + host)),
        "renew_release": bytes([0x08]) + rec_req(client_msg(3, 1, ciaddr="192.168.1.12")) +
        rec_req(client_msg(7, 1, sid, ciaddr="192.168.1.12"), dt=5) +
        rec_req(client_msg(1, 1), dt=1),
        "decline": bytes([0x08]) + rec_req(client_msg(4, 1, want("192.168.1.12") + sid)) +
        rec_req(client_msg(1, 9), dt=40),
        "static_and_port": bytes([0x21]) + rec_req(client_msg(1, 0x50)) +
        rec_req(client_msg(3, 0x50, want("192.168.1.50") + sid)) +
        rec_req(client_msg(1, 0x60)) + rec_req(client_msg(3, 0x60, want("192.168.1.60") + sid)),
        "inform_nak": bytes([0x01]) + rec_req(client_msg(8, 3, ciaddr="192.168.1.77")) +
        rec_req(client_msg(3, 4, want("192.168.1.99"))),
        "second_interface": bytes([0x0b]) + rec_req(client_msg(1, 3, flags=0x8000), where=1) +
        rec_req(client_msg(3, 3, want("10.0.20.100") + opt(54, ip4("10.0.20.1"))), where=1),
        "relayed_small_range": bytes([0x0e]) + b"".join(
            rec_req(client_msg(1, 0x20 + i, giaddr="172.16.5.1", hops=1), dt=30)
            for i in range(6)),
        "relayed_circuit": bytes([0x03]) + rec_req(client_msg(1, 5, c82, giaddr="10.0.30.1",
                                                             hops=1)) +
        rec_req(client_msg(3, 5, want("10.0.30.10") + c82, giaddr="10.0.30.1", hops=1)),
        "circuit_refused": bytes([0x01]) + rec_req(client_msg(1, 5, opt(82, b"\x01\x02zz"),
                                                             giaddr="10.0.30.1")),
        "bad_option82": bytes([0x01]) + rec_req(client_msg(1, 5, opt(82, b"\x01\x09p"))),
        "full_table": bytes([0x04]) + b"".join(rec_req(client_msg(1, 0x30 + i), dt=3)
                                               for i in range(12)),
        "overload_hostname": bytes([0x30]) + rec_req(
            client_msg(1, 8, opt(52, b"\x03"))[:108] + opt(12, b"f" * 20) + b"\xff" +
            bytes(105) + client_msg(1, 8, opt(52, b"\x03"))[236:]),
        "wrong_server_and_types": bytes([0x00]) + rec_req(
            client_msg(3, 2, want("192.168.1.10") + opt(54, ip4("1.2.3.4")))) +
        rec_req(client_msg(2, 2)) + rec_req(client_msg(9, 2)) + rec_req(client_msg(1, 2)[:240]),
        "lost_interfaces": bytes([0x00]) + rec_req(client_msg(1, 2), where=2) +
        rec_req(client_msg(1, 2), where=3),
    }


def lease(mac_b, addr, expires, lease_time=3600, name=b"", state=1):
    return (state.to_bytes(4, "big") + (expires & 0xffffffff).to_bytes(4, "big") +
            lease_time.to_bytes(4, "big") + ip4(addr) + mac_b + name.ljust(20, b"\0")[:20] +
            bytes(2))


def lease_file_cases():
    now = 1700000000
    three = (lease(mac(1), "192.168.1.10", now + 3600, name=b"alpha") +
             lease(mac(2), "192.168.1.11", now - 43200, name=b"beta\x01\xc3") +
             lease(bytes(6), "192.168.1.12", now + 60, state=0))
    return {
        "three": bytes([0]) + three,
        "stale_edge": bytes([0]) + lease(mac(1), "10.0.0.1", now - 43200) +
        lease(mac(2), "10.0.0.2", now - 43201),
        "duplicates": bytes([0]) + lease(mac(1), "10.0.0.1", now) + lease(mac(1), "10.0.0.2", now) +
        lease(mac(3), "10.0.0.2", now) + lease(bytes(6), "10.0.0.9", now) +
        lease(bytes(6), "10.0.0.8", now),
        "no_address_and_tail": bytes([0]) + lease(mac(4), "0.0.0.0", now) + b"\x01" * 30,
        "long_names": bytes([0]) + lease(mac(5), "10.1.1.1", now, name=b"n" * 20) +
        lease(mac(6), "10.1.1.2", now, name=b"\x7f\x80\xff" * 6),
        "repeat_to_ceiling": bytes([0xff]) + b"".join(
            lease(bytes([2, 0, 0, i, 0, 0]), "10.%d.0.0" % i, now + 100) for i in range(41)),
        "repeat_16": bytes([0xf1]) + three,
        "empty": bytes([0]),
    }


def cli_cases():
    def lines(*ls):
        return "\n".join(ls).encode()
    return {
        "pool_life": lines("configure terminal", "dhcp-server pool p3", "network 172.16.0.0/16",
                           "begin-ip 172.16.0.10 end-ip 172.16.0.20", "lease 600",
                           "dns-server 1.1.1.1", "no dns-server", "static 172.16.0.5 02-00-00-00-00-05",
                           "no static 172.16.0.5", "exit", "no dhcp-server pool p2"),
        "jumps": b"\x02no lease\n\x02no domain-name\n\x03no dhcp-relay remote-server\n"
                 b"\x01dhcp-server max-lease-num 2048\n\x04show running-config",
        "relay": lines("conf t", "interface vlanif10", "dhcp-relay remote-server 10.0.20.3",
                       "dhcp-relay information enable", "dhcp-relay information remote-id normal",
                       "exit", "no interface vlanif20", "dhcp-relay enable"),
        "settings": lines("conf t", "dhcp-server information disable", "no dhcp-server write-time",
                          "dhcp-server relay-reply-port 68", "dhcp-server enable",
                          "no debug dhcp packet", "debug dhcp events", "end", "write memory"),
        "errors": lines("conf t", "dhcp-server pool " + "x" * 40, "dhcp-server pool p1",
                        "network 300.1.1.1/24", "begin-ip 192.168.1.200 end-ip 192.168.1.100",
                        "allow circuit-id " + "c" * 40, "port-bind swp9 192.168.1.61",
                        "static 192.168.1.51 zz-00", "lease 99999999999"),
        "describe_and_exit": lines("show dhcp-server", "show dhcp-server lease", "show dhcp-relay",
                                   "show debugging dhcp", "list", "exit", "show running-config"),
    }


def vty_cases():
    def req(kind, line):
        return kind + line + b"\0"
    return {
        "session": req(b"P", b"") + req(b"X", b"configure terminal") + req(b"D", b"ec") +
        req(b"C", b"e") + req(b"X", b"echo a b c") + req(b"X", b"exit") + req(b"X", b"fill 70000"),
        "long_refused": req(b"X", b"echo " + b"y" * 4100) + req(b"X", b"warn once"),
        "exact_max": req(b"X", b"echo " + b"z" * 4091) + req(b"Q", b"what"),
        "empty_frames": b"\0\0" + req(b"X", b"") + b"Xno terminator",
        "exit_first": req(b"X", b"exit") + req(b"P", b""),
        "fill": req(b"X", b"fill 65535") + req(b"X", b"fill 1"),
    }


def bus(mtype, payload, magic=0x5542, length=None):
    n = len(payload) if length is None else length
    return magic.to_bytes(2, "big") + mtype.to_bytes(2, "big") + n.to_bytes(4, "big") + payload


def uclient_cases():
    trust = lambda port, on: bus(6, port.to_bytes(4, "big") + bytes([on]))
    return {
        "snooping": bytes([255]) + bus(5, b"\x01") + trust(3, 1) + trust(4095, 1) + trust(3, 0) +
        bus(7, b"") + bus(3, b"ping!"),
        "byte_by_byte": bytes([0]) + bus(1, b"peer") + bus(2, b"swp1") + bus(3, b"x") +
        bus(7, b""),
        "bad_magic": bytes([1]) + bus(3, b"a") + bus(3, b"b", magic=0x5543) + bus(3, b"c"),
        "over_long": bytes([8]) + bus(3, b"", length=65537),
        "bad_payloads": bytes([2]) + bus(2, b"a\0b") + bus(5, b"\x02"),
        "trust_range": bytes([2]) + trust(0, 1),
        "unknown_types": bytes([3]) + bus(99, b"zz") + bus(8, b"\x01") + bus(4, b"") +
        bus(6, b"\x00\x00\x00\x05\x01") + bus(5, b"\x01"),
        "cut": bytes([16]) + bus(3, b"12345678")[:11],
    }


def nl(mtype, body, flags=0, seq=0):
    n = 16 + len(body)
    pad = (-n) % 4
    return (n.to_bytes(4, "little") + mtype.to_bytes(2, "little") + flags.to_bytes(2, "little") +
            seq.to_bytes(4, "little") + bytes(4) + body + bytes(pad))


def rta(t, value):
    n = 4 + len(value)
    return n.to_bytes(2, "little") + t.to_bytes(2, "little") + value + bytes((-n) % 4)


def link(mtype, index, name, flags, family=0):
    ifi = bytes([family, 0]) + (1).to_bytes(2, "little") + index.to_bytes(4, "little", signed=True) + \
        flags.to_bytes(4, "little") + bytes(4)
    return nl(mtype, ifi + rta(3, name + b"\0") + rta(4, (1500).to_bytes(4, "little")) +
              rta(1, mac(index)))


def addr(mtype, index, a, plen, peer=None, family=2):
    ifa = bytes([family, plen, 0, 0]) + index.to_bytes(4, "little")
    attrs = rta(2, ip4(a)) + rta(1, ip4(peer if peer else a))
    return nl(mtype, ifa + attrs)


def zmsg(cmd, body):
    n = 8 + len(body)
    return n.to_bytes(2, "big") + bytes([255, 2]) + bytes(2) + cmd.to_bytes(2, "big") + body


def zif(name, index, flags=0x41):
    return (name.ljust(20, b"\0") + index.to_bytes(4, "big") + b"\0" + flags.to_bytes(8, "big") +
            (1).to_bytes(4, "big") + (1500).to_bytes(4, "big") + (6).to_bytes(4, "big") + mac(index))


def zaddr(index, a, plen, flags=0, dest="0.0.0.0"):
    return index.to_bytes(4, "big") + bytes([flags, 2]) + ip4(a) + bytes([plen]) + ip4(dest)


def zclient_cases():
    NEWLINK, DELLINK, NEWADDR, DELADDR = 16, 17, 20, 21
    rec = lambda kind, b: bytes([kind]) + len(b).to_bytes(2, "big") + b
    up = 0x41
    return {
        "netlink_life": rec(1, link(NEWLINK, 5, b"vlanif10", up)) +
        rec(1, addr(NEWADDR, 5, "192.168.1.1", 24)) + rec(1, link(NEWLINK, 5, b"vlanif10", 0)) +
        rec(1, addr(DELADDR, 5, "192.168.1.1", 24)) + rec(1, link(DELLINK, 5, b"vlanif10", 0)),
        "netlink_rename_and_peer": rec(1, link(NEWLINK, 7, b"vlanif20", up) +
                                       addr(NEWADDR, 7, "10.0.0.1", 8, peer="10.0.0.2")) +
        rec(1, link(NEWLINK, 7, b"vlanif21", up)) + rec(1, link(NEWLINK, 8, b"br0", up, family=7)),
        "netlink_delete_with_addresses": rec(1, link(NEWLINK, 5, b"vlanif10", up) +
                                             addr(NEWADDR, 5, "192.168.1.1", 24) +
                                             addr(NEWADDR, 5, "10.1.1.1", 8) +
                                             link(DELLINK, 5, b"vlanif10", up)),
        "zebra_life": rec(0, zmsg(1, zif(b"vlanif10", 5))) +
        rec(0, zmsg(3, zaddr(5, "192.168.1.1", 24))) + rec(0, zmsg(6, zif(b"vlanif10", 5, 0))) +
        rec(0, zmsg(5, zif(b"vlanif10", 5))) + rec(0, zmsg(4, zaddr(5, "192.168.1.1", 24))) +
        rec(0, zmsg(2, zif(b"vlanif10", 5))),
        "zebra_peer_and_unknown": rec(0, zmsg(1, zif(b"vlanif20", 6))) +
        rec(0, zmsg(3, zaddr(6, "10.0.0.1", 32, flags=2, dest="10.0.0.2"))) +
        rec(0, zmsg(5, zif(b"nothere", 99))) + rec(0, zmsg(4, zaddr(42, "1.1.1.1", 24))),
        "zebra_bad_lengths": rec(0, zmsg(1, zif(b"x" * 20, 5))[:30]) +
        rec(0, bytes([0, 4, 255, 2, 0, 0, 0, 1])) + rec(0, zmsg(9, b"")),
    }
def json_request_cases():
    # One request of each kind, changing ones with a failing second item, on
    # the state the fuzzer builds (pools p1, p2, p3, ports swp1..3, vlanif10,
    # vlanif20 relaying to 10.0.20.2, vlanif30).
    p1 = "192.168.1."
    seeds = {
        "gloabl_set": {"cmd": "dhcps_gloabl_set",
                       "config": [{"enable": 1, "max_lease_num": 5000}, {"max_lease_num": 2048}]},
        "gloabl_get": {"cmd": "dhcps_gloabl_get"},
        "pool_add": {"cmd": "dhcps_pool_add", "config": [
            {"pool_name": "p4", "default_router": "172.16.0.1", "network": "172.16.0.0/16",
             "begin_ip": "172.16.1.1", "end_ip": "172.16.1.200", "lease_time": 3600,
             "dns_server1": "8.8.8.8", "dns_server2": "8.8.4.4", "domain_name": "10.0.0.5",
             "netbios_server": "10.0.0.6"},
            {"pool_name": "p5", "default_router": "10.0.20.1", "network": "10.0.20.0/33"}]},
        "pool_delete": {"cmd": "dhcps_pool_delete",
                        "config": [{"pool_name": "p2"}, {"pool_name": "nope"}, {"pool_name": "p1"}]},
        "pool_config": {"cmd": "dhcps_pool_config", "config": [
            {"pool_name": "p1", "lease_time": 0, "begin_ip": p1 + "10", "end_ip": p1 + "20"},
            {"pool_name": "p1", "dns_server2": "1.1.1.1"}]},
        "pool_list": {"cmd": "dhcps_pool_list"},
        "pool_get_all": {"cmd": "dhcps_pool_get_all"},
        "leases_get_page": {"cmd": "dhcps_leases_get_page", "data": [{"index": 5, "count": 10}]},
        "bind_mac_ip_add": {"cmd": "dhcps_bind_mac_ip_add", "config": [
            {"pool_name": "p1", "bind_ip": p1 + "61", "bind_mac": "00-11-22-33-44-66"},
            {"pool_name": "p2", "bind_ip": "10.0.21.1", "bind_mac": "00-11-22-33-44-67"}]},
        "bind_mac_ip_delete": {"cmd": "dhcps_bind_mac_ip_delete",
                               "config": [{"pool_name": "p1", "bind_ip": p1 + "60"},
                                          {"pool_name": "p2"}]},
        "bind_mac_ip_get_all": {"cmd": "dhcps_bind_mac_ip_get_all"},
        "l2_if_list": {"cmd": "dhcps_l2_if_list"},
        "bind_port_ip_add": {"cmd": "dhcps_bind_port_ip_add", "config": [
            {"pool_name": "p1", "bind_port": "swp3", "bind_ip": p1 + "52"},
            {"pool_name": "p1", "bind_port": "swp1", "bind_ip": p1 + "53"}]},
        "bind_port_ip_delete": {"cmd": "dhcps_bind_port_ip_delete", "config": [
            {"pool_name": "p1", "bind_port": "swp1", "bind_ip": ""},
            {"pool_name": "p2", "bind_port": "swp9"}]},
        "bind_port_ip_get_all": {"cmd": "dhcps_bind_port_ip_get_all"},
        "state_set": {"cmd": "dhcpr_state_set", "config": [{"enable": 1}, {"enable": 0}]},
        "state_get": {"cmd": "dhcpr_state_get"},
        "l3_if_list": {"cmd": "dhcpr_l3_if_list"},
        "if_server_add": {"cmd": "dhcpr_if_server_add", "config": [
            {"if_name": "vlanif10", "server_ip": p1 + "2"},
            {"if_name": "vlanif30", "server_ip": "bad"}]},
        "if_server_delete": {"cmd": "dhcpr_if_server_delete", "config": [
            {"if_name": "vlanif20", "server_ip": "10.0.20.2"}, {"if_name": "vlanif20"}]},
        "if_server_get_all": {"cmd": "dhcpr_if_server_get_all"},
    }
    cases = {k: json.dumps(v, separators=(",", ":")).encode() for k, v in seeds.items()}
    cases["not_json"] = b'{"cmd":"dhcps_pool_add","config":['
    cases["unknown_cmd"] = b'{"cmd":"dhcps_global_get"}'
    return cases


def main():
    for target, cases in (("get_option", get_option_cases()),
                          ("build_reply", build_reply_cases()),
                          ("relay_frame", relay_frame_cases()),
                          ("option82", option82_cases()),
                          ("dhcps_request", dhcps_request_cases()),
                          ("lease_file", lease_file_cases()),
                          ("cli", cli_cases()),
                          ("vty_proto", vty_cases()),
                          ("uclient", uclient_cases()),
                          ("zclient", zclient_cases()),
                          ("json_request", json_request_cases())):
        d = HERE / "corpus" / target
        d.mkdir(parents=True, exist_ok=True)
        # Regression seeds stay; the generated ones are written afresh.
        for old in d.iterdir():
            if not old.name.startswith("regress-"):
                old.unlink()
        for name, data in cases.items():
            (d / name).write_bytes(data)
        print(f"{target}: {len(cases)} inputs")


if __name__ == "__main__":
    main()
