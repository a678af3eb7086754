"""Raw DHCP frames on a veth link: sent by dhcp_send_tool in one namespace,
captured in the peer namespace and checked with scapy. The tool has sent
every frame before it exits, so the frames wait in the capture socket."""
import socket
import time

import pytest
from scapy.all import BOOTP, DHCP, IP, UDP, Ether, raw

from msgutil import ETH_P_ALL, VethPair, run_tool, tool

BCAST_MAC = "ff:ff:ff:ff:ff:ff"


@pytest.fixture
def link():
    pair = VethPair()
    yield pair
    pair.delete()


def send(link, dst_ip, dst_mac, kind, count=1, debug=0, src_ip=None, status=0):
    r = run_tool(link.a, tool("dhcp_send_tool"), link.if_a, src_ip or link.addr_a, dst_ip,
                 dst_mac, kind, str(count), str(debug), expected=status, timeout=300)
    lines = r.stdout.splitlines()
    msg = bytes.fromhex(next(l for l in lines if l.startswith("msg ")).split()[1])
    logs = [l[4:] for l in lines if l.startswith("log ")]
    sent = [int(l.split()[1]) for l in lines if l.startswith("sent ")]
    return msg, logs, sent, r.returncode


def dhcp_frames(sock, want=1, timeout=30.0):
    """Frames to UDP port 68 read from the capture socket, until `want` of
    them (the timeout only bounds the wait)."""
    frames = []
    sock.settimeout(0.2)
    end = time.monotonic() + timeout
    while len(frames) < want and time.monotonic() < end:
        try:
            data = sock.recv(4096)
        except socket.timeout:
            continue
        pkt = Ether(data)
        if UDP in pkt and pkt[UDP].dport == 68:
            frames.append(data)
    return frames


def checksums_ok(frame):
    """Compares the IP and UDP checksums with scapy's own computation."""
    pkt = Ether(frame)
    rebuilt = Ether(raw(pkt))
    del rebuilt[IP].chksum
    del rebuilt[UDP].chksum
    rebuilt = Ether(raw(rebuilt))
    return (pkt[IP].chksum == rebuilt[IP].chksum, pkt[UDP].chksum == rebuilt[UDP].chksum)


def check_frame(frame, link, msg, dst_ip, dst_mac, ip_len):
    pkt = Ether(frame)
    assert len(frame) == 14 + ip_len
    assert pkt.dst == dst_mac
    assert pkt.src == link.mac_a
    assert pkt.type == 0x0800
    ip = pkt[IP]
    assert (ip.version, ip.ihl, ip.tos, ip.id, ip.flags, ip.frag) == (4, 5, 0, 0, 0, 0)
    assert ip.len == ip_len
    assert ip.ttl == 64
    assert ip.proto == 17
    assert ip.src == link.addr_a
    assert ip.dst == dst_ip
    assert (pkt[UDP].sport, pkt[UDP].dport) == (67, 68)
    assert pkt[UDP].len == ip_len - 20
    assert checksums_ok(frame) == (True, True)
    assert frame[14 + 28:] == msg


def test_only_end_marker_is_269_bytes(link):
    cap = link.packet_socket(ETH_P_ALL)
    msg, logs, sent, _ = send(link, "255.255.255.255", BCAST_MAC, "empty")
    assert sent == [269]
    assert logs == []
    assert len(msg) == 241
    [frame] = dhcp_frames(cap)
    check_frame(frame, link, msg, "255.255.255.255", BCAST_MAC, 269)
    assert Ether(frame)[UDP].len == 249


def test_full_options_area_is_576_bytes(link):
    cap = link.packet_socket(ETH_P_ALL)
    msg, _, sent, _ = send(link, "255.255.255.255", BCAST_MAC, "full")
    assert sent == [576]
    [frame] = dhcp_frames(cap)
    check_frame(frame, link, msg, "255.255.255.255", BCAST_MAC, 576)
    assert Ether(frame)[UDP].len == 556
    opts = Ether(frame)[DHCP].options
    assert opts[0] == ("message-type", 2)
    assert opts[1] == ("hostname", b"h" * 255)
    assert opts[2] == ("vendor_class_id", b"v" * 44)
    assert opts[-1] == "end"


def test_unicast_reply_to_client_mac(link):
    cap = link.packet_socket(ETH_P_ALL)
    msg, _, sent, _ = send(link, link.addr_b, link.mac_b, "reply")
    assert sent == [269 + 3 + 6 * 6]
    [frame] = dhcp_frames(cap)
    check_frame(frame, link, msg, link.addr_b, link.mac_b, sent[0])
    bootp = Ether(frame)[BOOTP]
    assert bootp.op == 2 and bootp.xid == 0xdeadbeef and bootp.yiaddr == "10.0.0.100"
    assert bootp.chaddr[:6] == bytes.fromhex("02aabbccddee")
    assert [o for o in bootp[DHCP].options if o != "end"] == [
        ("message-type", 2), ("server_id", "10.0.0.1"), ("lease_time", 3600),
        ("renewal_time", 1800), ("rebinding_time", 3150), ("subnet_mask", "255.255.255.0"),
        ("router", "10.0.0.1")]


def test_message_without_end_marker_stays_in_record(link):
    cap = link.packet_socket(ETH_P_ALL)
    msg, _, sent, _ = send(link, "255.255.255.255", BCAST_MAC, "nomarker")
    assert sent == [656]
    [frame] = dhcp_frames(cap)
    check_frame(frame, link, msg, "255.255.255.255", BCAST_MAC, 656)


def test_packet_debug_traces_each_send(link):
    cap = link.packet_socket(ETH_P_ALL)
    _, logs, sent, _ = send(link, "255.255.255.255", BCAST_MAC, "empty", debug=2)
    ifindex = int(link.a.ip("-o", "link", "show", link.if_a).stdout.split(":")[0])
    # The addresses are printed as the numbers they are in memory.
    src = int.from_bytes(socket.inet_aton(link.addr_a), "little")
    assert logs == [f"3 dhcp_send_raw_packet 137: {src:#x} 67 0xffffffff 68 "
                    f"ff-ff-ff-ff-ff-ff  {ifindex}"]
    assert sent == [269]
    assert len(dhcp_frames(cap)) == 1


def test_many_replies_on_one_socket(link):
    cap = link.packet_socket(ETH_P_ALL)
    cap.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 16 << 20)
    count = 3000
    _, logs, sent, rc = send(link, link.addr_b, link.mac_b, "reply", count=count)
    assert rc == 0 and sent == [] and logs == []
    frames = dhcp_frames(cap, want=count)
    assert len(frames) == count
    assert all(len(f) == 14 + 308 for f in frames)
    assert checksums_ok(frames[-1]) == (True, True)


def test_send_on_down_link_fails(link):
    link.a.ip("link", "set", link.if_a, "down")
    _, logs, sent, rc = send(link, "255.255.255.255", BCAST_MAC, "empty", status=1)
    assert sent == [-1]
    assert logs == ["3 sendto"]
    assert rc == 1
