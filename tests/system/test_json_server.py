"""The JSON request socket of a live dhcpd under bad clients: its mode and
owner, an unprivileged user, malformed and oversized requests, deep nesting,
a crowd of connections, half-open, idle and non-reading clients. Each one is
answered or closed, the configuration stays as it was, and the daemon goes on
serving DHCP and its CLI while they hang on and after."""
import os
import socket
import stat

from conftest import DHCPSH, run, wait_until
from sanitizer import checked
from test_clients import UDHCPC_SCRIPT, event_with, server  # noqa: F401 (fixture)

JSR = "/var/run/dhcp.jsr"

ERR_PARSE = b'{"error":"malformed request"}'
ERR_NO_CMD = b'{"error":"missing cmd"}'
ERR_UNKNOWN = b'{"error":"unknown request"}'
ERR_TOO_LONG = b'{"error":"request too long"}'
ERR_TOO_DEEP = b'{"error":"request nested too deeply"}'

# A request no daemon knows: answered by the dispatcher, changes nothing.
UNKNOWN = b'{"cmd":"no_such_request","config":[{"pool_name":"vlan10"}]}'

# Bounds a wait for the daemon to answer or close; never a verdict.
WAIT = 60


def running_config(d):
    r = d.sh("show running-config")
    assert r.returncode == 0, r.stderr
    return r.stdout


def connect(d):
    s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    s.connect(str(d.path(JSR)))
    s.settimeout(WAIT)
    return s


def send_quietly(s, data):
    """Sends `data`; a daemon that refused the request and hung up part way
    is not an error (its answer is read next)."""
    try:
        s.sendall(data)
    except (BrokenPipeError, ConnectionResetError):
        pass


def read_to_close(s):
    """Everything the daemon sends until it closes. A close with our surplus
    bytes unread arrives as a reset after the answer."""
    got = b""
    while True:
        try:
            chunk = s.recv(65536)
        except ConnectionResetError:
            return got
        if not chunk:
            return got
        got += chunk


def exchange(d, data, shutdown=True):
    with connect(d) as s:
        send_quietly(s, data)
        if shutdown:
            try:
                s.shutdown(socket.SHUT_WR)
            except OSError:
                pass
        return read_to_close(s)


def dhcpsh_j(d, request, **kw):
    return d.shell("-j", request, **kw)


def udhcpc_bound(switch, port, tmp_path, name):
    """One udhcpc run on a new host on `port` (VLAN 20) that quits once bound."""
    host = switch.port(port, 20)
    script = tmp_path / f"{name}.sh"
    ev = tmp_path / f"{name}.events"
    script.write_text(UDHCPC_SCRIPT.format(events=ev))
    script.chmod(0o755)
    run(["ip", "netns", "exec", host.name, "busybox", "udhcpc", "-i", "eth0", "-f", "-q", "-n",
         "-t", "20", "-T", "1", "-s", str(script)], check=False, timeout=120)
    bound = event_with(ev, "bound")
    assert bound and bound[0].startswith("bound ip=192.168.20."), bound
    return bound[0]


def assert_serving(d, switch, tmp_path, name, config):
    """The CLI answers with the configuration unchanged, and a DHCP client
    gets an address."""
    assert running_config(d) == config
    udhcpc_bound(switch, next_port(switch), tmp_path, name)
    assert d.proc.poll() is None


def next_port(switch):
    return max(switch.hosts, default=10) + 1


def test_socket_mode_and_owner(server):
    st = os.lstat(server.path(JSR))
    assert stat.S_ISSOCK(st.st_mode)
    assert stat.S_IMODE(st.st_mode) == 0o770
    assert (st.st_uid, st.st_gid) == (0, 0)


