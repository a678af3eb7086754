"""The shell on a terminal, as an operator uses it: tmux runs dhcpsh on a
pseudo-terminal, keys are typed, and the screen is read back. Keys queue up
in the terminal and the shell takes them in order; each check waits until
the screen shows what it expects (the wait only bounded). The shell's
sanitizer reports go to files (its standard error is the screen), which are
checked when the terminal closes."""
import re
import shlex
import subprocess
import uuid

import pytest

import sanitizer
from conftest import DHCPSH, wait_until


class Terminal:
    def __init__(self, daemon, tmp_path):
        self.name = f"sh{uuid.uuid4().hex[:8]}"
        self.reports = tmp_path / f"{self.name}.san"
        env = sanitizer.environment_logging_to(self.reports)
        settings = " ".join(f"{v}={shlex.quote(env[v])}" for v in sanitizer.OPTION_VARS
                            if v in env)
        cmd = f"env {settings} nsenter -t {daemon.pid} -m -n {DHCPSH}"
        subprocess.run(["tmux", "new-session", "-d", "-s", self.name, "-x", "120", "-y", "50",
                        cmd], check=True)

    def type(self, text):
        # -l: literal text, never key names ("end" would be the End key).
        subprocess.run(["tmux", "send-keys", "-t", self.name, "-l", text], check=True)

    def key(self, *keys):
        subprocess.run(["tmux", "send-keys", "-t", self.name, *keys], check=True)

    def screen(self):
        out = subprocess.run(["tmux", "capture-pane", "-p", "-t", self.name],
                             capture_output=True, text=True).stdout
        return [l.rstrip() for l in out.splitlines() if l.strip()]

    def shows(self, check, what):
        """Waits until check(screen) holds."""
        def ok():
            lines = self.screen()
            return bool(lines) and check(lines)
        try:
            wait_until(ok, what=what)
        except AssertionError:
            raise AssertionError(f"waiting for {what}; the screen:\n" + "\n".join(self.screen()))

    def last(self, check, what):
        """Waits until the cursor's line passes check(line)."""
        self.shows(lambda lines: check(lines[-1]), what)

    def alive(self):
        return subprocess.run(["tmux", "has-session", "-t", self.name],
                              capture_output=True).returncode == 0

    def close(self):
        subprocess.run(["tmux", "kill-session", "-t", self.name], capture_output=True)
        sanitizer.check_outcome(f"dhcpsh on terminal {self.name}", None,
                                sanitizer.report_files_text(self.reports), expected=None)


@pytest.fixture
def term(daemon, tmp_path):
    t = Terminal(daemon, tmp_path)
    try:
        t.last(lambda line: line.endswith("#"), "prompt")
        yield t
    finally:
        t.close()


def test_prompts_follow_the_node(term):
    host = re.escape(term.screen()[-1][:-1])
    term.type("configure terminal")
    term.key("Enter")
    term.type("interface vlanif10")
    term.key("Enter")
    term.last(lambda l: re.fullmatch(host + r"\(config-if\)#", l), "interface prompt")
    term.type("exit")
    term.key("Enter")
    term.type("dhcp-server pool office")
    term.key("Enter")
    term.last(lambda l: re.fullmatch(host + r"\(config-office\)#", l), "pool prompt")


def test_question_mark_shows_help_and_keeps_the_line(term):
    term.type("conf t")
    term.key("Enter")
    term.type("dhcp-server pool p1")
    term.key("Enter")
    term.type("lease ")
    term.type("?")
    # The line as typed, the help under it, then the same line again.
    term.shows(lambda s: len(s) >= 4 and s[-3].startswith("  <0-31536000>"), "help")
    screen = term.screen()
    assert screen[-4].endswith("(config-p1)# lease")
    assert screen[-3] == "  <0-31536000>  Specify the duration of the lease in second"
    assert screen[-2] == "  infinite      Specify the duration of the lease to unlimited"
    assert screen[-1].endswith("(config-p1)# lease")
    term.type("3600")
    term.last(lambda l: l.endswith("(config-p1)# lease 3600"), "line kept and extended")
    term.key("Enter")
    term.type("do-nothing")  # unknown here: prints the engine's message
    term.key("Enter")
    term.shows(lambda s: len(s) >= 2 and s[-1].endswith("(config-p1)#")
               and "do-nothing" in "\n".join(s), "the command's answer")
    assert term.screen()[-2] == "% Unknown command."


def test_tab_completes_from_the_daemon_and_history_recalls(term):
    term.type("sh")
    term.key("Tab")
    term.last(lambda l: l.endswith("# show"), "show completed")
    term.type("deb")
    term.key("Tab")
    term.type("dh")
    term.key("Tab")
    term.last(lambda l: l.endswith("# show debugging dhcp"), "show debugging dhcp completed")
    term.key("Enter")
    term.shows(lambda s: len(s) >= 2 and s[-2] == "Dhcp debugging status:", "the answer")
    term.key("Up")
    term.last(lambda l: l.endswith("# show debugging dhcp"), "history recalled")


def test_exit_from_the_privileged_node_ends_the_shell(term):
    term.type("exit")
    term.key("Enter")
    wait_until(lambda: not term.alive(), what="shell gone")
