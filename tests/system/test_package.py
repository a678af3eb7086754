"""The Debian package: built once per run by scripts/package (or taken from
$DHCPD_DEB), its contents and dependencies, lintian, the manual pages, the
bash completion, the systemd unit, and the packaged dhcpd and dhcpsh
extracted into a temporary root and run on a simulated switch: a client gets
an address, the configuration is saved with "write memory", and after a
restart the unit's own replay step brings it back.

The packaged daemon runs with the capability bounding set the unit gives it,
so the unit's hardening is known to leave the daemon what it needs."""
import os
import pathlib
import re
import signal
import subprocess

import pytest

import conftest
from conftest import REPO, Daemon, run, wait_until
from test_clients import UDHCPC_SCRIPT, event_with, lease_line

# Exactly what the package installs (directories aside).
CONTENTS = {
    "./etc/logrotate.d/dhcpd",
    "./lib/systemd/system/dhcpd.service",
    "./usr/bin/dhcpsh",
    "./usr/sbin/dhcpd",
    "./usr/share/bash-completion/completions/dhcpsh",
    "./usr/share/doc/dhcpd/README.md.gz",
    "./usr/share/doc/dhcpd/changelog.gz",
    "./usr/share/doc/dhcpd/copyright",
    "./usr/share/man/man1/dhcpsh.1.gz",
    "./usr/share/man/man8/dhcpd.8.gz",
}
# Libraries the binaries link, as the packaging tools found them.
LIBRARY_PACKAGES = ("libc6", "libevent-2.1-7", "libmnl0", "libreadline8",
                    "libstdc++6")


@pytest.fixture(scope="module")
def deb():
    given = os.environ.get("DHCPD_DEB")
    if given:
        return pathlib.Path(given)
    r = run([str(REPO / "scripts" / "package"), "--no-lint"], check=False, timeout=1800)
    assert r.returncode == 0, r.stdout + r.stderr
    return pathlib.Path(r.stdout.strip().splitlines()[-1])


@pytest.fixture(scope="module")
def root(deb, tmp_path_factory):
    """The package extracted into a temporary root."""
    path = tmp_path_factory.mktemp("root")
    run(["dpkg-deb", "-x", str(deb), str(path)])
    return path


def test_contents(deb):
    listing = run(["dpkg-deb", "-c", str(deb)]).stdout.splitlines()
    files = {line.split()[5] for line in listing if not line.startswith("d")}
    assert files == CONTENTS
    modes = {line.split()[5]: line.split()[0] for line in listing}
    assert modes["./usr/sbin/dhcpd"] == "-rwxr-xr-x"
    assert modes["./usr/bin/dhcpsh"] == "-rwxr-xr-x"
    assert modes["./lib/systemd/system/dhcpd.service"] == "-rw-r--r--"
    # Owned by root whoever built it.
    assert all(" root/root " in line for line in listing)


def test_control_fields(deb):
    fields = run(["dpkg-deb", "-f", str(deb), "Package", "Version", "Depends"]).stdout
    assert "Package: dhcpd\n" in fields
    assert "Version: 0.1.0\n" in fields
    depends = re.search(r"^Depends: (.*)$", fields, re.M).group(1)
    names = {d.split()[0] for d in depends.split(", ")}
    assert set(LIBRARY_PACKAGES) <= names, depends


def test_lintian_finds_no_errors(deb):
    r = run(["lintian", "--fail-on", "error", str(deb)], check=False, timeout=600)
    assert r.returncode == 0, r.stdout + r.stderr
    assert not [l for l in r.stdout.splitlines() if l.startswith("E:")], r.stdout


@pytest.mark.parametrize("page,title", [("usr/share/man/man8/dhcpd.8.gz", "DHCPD(8)"),
                                        ("usr/share/man/man1/dhcpsh.1.gz", "DHCPSH(1)")])
