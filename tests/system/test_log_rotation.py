"""Log rotation: "log file PATH" sends the log to a file, and SIGUSR1 makes
the daemon reopen it by name, so after the file was renamed (by hand or by
the package's logrotate snippet) the daemon writes to a new one."""
import shutil
import signal

import pytest

from conftest import REPO, Daemon, run, wait_until

LOG = "/var/log/dhcpd/dhcpd.log"
SNIPPET = REPO / "debian" / "dhcpd.logrotate"
# The daemon's own /var/log, so the host's stays untouched.
PRELUDE = "mount -t tmpfs tmpfs /var/log && mkdir /var/log/dhcpd && "


@pytest.fixture
def logging_daemon(netns, tmp_path):
    d = Daemon(netns, tmp_path, prelude=PRELUDE)
    try:
        d.wait_ready()
        r = d.sh("configure terminal", f"log file {LOG}")
        assert (r.returncode, r.stdout, r.stderr) == (0, "", "")
        yield d
    finally:
        d.stop()


def text(d, path):
    try:
        return d.path(path).read_text()
    except FileNotFoundError:
        return ""


def log_sighup(d, path):
    """One "SIGHUP received" line, known to have reached `path`."""
    before = text(d, path).count("dhcpd: info: SIGHUP received\n")
    d.signal(signal.SIGHUP)
    wait_until(lambda: text(d, path).count("dhcpd: info: SIGHUP received\n") == before + 1,
               what=f"SIGHUP line in {path}")


def test_log_file_command_and_running_config(logging_daemon):
    d = logging_daemon
    r = d.sh("show running-config")
    assert f"\nlog file {LOG} informational\n" in r.stdout
    log_sighup(d, LOG)
    r = d.sh("configure terminal", f"log file {LOG} errors", "show running-config")
    assert f"\nlog file {LOG} errors\n" in r.stdout
    r = d.sh("configure terminal", "no log file", "show running-config")
    assert r.returncode == 0
    assert "log file" not in r.stdout
    # Off: a SIGHUP line reaches standard output but not the file.
    d.signal(signal.SIGHUP)
    wait_until(lambda: d.log().count("dhcpd: info: SIGHUP received") == 2,
               what="second SIGHUP line")
    assert text(d, LOG).count("SIGHUP received") == 1


def test_rename_then_sigusr1_writes_a_new_file(logging_daemon):
    d = logging_daemon
    log_sighup(d, LOG)
    d.path(LOG).rename(d.path(LOG + ".1"))
    d.signal(signal.SIGUSR1)
    # The reopen creates the file under its configured name.
    wait_until(lambda: d.path(LOG).exists(), what="log file reopened")
    log_sighup(d, LOG)
    assert text(d, LOG).count("SIGHUP received") == 1
    assert text(d, LOG + ".1").count("SIGHUP received") == 1
    assert d.proc.poll() is None


def test_packaged_logrotate_snippet_rotates(logging_daemon, tmp_path):
    d = logging_daemon
    log_sighup(d, LOG)
    # logrotate wants its configuration owned by root and not writable by others.
    conf = tmp_path / "dhcpd.logrotate"
    shutil.copyfile(SNIPPET, conf)
    conf.chmod(0o644)
    # Inside the daemon's mounts: its /var/log and its /var/run/dhcp.pid.
    r = run(["nsenter", "-t", str(d.pid), "-m", "logrotate", "-f", "-s",
             str(tmp_path / "logrotate.state"), str(conf)], check=False)
    assert r.returncode == 0, r.stderr
    assert text(d, LOG + ".1").count("SIGHUP received") == 1
    # The snippet's postrotate sent SIGUSR1: the daemon made a new file.
    wait_until(lambda: d.path(LOG).exists(), what="log file reopened")
    log_sighup(d, LOG)
    assert text(d, LOG).count("SIGHUP received") == 1
    assert text(d, LOG + ".1").count("SIGHUP received") == 1
