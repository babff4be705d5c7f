"""Child processes of a measurement: their life, their processor time, memory and files.

Servers run in sessions of their own, so that Ctrl-C at a terminal reaches only the harness, which ends them by process id.
"""

import contextlib
import os
import re
import socket
import subprocess
import threading
import time
from pathlib import Path

TICKS = os.sysconf("SC_CLK_TCK")


class BenchError(RuntimeError):
    """A measurement could not be made; the text is for people."""


def run(*command, **options):
    """A command's standard output; BenchError with what it printed when it fails."""
    done = subprocess.run([str(part) for part in command], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          check=False, **options)
    if done.returncode != 0:
        raise BenchError(f"{' '.join(map(str, command))}: exit status {done.returncode}\n{done.stdout}{done.stderr}")
    return done.stdout


def wait_for(condition, what, seconds=60.0, interval=0.02):
    """The first true value of `condition()`; BenchError that names `what` when there is none in time."""
    end = time.monotonic() + seconds
    while not (value := condition()):
        if time.monotonic() > end:
            raise BenchError(f"timed out after {seconds:.0f} s: {what}")
        time.sleep(interval)
    return value


@contextlib.contextmanager
def child(command, log, **environment):
    """A process that is ended, or killed after 20 s, when the block is left. `log` takes what it prints."""
    with open(log, "wb") as output:
        process = subprocess.Popen([str(part) for part in command], stdin=subprocess.DEVNULL, stdout=output, stderr=output,
                                   start_new_session=True, env={**os.environ, **environment})
    try:
        yield process
    finally:
        process.terminate()
        try:
            process.wait(20)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()


def file_text(path, process, log):
    """Text of a file once it is there; BenchError with the log's end when the process that should write it has ended."""
    def ready():
        if process.poll() is not None:
            raise BenchError(f"{process.args[0]} ended:\n{log.read_text(errors='replace')[-2000:]}")
        return path.exists() and path.read_text()
    return wait_for(ready, f"{process.args[0]} does not start")


def free_port():
    """A port that nobody listens on. Only for servers that cannot take port 0 and tell what they got."""
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def listens(port):
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", port)) == 0


def _stat_fields(pid):
    """The fields of /proc/PID/stat behind the command's name: [1] parent, [11:15] own and reaped children's ticks."""
    return Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()


def with_descendants(pids):
    """The processes and all that live below them."""
    below = {}
    for name in os.listdir("/proc"):
        if name.isdigit():
            with contextlib.suppress(OSError):
                below.setdefault(int(_stat_fields(name)[1]), []).append(int(name))
    found, todo = [], list(pids)
    while todo:
        pid = todo.pop()
        found.append(pid)
        todo += below.get(pid, [])
    return found


def cpu_seconds(pids):
    """User and system time so far of processes, their descendants, and children that they have reaped."""
    ticks = 0
    for pid in with_descendants(pids):
        with contextlib.suppress(OSError):
            ticks += sum(map(int, _stat_fields(pid)[11:15]))
    return ticks / TICKS


def resident_kib(pid, field="VmRSS"):
    """Memory of a process, KiB: VmRSS is now, VmHWM the most since it began."""
    return int(re.search(rf"{field}:\s+(\d+) kB", Path(f"/proc/{pid}/status").read_text())[1])


def disk_bytes(folder, pids):
    """Bytes on disk of the files below a folder, those included that processes hold open after their name was removed."""
    seen = {}
    def count(status):
        seen[(status.st_dev, status.st_ino)] = status.st_blocks * 512
    for root, _, names in os.walk(folder):
        for name in names:
            with contextlib.suppress(OSError):
                count(os.lstat(os.path.join(root, name)))
    for pid in with_descendants(pids):
        with contextlib.suppress(OSError):
            for name in os.listdir(f"/proc/{pid}/fd"):
                with contextlib.suppress(OSError):
                    link = f"/proc/{pid}/fd/{name}"
                    if os.readlink(link).startswith(str(folder)):
                        count(os.stat(link))
    return sum(seen.values())


@contextlib.contextmanager
def peak_of(measure, interval=0.02):
    """Samples `measure()` on a thread of its own; the yielded list holds the largest value, [0]."""
    largest, done = [measure()], threading.Event()

    def sample():
        while not done.wait(interval):
            largest[0] = max(largest[0], measure())

    thread = threading.Thread(target=sample)
    thread.start()
    try:
        yield largest
    finally:
        done.set()
        thread.join()