def test_manual_pages_render_without_warnings(root, page, title):
    env = dict(os.environ, MANWIDTH="80")
    r = run(["man", "--warnings", "-l", str(root / page)], env=env)
    assert r.stderr == ""
    assert r.stdout.splitlines()[0].startswith(title)
    for section in ("NAME", "SYNOPSIS", "DESCRIPTION", "EXIT STATUS", "FILES", "EXAMPLES"):
        assert f"\n{section}\n" in r.stdout


def test_dhcpd_page_names_every_json_request(root):
    env = dict(os.environ, MANWIDTH="200")
    text = run(["man", "-l", str(root / "usr/share/man/man8/dhcpd.8.gz")], env=env).stdout
    names = ["dhcps_gloabl_set", "dhcps_gloabl_get", "dhcps_pool_add", "dhcps_pool_delete",
             "dhcps_pool_config", "dhcps_pool_list", "dhcps_pool_get_all",
             "dhcps_leases_get_page", "dhcps_bind_mac_ip_add", "dhcps_bind_mac_ip_delete",
             "dhcps_bind_mac_ip_get_all", "dhcps_l2_if_list", "dhcps_bind_port_ip_add",
             "dhcps_bind_port_ip_delete", "dhcps_bind_port_ip_get_all", "dhcpr_state_set",
             "dhcpr_state_get", "dhcpr_l3_if_list", "dhcpr_if_server_add",
             "dhcpr_if_server_delete", "dhcpr_if_server_get_all"]
    counters = ["dhcps_statistics_get", "dhcpr_statistics_get", "dhcps_statistics_clear",
                "dhcpr_statistics_clear"]
    listed = re.findall(r"^ {7}(dhcp[sr]_\w+)$", text, re.M)
    assert listed == names + counters


def complete(root, *words):
    """COMPREPLY of the packaged completion for the words typed so far."""
    script = root / "usr/share/bash-completion/completions/dhcpsh"
    words_sh = " ".join(f"'{w}'" for w in words)
    r = run(["bash", "-c", f'source "{script}"; COMP_WORDS=(dhcpsh {words_sh}); '
             f'COMP_CWORD={len(words)}; _dhcpsh; printf "%s\\n" "${{COMPREPLY[@]}}"'],
            cwd=root / "usr/share/man")
    return [w for w in r.stdout.splitlines() if w]


def test_bash_completion_of_options(root):
    assert complete(root, "-") == ["-c", "-f", "-b", "-j", "-h", "--help", "--metrics"]
    assert complete(root, "--") == ["--help", "--metrics"]
    assert complete(root, "-c", "") == []
    assert complete(root, "-j", "") == []
    assert sorted(complete(root, "-f", "man")) == ["man1", "man8"]
    r = run(["bash", "-c", f'source "{root}/usr/share/bash-completion/completions/dhcpsh"; '
             "complete -p dhcpsh"])
    assert r.stdout == "complete -F _dhcpsh dhcpsh\n"


def unit_for(root, tmp_path):
    """The packaged unit with its programs taken from the extracted root."""
    text = (root / "lib/systemd/system/dhcpd.service").read_text()
    text = text.replace("/usr/sbin/dhcpd", f"{root}/usr/sbin/dhcpd")
    text = text.replace("/usr/bin/dhcpsh", f"{root}/usr/bin/dhcpsh")
    path = tmp_path / "dhcpd.service"
    path.write_text(text)
    return path, text


def test_unit_verifies(root, tmp_path):
    unit, _ = unit_for(root, tmp_path)
    # The manual pages its Documentation= names are looked up in the root.
    env = dict(os.environ, MANPATH=str(root / "usr/share/man"))
    r = run(["systemd-analyze", "verify", str(unit)], check=False, env=env)
    assert (r.returncode, r.stdout, r.stderr) == (0, "", "")


def unit_setting(text, key):
    values = re.findall(rf"^{key}=(.*)$", text, re.M)
    assert len(values) == 1, key
    return values[0]


