"""The measuring harness still works: every case with tiny sizes, on the dev store. No number is judged here."""

import json
import os
import re
import signal
import statistics
import subprocess
import sys
import threading
from pathlib import Path

import pytest

BENCH = Path(__file__).resolve().parent.parent.parent / "bench"
TINY = ("--store", "devstore", "--size", "11", "--multipart-size", "5", "--session-size", "1", "--files", "8", "--names", "1100")


@pytest.fixture
def bench(tmp_path, binaries):
    """Starts the harness with everything that it makes below tmp_path; afterwards nothing of it may be left."""
    started = []

    def start(*options):
        started.append(subprocess.Popen(
            [sys.executable, BENCH / "bench.py", "--build", binaries.server.parent.parent, "--load-folder", tmp_path, *options],
            env={**os.environ, "TMPDIR": str(tmp_path)}, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, text=True))
        return started[-1]

    yield start
    for process in started:
        if process.poll() is None:
            process.terminate()
            process.communicate(timeout=60)
    assert not list(tmp_path.glob("zorvan-bench.*")), "the harness left files behind"
    assert not processes_below(tmp_path), "the harness left processes behind"


def wait_for_line(process, text):
    """Reads what the harness says until a line with a text; fails with what it said when it ends before, or takes two minutes."""
    bound = threading.Timer(120, process.kill)
    bound.start()
    try:
        said = [process.stderr.readline()]
        while text not in said[-1]:
            assert said[-1], f"it ended before it said {text!r}: {''.join(said)}"
            said.append(process.stderr.readline())
    finally:
        bound.cancel()


def processes_below(folder):
    """Command lines that name something below a folder."""
    found = []
    for path in Path("/proc").glob("[0-9]*/cmdline"):
        try:
            text = path.read_bytes().replace(b"\0", b" ").decode(errors="replace")
        except OSError:
            continue
        if str(folder) in text:
            found.append(text)
    return found


@pytest.mark.slow
@pytest.mark.timeout(600)
def test_every_case_fills_its_rows(bench, tmp_path):
    json_file, markdown_file = tmp_path / "samples.json", tmp_path / "table.md"
    process = bench(*TINY, "--rounds", "2", "--json", json_file, "--markdown", markdown_file)
    printed, errors = process.communicate(timeout=560)
    assert process.returncode == 0, errors
    assert printed == markdown_file.read_text()

    rows = {cells[0]: cells for cells in (line.strip("| ").split(" | ") for line in printed.splitlines() if line.startswith("|"))}
    asked = subprocess.run([sys.executable, "-c", "import aims; print(*(f'{row.key}={row.title}' for row in aims.ROWS), sep='\\n')"],
                           cwd=BENCH, check=True, capture_output=True, text=True).stdout.splitlines()
    titles = dict(line.split("=", 1) for line in asked)
    samples = json.loads(json_file.read_text())
    assert set(samples) - {"store_cpu_up_spooled"} == set(titles)
    for key, title in titles.items():
        assert len(samples[key]["gateway"]) >= 2, key
        assert re.match(r"\d", rows[title][3]), rows[title]

    def rate(row, who):
        return statistics.median(sample["quantity"] / sample["seconds"] for sample in samples[row][who])

    for row in ("up", "down", "up_4", "down_4", "small_up", "small_down", "small8_delete", "size"):
        ratio = rate(row, "gateway") / rate(row, "store alone")
        assert rows[titles[row]][4] == f"{ratio:.2f}", row
    assert {sample["seconds"] for sample in samples["unstored"]["gateway"]} == {0}, "a 226 came before the object was stored"
    assert {sample["seconds"] for sample in samples["disk"]["gateway"]} == {0}, "an announced upload went to the disk"


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_an_interrupt_ends_it_cleanly(bench, number, tmp_path):
    process = bench(*TINY, "--rounds", "100000", "--cases", "small8")
    wait_for_line(process, "gateway")
    assert any("zorvan-gridftp-server" in line for line in processes_below(tmp_path))
    process.send_signal(number)
    errors = process.communicate(timeout=60)[1]
    assert process.returncode == 130, errors
    assert errors.endswith("bench.py: interrupted\n")


def test_what_cannot_be_measured_is_said(bench):
    process = bench("--build", "/nonexistent")
    errors = process.communicate(timeout=60)[1]
    assert process.returncode == 1
    assert errors == ("bench.py: /nonexistent/bin/zorvan-gridftp-server is missing: build first, or name the build with --build\n")
