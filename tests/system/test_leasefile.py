"""The lease file under kill -9: always one whole snapshot, never a torn one.

tests/tools/lease_writer fills the lease table and writes the file in a
loop, one generation after another; the test kills it at random moments and
checks that the file on disk is exactly the snapshot of one generation (the
one found before the kill, or one written since), rebuilt here from the
writer's rules.
"""
import random
import signal
import struct
import subprocess
import time

import pytest

from conftest import BUILD

WRITER = BUILD / "tests" / "tools" / "lease_writer"
NOW = 1700000000
MAX_RECORDS = 3000
RECORD = 44
RUNS = 200

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


def test_snapshot_rebuilt_here_matches_a_quiet_run(tmp_path):
    path = tmp_path / "dhcps.leases"
    subprocess.run([str(WRITER), str(path), "41", "1", str(MAX_RECORDS)], check=True)
    assert path.read_bytes() == snapshot(41)
    subprocess.run([str(WRITER), str(path), "7", "3", str(MAX_RECORDS)], check=True)
    assert path.read_bytes() == snapshot(9)
    assert sorted(p.name for p in tmp_path.iterdir()) == ["dhcps.leases"]


def test_kill_9_while_writing_never_leaves_a_torn_file(tmp_path):
    path = tmp_path / "dhcps.leases"
    temp = tmp_path / "dhcps.leases.tmp"
    rng = random.Random(0x1ea5e)
    last = None  # generation of the file on disk
    generations = set()
    mid_write = 0
    for run in range(RUNS):
        first = (last or 0) + 1
        writer = subprocess.Popen([str(WRITER), str(path), str(first), "100000000",
                                   str(MAX_RECORDS)])
        time.sleep(rng.uniform(0.002, 0.06))
        writer.send_signal(signal.SIGKILL)
        assert writer.wait() == -signal.SIGKILL, f"run {run}: writer ended on its own"
        mid_write += temp.exists()

        if not path.exists():
            assert last is None, f"run {run}: the file vanished"
            continue
        data = path.read_bytes()
        assert data and len(data) % RECORD == 0, f"run {run}: {len(data)} bytes"
        g = struct.unpack(">I", data[8:12])[0]
        assert g == last or g >= first, f"run {run}: generation {g} after {last}"
        assert data == snapshot(g), f"run {run}: not the whole snapshot of generation {g}"
        last = g
        generations.add(g)

    # The kills must have met the writer at work, often inside a write.
    assert len(generations) > RUNS // 4
    assert mid_write > 0
