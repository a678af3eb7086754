"""How a program the system tests ran ended: its exit status and the
sanitizer reports in its output.

The sanitizer build's daemon, shell and tools report memory errors, leaks
and undefined behaviour (AddressSanitizer, LeakSanitizer, UBSan) on their
standard error, or into files when a process has no standard error of its
own to keep (log_path). Any report fails the test that ran the program,
with the report in the message; so does an exit status other than the one
the test expects.
"""
import os
import pathlib

MARKS = ("AddressSanitizer", "LeakSanitizer", "runtime error:")
OPTION_VARS = ("ASAN_OPTIONS", "LSAN_OPTIONS", "UBSAN_OPTIONS")
# A report quoted in a failure: its first lines carry the error and the
# stack that matters.
REPORT_LINES = 80


def find_report(text):
    """The first sanitizer report in `text` (from the line that names the
    sanitizer, at most REPORT_LINES lines), or None."""
    lines = text.splitlines()
    for i, line in enumerate(lines):
        if any(m in line for m in MARKS):
            # ASan opens its reports with a line of '=' just above.
            start = i - 1 if i > 0 and lines[i - 1].startswith("=====") else i
            return "\n".join(lines[start:start + REPORT_LINES])
    return None


def without_log_path(options):
    """A sanitizer option string minus any log_path, so reports go to
    standard error, where the tests read them."""
    kept = [o for o in options.replace(",", ":").split(":")
            if o and not o.startswith("log_path=")]
    return ":".join(kept)


def scrub_environment(env=os.environ):
    """Drops log_path from the sanitizer options in `env` (in place)."""
    for var in OPTION_VARS:
        if var in env:
            env[var] = without_log_path(env[var])
    return env


def environment_logging_to(prefix):
    """A copy of the environment whose sanitizer reports go to files
    PREFIX.<pid>, for processes whose standard error goes nowhere."""
    env = scrub_environment(dict(os.environ))
    for var in ("ASAN_OPTIONS", "UBSAN_OPTIONS"):
        env[var] = ":".join(filter(None, (env.get(var, ""), f"log_path={prefix}")))
    return env


def report_files_text(prefix):
    """Everything the sanitizers wrote into PREFIX.<pid> files."""
    prefix = pathlib.Path(prefix)
    return "".join(p.read_text(errors="replace")
                   for p in sorted(prefix.parent.glob(prefix.name + ".*")))


def _tail(text, lines=40):
    return "\n".join(text.splitlines()[-lines:])


def check_outcome(what, status, output, expected=0):
    """Fails with AssertionError when `output` holds a sanitizer report or
    `status` (a subprocess returncode) is not `expected` (None: any)."""
    report = find_report(output)
    if report is not None:
        raise AssertionError(f"{what}: sanitizer report (exit status {status}):\n{report}")
    if expected is not None and status != expected:
        raise AssertionError(f"{what}: exit status {status}, expected {expected}; output ends:\n"
                             f"{_tail(output)}")


def checked(result, what=None, expected=0):
    """check_outcome() over a finished subprocess.run() result, both
    streams scanned; returns the result."""
    out = "".join(s if isinstance(s, str) else s.decode(errors="replace")
                  for s in (result.stdout or "", result.stderr or ""))
    if what is None:
        what = " ".join(str(a) for a in result.args) if isinstance(result.args, list) \
            else str(result.args)
    check_outcome(what, result.returncode, out, expected)
    return result