def test_unit_settings(root, tmp_path):
    _, text = unit_for(root, tmp_path)
    assert unit_setting(text, "ExecStart") == f"{root}/usr/sbin/dhcpd"
    assert unit_setting(text, "Restart") == "on-failure"
    assert unit_setting(text, "Type") == "simple"
    assert unit_setting(text, "ReadWritePaths") == "/run -/mnt"
    assert unit_setting(text, "ProtectSystem") == "strict"


def bounding_set(text):
    caps = unit_setting(text, "CapabilityBoundingSet").split()
    return "-all," + ",".join("+" + c.lower().removeprefix("cap_") for c in caps)


def replay_command(text):
    """The unit's ExecStartPost as argv (sh -c '...'), "$$" read as "$" the
    way systemd does."""
    line = unit_setting(text, "ExecStartPost").replace("$$", "$")
    m = re.fullmatch(r"/bin/sh -c '(.*)'", line)
    assert m, line
    return ["/bin/sh", "-c", m.group(1)]


POOL = ["configure terminal",
        "dhcp-server pool vlan10", "default-router 192.168.10.1", "network 192.168.10.0/24",
        "begin-ip 192.168.10.100 end-ip 192.168.10.199", "dns-server 192.168.10.1",
        "lease 3600", "exit", "dhcp-server enable",
        "log file /var/log/dhcpd/dhcpd.log"]
PRELUDE = "mount -t tmpfs tmpfs /var/log && mkdir /var/log/dhcpd && "


