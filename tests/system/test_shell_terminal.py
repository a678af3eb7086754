"""The shell on a terminal, as an operator uses it: tmux runs dhcpsh on a
pseudo-terminal, keys are typed, and the screen is read back."""
import re
import subprocess
import time
import uuid

import pytest

from conftest import DHCPSH, wait_until


class Terminal:
    def __init__(self, daemon):
        self.name = f"sh{uuid.uuid4().hex[:8]}"
        cmd = f"nsenter -t {daemon.pid} -m -n {DHCPSH}"
        subprocess.run(["tmux", "new-session", "-d", "-s", self.name, "-x", "120", "-y", "50",
                        cmd], check=True)

    def type(self, text):
        # -l: literal text, never key names ("end" would be the End key).
        subprocess.run(["tmux", "send-keys", "-t", self.name, "-l", text], check=True)
        time.sleep(0.2)

    def key(self, *keys):
        subprocess.run(["tmux", "send-keys", "-t", self.name, *keys], check=True)
        time.sleep(0.3)

    def screen(self):
        out = subprocess.run(["tmux", "capture-pane", "-p", "-t", self.name],
                             capture_output=True, text=True).stdout
        return [l.rstrip() for l in out.splitlines() if l.strip()]

    def alive(self):
        return subprocess.run(["tmux", "has-session", "-t", self.name],
                              capture_output=True).returncode == 0

    def close(self):
        subprocess.run(["tmux", "kill-session", "-t", self.name], capture_output=True)


@pytest.fixture
def term(daemon):
    t = Terminal(daemon)
    wait_until(lambda: t.screen() and t.screen()[-1].endswith("#"), 10, what="prompt")
    yield t
    t.close()


def test_prompts_follow_the_node(term):
    host = re.escape(term.screen()[-1][:-1])
    term.type("configure terminal")
    term.key("Enter")
    term.type("interface vlanif10")
    term.key("Enter")
    assert re.fullmatch(host + r"\(config-if\)#", term.screen()[-1])
    term.type("exit")
    term.key("Enter")
    term.type("dhcp-server pool office")
    term.key("Enter")
    assert re.fullmatch(host + r"\(config-office\)#", term.screen()[-1])


def test_question_mark_shows_help_and_keeps_the_line(term):
    term.type("conf t")
    term.key("Enter")
    term.type("dhcp-server pool p1")
    term.key("Enter")
    term.type("lease ")
    term.type("?")
    screen = term.screen()
    # The line as typed, the help under it, then the same line again.
    assert screen[-4].endswith("(config-p1)# lease")
    assert screen[-3] == "  <0-31536000>  Specify the duration of the lease in second"
    assert screen[-2] == "  infinite      Specify the duration of the lease to unlimited"
    assert screen[-1].endswith("(config-p1)# lease")
    term.type("3600")
    assert term.screen()[-1].endswith("(config-p1)# lease 3600")
    term.key("Enter")
    term.type("do-nothing")  # unknown here: prints the engine's message
    term.key("Enter")
    assert term.screen()[-2] == "% Unknown command."


def test_tab_completes_from_the_daemon_and_history_recalls(term):
    term.type("sh")
    term.key("Tab")
    assert term.screen()[-1].endswith("# show")
    term.type("deb")
    term.key("Tab")
    term.type("dh")
    term.key("Tab")
    assert term.screen()[-1].endswith("# show debugging dhcp")
    term.key("Enter")
    assert term.screen()[-2] == "Dhcp debugging status:"
    term.key("Up")
    assert term.screen()[-1].endswith("# show debugging dhcp")


def test_exit_from_the_privileged_node_ends_the_shell(term):
    term.type("exit")
    term.key("Enter")
    wait_until(lambda: not term.alive(), 5, what="shell gone")
