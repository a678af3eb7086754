"""The check every system test applies to the programs it ran
(sanitizer.py): reports of the three sanitizers fail, quoted; clean output
with the expected exit status passes."""
import subprocess

import pytest

import sanitizer

ASAN = """dhcpd: notice: DHCP 0.1.0 starting
=================================================================
==4242==ERROR: AddressSanitizer: heap-use-after-free on address 0x602000000010 at pc 0x55d1 bp 0x7ffc sp 0x7ffc
READ of size 8 at 0x602000000010 thread T0
    #0 0x55d1 in show_dhcp_server dhcp/dhcps_vty.cpp:120:9
    #1 0x55d2 in cmd_execute lib/command.cpp:400:5
SUMMARY: AddressSanitizer: heap-use-after-free dhcp/dhcps_vty.cpp:120:9 in show_dhcp_server
==4242==ABORTING
"""

LSAN = """dhcpd: notice: Terminating on signal
=================================================================
==77==ERROR: LeakSanitizer: detected memory leaks

Direct leak of 24 byte(s) in 1 object(s) allocated from:
    #0 0x4c1 in operator new(unsigned long)
    #1 0x4c2 in dhcps_pool_new dhcp/dhcps_pool.cpp:51:12

SUMMARY: AddressSanitizer: 24 byte(s) leaked in 1 allocation(s).
"""

UBSAN = """log 6 6f6b
dhcp/dhcp_options.cpp:88:21: runtime error: load of misaligned address 0x7ffd for type 'uint32_t'
    #0 0x51 in dhcp_get_option dhcp/dhcp_options.cpp:88:21
SUMMARY: UndefinedBehaviorSanitizer: undefined-behavior dhcp/dhcp_options.cpp:88:21
"""

CLEAN = """dhcpd: notice: DHCP 0.1.0 starting
dhcpd: info: error: address sanitizing is not a runtime matter
dhcpd: notice: Terminating on signal 15
"""


@pytest.mark.parametrize("text,first", [
    (ASAN, "=" * 65),
    (LSAN, "=" * 65),
    (UBSAN, "dhcp/dhcp_options.cpp:88:21: runtime error: load of misaligned address"),
])
def test_each_sanitizer_report_is_found_from_its_first_line(text, first):
    report = sanitizer.find_report(text)
    assert report is not None
    assert report.splitlines()[0].startswith(first)
    assert report.splitlines()[-1] == text.splitlines()[-1]


def test_clean_output_has_no_report():
    assert sanitizer.find_report(CLEAN) is None
    assert sanitizer.find_report("") is None


def test_a_long_report_is_quoted_in_part():
    text = "==1==ERROR: AddressSanitizer: stack-buffer-overflow\n" + \
        "".join(f"    #{i} frame\n" for i in range(500))
    assert len(sanitizer.find_report(text).splitlines()) == sanitizer.REPORT_LINES


@pytest.mark.parametrize("text", [ASAN, LSAN, UBSAN])
def test_a_report_fails_the_check_even_with_status_zero(text):
    with pytest.raises(AssertionError) as failure:
        sanitizer.check_outcome("dhcpd", 0, text)
    message = str(failure.value)
    assert message.startswith("dhcpd: sanitizer report (exit status 0):\n")
    assert sanitizer.find_report(text) in message


def test_the_exit_status_is_checked():
    sanitizer.check_outcome("dhcpd", 0, CLEAN)
    sanitizer.check_outcome("dhcpd", 1, CLEAN, expected=1)
    sanitizer.check_outcome("lease_writer", -9, CLEAN, expected=None)
    with pytest.raises(AssertionError, match=r"^dhcpd: exit status -9, expected 0; "):
        sanitizer.check_outcome("dhcpd", -9, CLEAN)


def test_a_finished_process_is_checked_on_both_streams():
    ok = subprocess.run(["sh", "-c", "echo fine; echo also fine >&2"], capture_output=True,
                        text=True)
    assert sanitizer.checked(ok) is ok
    bad = subprocess.run(["sh", "-c", "echo '==9==ERROR: LeakSanitizer: detected' >&2"],
                         capture_output=True, text=True)
    with pytest.raises(AssertionError, match="LeakSanitizer"):
        sanitizer.checked(bad)
    failed = subprocess.run(["sh", "-c", "exit 3"], capture_output=True)
    with pytest.raises(AssertionError, match="exit status 3, expected 0"):
        sanitizer.checked(failed)
    assert sanitizer.checked(failed, expected=3) is failed


def test_log_path_is_dropped_so_reports_reach_standard_error():
    env = {"ASAN_OPTIONS": "detect_leaks=1:log_path=/tmp/asan:abort_on_error=0",
           "UBSAN_OPTIONS": "log_path=/x,print_stacktrace=1", "PATH": "/bin"}
    sanitizer.scrub_environment(env)
    assert env == {"ASAN_OPTIONS": "detect_leaks=1:abort_on_error=0",
                   "UBSAN_OPTIONS": "print_stacktrace=1", "PATH": "/bin"}


def test_a_detached_process_reports_into_files_that_are_read(tmp_path, monkeypatch):
    monkeypatch.setenv("ASAN_OPTIONS", "detect_leaks=1:log_path=/elsewhere")
    monkeypatch.delenv("UBSAN_OPTIONS", raising=False)
    prefix = tmp_path / "dhcpd.san"
    env = sanitizer.environment_logging_to(prefix)
    assert env["ASAN_OPTIONS"] == f"detect_leaks=1:log_path={prefix}"
    assert env["UBSAN_OPTIONS"] == f"log_path={prefix}"
    assert sanitizer.report_files_text(prefix) == ""
    (tmp_path / "dhcpd.san.4242").write_text(ASAN)
    (tmp_path / "other.san.1").write_text(UBSAN)
    assert sanitizer.report_files_text(prefix) == ASAN