def test_unprivileged_user_can_neither_connect_nor_change(server):
    before = running_config(server)
    nobody = ["nsenter", "-t", str(server.pid), "-m", "-n",
              "setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]
    request = '{"cmd":"dhcps_gloabl_set","config":[{"enable":0,"max_lease_num":1}]}'
    r = checked(run(nobody + [str(DHCPSH), "-j", request], check=False), expected=2)
    assert r.stdout == ""
    assert r.stderr == f"dhcpsh: cannot connect to {JSR}: Permission denied\n"
    probe = ("import socket\n"
             "s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)\n"
             "try:\n"
             f"    s.connect('{JSR}')\n"
             "    print('connected')\n"
             "except OSError as e:\n"
             "    print(e.strerror)\n")
    r = run(nobody + ["/usr/bin/python3", "-c", probe], check=False)
    assert r.stdout == "Permission denied\n", r.stderr
    assert running_config(server) == before


def test_malformed_requests_are_answered_and_change_nothing(server):
    before = running_config(server)
    cases = [
        (b"", ERR_PARSE),
        (b"not json", ERR_PARSE),
        (b'{"cmd":', ERR_PARSE),
        (b'{"cmd":"dhcps_pool_delete","config":[{"pool_name":"vlan10"}]', ERR_PARSE),
        (b"[1,2,3]", ERR_PARSE),
        (b"\x00\xff\xfe{}", ERR_PARSE),
        (b"{}", ERR_NO_CMD),
        (b'{"cmd":7}', ERR_NO_CMD),
        (b'{"Cmd":"dhcps_pool_delete"}', ERR_NO_CMD),
        (UNKNOWN, ERR_UNKNOWN),
    ]
    for request, reply in cases:
        assert exchange(server, request) == reply, request
    # Complete values are answered without the client's shutdown.
    assert exchange(server, UNKNOWN, shutdown=False) == ERR_UNKNOWN
    assert exchange(server, b"[]", shutdown=False) == ERR_PARSE
    # The same through the shell, byte for byte, no newline added.
    for request, reply in [("not json", ERR_PARSE), ("{}", ERR_NO_CMD),
                           (UNKNOWN.decode(), ERR_UNKNOWN)]:
        r = dhcpsh_j(server, request)
        assert (r.returncode, r.stdout, r.stderr) == (0, reply.decode(), "")
    assert running_config(server) == before


def test_deep_nesting_and_oversized_requests_are_refused(server, switch, tmp_path):
    before = running_config(server)
    assert exchange(server, b"[" * 20000) == ERR_TOO_DEEP
    assert exchange(server, b"[" * 20000 + b"]" * 20000) == ERR_TOO_DEEP
    # Refused as soon as level 65 opens, without the client's shutdown.
    assert exchange(server, b'{"cmd":' + b"[" * 65, shutdown=False) == ERR_TOO_DEEP
    # 64 levels are the parser's to judge.
    assert exchange(server, b"[" * 64 + b"]" * 64) == ERR_PARSE

    big = b'{"cmd":"dhcps_pool_delete","pad":"' + b"a" * (1 << 20) + b'"}'
    assert exchange(server, big) == ERR_TOO_LONG
    assert exchange(server, big, shutdown=False) == ERR_TOO_LONG
    exact = b'{"cmd":"no_such_request","pad":"'
    exact += b"a" * (65536 - len(exact) - 2) + b'"}'
    assert len(exact) == 65536
    assert exchange(server, exact, shutdown=False) == ERR_UNKNOWN
    assert exchange(server, exact[:-2] + b'a"}') == ERR_TOO_LONG

    # Through the shell (an argument is at most 128 KiB).
    r = dhcpsh_j(server, "[" * 20000)
    assert (r.returncode, r.stdout, r.stderr) == (0, ERR_TOO_DEEP.decode(), "")
    r = dhcpsh_j(server, '{"cmd":"x","pad":"' + "a" * 100000 + '"}')
    assert (r.returncode, r.stdout, r.stderr) == (0, ERR_TOO_LONG.decode(), "")
    assert_serving(server, switch, tmp_path, "after-big", before)
    log = server.log()
    assert "jserver: request nested deeper than 64 levels, refused" in log
    assert "jserver: request over 65536 bytes, refused" in log


def test_hundred_concurrent_connections(server, switch, tmp_path):
    before = running_config(server)
    # Sixteen connections that send nothing are let in first (the backlog is
    # first come, first served); the crowd behind them finds the limit
    # reached, whatever the daemon's speed.
    held = [connect(server) for _ in range(16)]
    crowd = [connect(server) for _ in range(84)]
    try:
        for s in crowd:
            send_quietly(s, UNKNOWN)
        replies = [read_to_close(s) for s in crowd]
        for s in held:
            send_quietly(s, UNKNOWN)
        held_replies = [read_to_close(s) for s in held]
    finally:
        for s in held + crowd:
            s.close()
    # Each one answered in full or closed without a byte; the first of the
    # crowd arrived with sixteen open and was closed unanswered.
    assert set(replies) <= {ERR_UNKNOWN, b""}
    assert set(held_replies) <= {ERR_UNKNOWN, b""}
    assert replies[0] == b""
    assert "jserver: 16 connections open, refusing a connection" in server.log()
    assert_serving(server, switch, tmp_path, "after-crowd", before)
    assert exchange(server, UNKNOWN) == ERR_UNKNOWN


def test_sixteen_idle_connections_do_not_stop_dhcp_or_the_cli(server, switch, tmp_path):
    before = running_config(server)
    idle = [connect(server) for _ in range(16)]
    try:
        # Once the sixteen are in, a seventeenth is closed at once. A blank
        # on each keeps them from idling out however long this takes.
        def seventeenth_closed():
            for s in idle:
                s.sendall(b" ")
            return exchange(server, UNKNOWN) == b""
        wait_until(seventeenth_closed, WAIT, what="a seventeenth connection closed")
        # DHCP and the CLI go on meanwhile.
        assert_serving(server, switch, tmp_path, "during-idle", before)
        # The idle ones are closed by the daemon in the end, with no answer.
        for s in idle:
            assert read_to_close(s) == b""
    finally:
        for s in idle:
            s.close()
    assert "jserver: connection idle for 10 s, closed" in server.log()
    assert exchange(server, UNKNOWN) == ERR_UNKNOWN
    assert running_config(server) == before


def test_half_open_and_idle_connections(server, switch, tmp_path):
    before = running_config(server)
    # Write side shut after half a request: what came is the request.
    with connect(server) as s:
        s.sendall(b'{"cmd":"dhcps_pool_delete","config":[{"pool_name":')
        s.shutdown(socket.SHUT_WR)
        assert read_to_close(s) == ERR_PARSE
    # Half a request and then silence, or nothing at all: closed when idle.
    quiet = connect(server)
    partial = connect(server)
    try:
        partial.sendall(b'{"cmd":"dhcps_pool_delete","config":[{"pool_name":"vlan10"}')
        assert_serving(server, switch, tmp_path, "during-half-open", before)
        assert read_to_close(quiet) == b""
        assert read_to_close(partial) == b""
    finally:
        quiet.close()
        partial.close()
    assert running_config(server) == before


def test_clients_that_never_read(server, switch, tmp_path):
    before = running_config(server)
    # Requests sent, replies never read, sockets kept open: the daemon sends
    # what it can, closes them and carries on.
    silent = []
    try:
        for _ in range(16):
            s = connect(server)
            send_quietly(s, UNKNOWN)
            silent.append(s)
        assert_serving(server, switch, tmp_path, "during-silent", before)
        for s in silent:
            assert read_to_close(s) == ERR_UNKNOWN
        assert exchange(server, UNKNOWN) == ERR_UNKNOWN
    finally:
        for s in silent:
            s.close()
    assert running_config(server) == before


def test_shell_without_a_daemon(netns):
    script = ("mount -t tmpfs tmpfs /var/run && "
              f"{DHCPSH} -j '{{\"cmd\":\"dhcps_gloabl_get\"}}'")
    r = checked(netns.exec("unshare", "--mount", "--propagation", "private", "sh", "-c", script,
                           check=False), expected=2)
    assert r.stdout == ""
    assert r.stderr == f"dhcpsh: cannot connect to {JSR}: No such file or directory\n"

