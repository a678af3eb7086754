"""The lease file under kill -9: always one whole snapshot, never a torn one.

tests/tools/lease_writer fills the lease table and writes the file, one
generation after another, each a snapshot the test rebuilds on its own from
the writer's rules. Asked to, the writer stops inside the write of its last
generation (a chosen share of the bytes in the temporary file, from none to
all of them flushed just before the rename) and says so; the test kills it
-9 right then and finds the previous generation whole in the file and the
partial one only in the temporary file. Further runs kill the writer at
random moments: whatever the moment, the file is one whole generation.
"""
import random
import select
import signal
import struct
import subprocess
import time

import pytest

from conftest import BUILD
from sanitizer import check_outcome, checked

WRITER = BUILD / "tests" / "tools" / "lease_writer"
NOW = 1700000000
MAX_RECORDS = 3000
RECORD = 44
FORCED_RUNS = 60
RANDOM_RUNS = 40
PPM = 1000000

pytestmark = pytest.mark.skipif(not WRITER.exists(), reason="lease_writer not built")


def snapshot(g):
    """The file generation g writes: its leases newest first."""
    count = 1 + (g * 7919) % MAX_RECORDS
    out = []
    for j in reversed(range(count)):
        mac = bytes([2, (g >> 16) & 255, (g >> 8) & 255, g & 255, (j >> 8) & 255, j & 255])
        host = f"g{g}-{j}".encode()[:20].ljust(20, b"\0")
        out.append(struct.pack(">IiI", 1, NOW + j, g) + struct.pack(">I", 0x0A000000 + j + 1) +
                   mac + host + b"\0\0")
    return b"".join(out)


def write_quietly(path, first, generations):
    checked(subprocess.run([str(WRITER), str(path), str(first), str(generations),
                            str(MAX_RECORDS)], capture_output=True, text=True))


def test_snapshot_rebuilt_here_matches_a_quiet_run(tmp_path):
    path = tmp_path / "dhcps.leases"
    write_quietly(path, 41, 1)
    assert path.read_bytes() == snapshot(41)
    write_quietly(path, 7, 3)
    assert path.read_bytes() == snapshot(9)
    assert sorted(p.name for p in tmp_path.iterdir()) == ["dhcps.leases"]


def stopped_inside(path, first, generations, ppm):
    """Runs the writer until it stops inside the write of generation
    first + generations - 1, kills it -9 there; returns what it said."""
    writer = subprocess.Popen([str(WRITER), str(path), str(first), str(generations),
                               str(MAX_RECORDS), str(ppm)],
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    try:
        # The bound only limits the wait for the writer's line.
        ready, _, _ = select.select([writer.stdout], [], [], 120)
        said = writer.stdout.readline() if ready else ""
    finally:
        writer.send_signal(signal.SIGKILL)
        status = writer.wait()
    errors = writer.stderr.read()
    writer.stdout.close()
    writer.stderr.close()
    check_outcome("lease_writer", status, said + errors, expected=-signal.SIGKILL)
    assert said, f"the writer never stopped inside a write: {errors}"
    return said.rstrip("\n")


def test_kill_9_inside_a_write_leaves_the_previous_generation_whole(tmp_path):
    path = tmp_path / "dhcps.leases"
    temp = tmp_path / "dhcps.leases.tmp"
    rng = random.Random(0x1ea5e)
    stops = [0, PPM] + [rng.randrange(1, PPM) for _ in range(FORCED_RUNS - 2)]
    rng.shuffle(stops)
    last = None  # generation of the file on disk
    for run, ppm in enumerate(stops):
        first = (last or 0) + 1
        generations = rng.randint(1, 3)
        stopped = first + generations - 1
        said = stopped_inside(path, first, generations, ppm)

        whole = snapshot(stopped)
        part = len(whole) * ppm // PPM
        assert said == f"inside generation {stopped}: {part} of {len(whole)} bytes written", run
        previous = stopped - 1 if generations > 1 else last
        if previous is None:
            assert not path.exists(), f"run {run}: a file before any whole generation"
        else:
            assert path.read_bytes() == snapshot(previous), \
                f"run {run}: not the whole snapshot of generation {previous}"
        assert temp.read_bytes() == whole[:part], f"run {run}: temporary file"
        last = previous


def test_kill_9_at_random_moments_never_leaves_a_torn_file(tmp_path):
    path = tmp_path / "dhcps.leases"
    rng = random.Random(0x5eed)
    last = None
    for run in range(RANDOM_RUNS):
        first = (last or 0) + 1
        writer = subprocess.Popen([str(WRITER), str(path), str(first), "100000000",
                                   str(MAX_RECORDS)], stderr=subprocess.PIPE, text=True)
        time.sleep(rng.uniform(0.002, 0.06))  # any moment will do; none is needed
        writer.send_signal(signal.SIGKILL)
        writer.wait()
        errors = writer.stderr.read()
        writer.stderr.close()
        check_outcome("lease_writer", writer.returncode, errors, expected=None)

        if not path.exists():
            assert last is None, f"run {run}: the file vanished"
            continue
        data = path.read_bytes()
        assert data and len(data) % RECORD == 0, f"run {run}: {len(data)} bytes"
        g = struct.unpack(">I", data[8:12])[0]
        assert g == last or g >= first, f"run {run}: generation {g} after {last}"
        assert data == snapshot(g), f"run {run}: not the whole snapshot of generation {g}"
        last = g