def udhcpc(host, tmp_path, name):
    ev = tmp_path / f"{name}.events"
    script = tmp_path / f"{name}.sh"
    script.write_text(UDHCPC_SCRIPT.format(events=ev))
    script.chmod(0o755)
    proc = subprocess.Popen(["ip", "netns", "exec", host.name, "busybox", "udhcpc", "-i", "eth0",
                             "-f", "-q", "-t", "20", "-T", "1", "-s", str(script)],
                            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        wait_until(lambda: event_with(ev, "bound"), 60, what=f"{name} bound")
    finally:
        proc.kill()
        proc.wait()
    return event_with(ev, "bound")[0]


def test_packaged_daemon_serves_saves_and_boots_with_its_configuration(
        root, switch, tmp_path, monkeypatch):
    _, unit = unit_for(root, tmp_path)
    # The packaged programs, the daemon with no more capabilities than the unit leaves it.
    monkeypatch.setattr(conftest, "DHCPD",
                        f"setpriv --bounding-set={bounding_set(unit)} {root}/usr/sbin/dhcpd")
    monkeypatch.setattr(conftest, "DHCPSH", root / "usr/bin/dhcpsh")
    switch.vlan(10, "192.168.10.1/24")
    h1 = switch.port(1, 10, mac="02:00:00:00:10:01")
    h2 = switch.port(2, 10, mac="02:00:00:00:10:02")
    flash = tmp_path / "mnt"
    flash.mkdir()

    first = Daemon(switch.ns, tmp_path, prelude=PRELUDE, mnt_dir=flash)
    try:
        first.wait_ready()
        r = first.sh(*POOL)
        assert r.returncode == 0, r.stdout + r.stderr
        wait_until(lambda: "interface: vlanif10" in first.sh("show dhcp-server").stdout,
                   what="pool attached")
        assert udhcpc(h1, tmp_path, "h1").startswith("bound ip=192.168.10.100 ")
        assert lease_line(first, "192.168.10.100") is not None
        r = first.sh("write memory")
        assert (r.returncode, r.stdout) == (0, "[OK]\n")
        config = first.sh("show running-config").stdout
    finally:
        first.stop()
    assert (flash / "dhcpd.conf").read_text() == config

    second = Daemon(switch.ns, tmp_path, prelude=PRELUDE, mnt_dir=flash)
    try:
        second.wait_ready()
        assert "dhcp-server pool" not in second.sh("show running-config").stdout
        # The unit's replay step, run in the daemon's namespaces.
        r = run(["nsenter", "-t", str(second.pid), "-m", "-n", *replay_command(unit)],
                check=False, timeout=120)
        assert (r.returncode, r.stderr) == (0, ""), r.stdout
        assert second.sh("show running-config").stdout == config
        wait_until(lambda: "interface: vlanif10" in second.sh("show dhcp-server").stdout,
                   what="pool attached after the replay")
        assert udhcpc(h2, tmp_path, "h2").startswith("bound ip=192.168.10.")
        # The restored "log file" line: the daemon logs to that file again.
        log = second.path("/var/log/dhcpd/dhcpd.log")
        second.signal(signal.SIGHUP)
        wait_until(lambda: log.exists() and "SIGHUP received" in log.read_text(),
                   what="SIGHUP line in the log file")
    finally:
        second.stop()


def test_replay_step_without_a_saved_configuration(root, netns, tmp_path, monkeypatch):
    """A switch that never saved: the replay step succeeds and changes nothing.
    Then server and relay open their sockets with the unit's capabilities."""
    _, unit = unit_for(root, tmp_path)
    monkeypatch.setattr(conftest, "DHCPD",
                        f"setpriv --bounding-set={bounding_set(unit)} {root}/usr/sbin/dhcpd")
    monkeypatch.setattr(conftest, "DHCPSH", root / "usr/bin/dhcpsh")
    d = Daemon(netns, tmp_path)
    try:
        d.wait_ready()
        before = d.sh("show running-config").stdout
        r = run(["nsenter", "-t", str(d.pid), "-m", "-n", *replay_command(unit)], check=False,
                timeout=120)
        assert (r.returncode, r.stdout, r.stderr) == (0, "", "")
        assert d.sh("show running-config").stdout == before
        r = d.sh("configure terminal", "dhcp-server enable", "dhcp-relay enable")
        assert (r.returncode, r.stdout) == (0, "")
        d.wait_log("dhcpd: info: Opening listen socket on *:67")
        d.wait_log("dhcpd: info: Opening listen socket on *:68")
        assert ": err: " not in d.log()
    finally:
        d.stop()


# A command's leading keywords: the words before its first value or choice.
VALUE = re.compile(r"^([A-Z]|\.|<|\()")


def keywords(command):
    words = []
    for w in command.split():
        if VALUE.match(w):
            break
        words.append(w)
    return " ".join(words)


def documented(page, command):
    """The command's keywords are in the page as they stand, or with the last
    one among a choice: "debug dhcp (events|packet|...)"."""
    words = keywords(command).split()
    phrase = rf"(^| ){re.escape(' '.join(words))}(?![\w-])"
    head, last = " ".join(words[:-1]), re.escape(words[-1])
    choice = rf"(^| ){re.escape(head)} \(([^ )]*\|)?{last}(\|[^ )]*)?\)"
    return re.search(phrase, page) is not None or \
        (len(words) > 1 and re.search(choice, page) is not None)


def test_dhcpsh_page_documents_every_command(root, switch, tmp_path, monkeypatch):
    """Every command the daemon lists, in every node, is in dhcpsh(1)."""
    monkeypatch.setattr(conftest, "DHCPD", f"{root}/usr/sbin/dhcpd")
    monkeypatch.setattr(conftest, "DHCPSH", root / "usr/bin/dhcpsh")
    switch.vlan(10, "192.168.10.1/24")
    env = dict(os.environ, MANWIDTH="300")
    page = run(["man", "-l", str(root / "usr/share/man/man1/dhcpsh.1.gz")], env=env).stdout
    page = re.sub(r"\s+", " ", page)
    d = Daemon(switch.ns, tmp_path)
    try:
        d.wait_ready()
        nodes = [[], ["configure terminal"], ["configure terminal", "interface vlanif10"],
                 ["configure terminal", "dhcp-server pool p"]]
        missing = []
        for enter in nodes:
            r = d.sh(*enter, "list")
            assert r.returncode == 0, r.stdout
            for command in r.stdout.splitlines():
                if not documented(page, command):
                    missing.append(command)
        assert missing == [], "not in doc/dhcpsh.1: " + ", ".join(missing)
    finally:
        d.stop()
