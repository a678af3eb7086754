#!/usr/bin/env python3
"""Writes the seed corpus of the codec fuzzers: tricky messages for
fuzz_get_option and tricky option lists for fuzz_build_reply.

Run from anywhere; rewrites fuzz/corpus/<target>/ beside this script."""
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


def main():
    for target, cases in (("get_option", get_option_cases()),
                          ("build_reply", build_reply_cases())):
        d = HERE / "corpus" / target
        shutil.rmtree(d, ignore_errors=True)
        d.mkdir(parents=True)
        for name, data in cases.items():
            (d / name).write_bytes(data)
        print(f"{target}: {len(cases)} inputs")


if __name__ == "__main__":
    main()
