#!/usr/bin/python3
"""Measure the gateway beside the store alone, in one run on one store.

    bench.py [--build DIR] [--store rgw|devstore] [--objectstore bluestore|memstore] [--size MIB] [--rounds N] [--json FILE]

Starts a store and the server on loopback, then lets curl move one object of --size (random data, kept in memory-backed
files) straight to the store and through the gateway by turns. Prints, for each case, the median rate and its ratio to the
store alone in the same run; then the processor seconds per GiB of server and store, the server's peak memory, and the
seconds from the client's last byte to the 226. Nothing here decides a test.
"""

import argparse
import contextlib
import json
import os
import re
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
MIB = 1 << 20
TICKS = os.sysconf("SC_CLK_TCK")


def run(*command, **options):
    """A command's standard output; RuntimeError with what it printed when it fails."""
    done = subprocess.run([str(part) for part in command], capture_output=True, text=True, check=False, **options)
    if done.returncode != 0:
        raise RuntimeError(f"{' '.join(map(str, command))}: exit status {done.returncode}\n{done.stdout}{done.stderr}")
    return done.stdout


def cpu_seconds(pids):
    """User and system time of processes so far."""
    total = 0
    for pid in pids:
        fields = Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
        total += int(fields[11]) + int(fields[12])
    return total / TICKS


def peak_memory(pid):
    """Largest resident set of a process, MiB."""
    return int(re.search(r"VmHWM:\s+(\d+) kB", Path(f"/proc/{pid}/status").read_text())[1]) / 1024


def wait_for_file(path, process):
    """Text of a file once it is there; RuntimeError when the process that should write it has ended."""
    end = time.monotonic() + 30
    while not (path.exists() and path.stat().st_size):
        if process.poll() is not None or time.monotonic() > end:
            raise RuntimeError(f"{process.args[0]} did not start")
        time.sleep(0.02)
    return path.read_text()


@contextlib.contextmanager
def child(command, log):
    """A process that is ended when the block is left."""
    with open(log, "wb") as output:
        process = subprocess.Popen([str(part) for part in command], stdout=output, stderr=output)
    try:
        yield process
    finally:
        process.terminate()
        try:
            process.wait(20)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()


class Store:
    """Where the store answers and who may use it."""

    def __init__(self, endpoint, admin, user, pids):
        self.endpoint, self.admin, self.user, self.pids = endpoint, admin, user, pids
        self.host = endpoint.partition("//")[2]

    def curl(self, method, path, *options):
        """A signed request straight to the store."""
        return run("curl", "-sS", "--fail", "-X", method, "--aws-sigv4", "aws:amz:us-east-1:s3", "--user", ":".join(self.user),
                   "-H", "x-amz-content-sha256: UNSIGNED-PAYLOAD", *options, f"{self.endpoint}{path}")


@contextlib.contextmanager
def rados_gateway(work, objectstore):
    script = ROOT / "tests/rgw/rgw.py"
    folder = work / "rgw"
    run(script, "start", folder, "--objectstore", objectstore, "--capacity", 32, "--quiet")
    try:
        told = json.loads((folder / "users.json").read_text())
        keys = {user["uid"]: user["keys"][0] for user in told["users"]}
        pids = [int(path.read_text()) for path in folder.glob("**/*.pid")]
        yield Store(told["endpoint"], keys["admin"], keys["alice"], pids)
    finally:
        run(script, "stop", folder, "--wipe")


@contextlib.contextmanager
def dev_store(work, build):
    port_file = work / "store.port"
    admin, user = ["ADMIN", "adminsecret"], ["ALICE", "alicesecret"]
    command = [build / "bin/zorvan-devstore", "--listen", "127.0.0.1:0", "--port-file", port_file, "--admin-key", admin[0],
               "--admin-secret", admin[1], "--user", "alice:" + ":".join(user)]
    with child(command, work / "store.log") as process:
        port = wait_for_file(port_file, process).split()[-1].rpartition(":")[2]
        yield Store(f"http://127.0.0.1:{port}", admin, user, [process.pid])


@contextlib.contextmanager
def gateway(work, build, store, block_size, concurrency):
    """The server in front of a store; yields (process, port)."""
    module = work / "ceph.conf"
    module.write_text(f"host_name = {store.host}\nuse_https = no\npart_size = 5368709120\n"
                      f"ceph_rgw_admin_access_key_id = {store.admin[0]}\nceph_rgw_admin_secret_access_key = {store.admin[1]}\n")
    users = work / "users"
    users.write_text("alice:" + run("mkpasswd", "--method=sha256crypt", "--rounds=1000", "secret"))
    tuning = "".join(f"{key} = {value}\n" for key, value in (("block_size", block_size), ("concurrency", concurrency)) if value)
    config = work / "server.toml"
    config.write_text(f'[server]\nlisten = ["127.0.0.1:0"]\nport_file = "{work}/server.port"\n{tuning}'
                      f'[backend]\nname = "ceph"\nmodule_dir = "{build}/lib"\noptions = "{module}"\n'
                      f'[users]\nfile = "{users}"\n[spool]\ndirectory = "{work}"\nmemory = "64MiB"\nlimit = "8GiB"\n')
    for path in (module, users, config):
        path.chmod(0o600)
    with child([build / "bin/zorvan-gridftp-server", "--config", config], work / "server.log") as process:
        yield process, wait_for_file(work / "server.port", process).split()[-1]


def timed(action):
    begin = time.monotonic()
    action()
    return time.monotonic() - begin


def last_byte_to_reply(path, port, name):
    """Seconds from the client's last byte to the 226, by a client that announces the size."""
    import ftplib
    ftp = ftplib.FTP()
    ftp.connect("127.0.0.1", int(port))
    ftp.login("alice", "secret")
    ftp.voidcmd("TYPE I")
    ftp.voidcmd(f"ALLO {path.stat().st_size}")
    connection = ftp.transfercmd(f"STOR {name}")
    with open(path, "rb") as source:
        connection.sendfile(source)
    connection.close()
    begin = time.monotonic()
    ftp.voidresp()
    seconds = time.monotonic() - begin
    ftp.quit()
    return seconds


def measure(store, server, port, work, size, rounds):
    """Rows of (case, seconds by the store alone, seconds through the gateway) and the costs."""
    source, target = work / "source", work / "target"
    with open(source, "wb") as file:
        for _ in range(size // MIB):
            file.write(os.urandom(MIB))
    store.curl("PUT", "/bench")
    url = f"ftp://127.0.0.1:{port}/bench"
    login = ("curl", "-sS", "-u", "alice:secret")
    times = {}
    cost = {}

    def turn(case, who, action):
        pids = [server.pid], store.pids
        before = [cpu_seconds(group) for group in pids]
        seconds = timed(action)
        times.setdefault((case, who), []).append(seconds)
        cost.setdefault((case, who), []).append([cpu_seconds(group) - start for group, start in zip(pids, before)])

    for _ in range(rounds):
        turn("upload", "store", lambda: store.curl("PUT", "/bench/direct", "-T", source))
        turn("upload", "gateway", lambda: run(*login, "-Q", f"+ALLO {size}", "-T", source, f"{url}/through"))
        turn("upload, size not announced", "gateway", lambda: run(*login, "-T", source, f"{url}/spooled"))
        turn("download", "store", lambda: store.curl("GET", "/bench/direct", "-o", target))
        turn("download", "gateway", lambda: run(*login, "-o", target, f"{url}/through"))
        if run("cmp", source, target):
            raise RuntimeError("the download differs")
    times[("upload, size not announced", "store")] = times[("upload", "store")]
    delay = statistics.median(last_byte_to_reply(source, port, "bench/reply") for _ in range(rounds))
    return times, cost, delay


def report(times, cost, delay, peak, size):
    gib = size / (1 << 30)
    lines = ["| case | store alone, MB/s | gateway, MB/s | ratio | server cpu s/GiB | store cpu s/GiB (alone) |", "|---|---|---|---|---|---|"]
    for case in dict.fromkeys(case for case, _ in times):
        alone, through = (statistics.median(times[(case, who)]) for who in ("store", "gateway"))
        mine, stores = (statistics.median(row[i] for row in cost[(case, "gateway")]) / gib for i in (0, 1))
        by_itself = cost.get((case, "store"))
        by_itself = f"{statistics.median(row[1] for row in by_itself) / gib:.2f}" if by_itself else "-"
        lines.append(f"| {case} | {size / alone / 1e6:.0f} | {size / through / 1e6:.0f} | {alone / through:.2f} | {mine:.2f} | {stores:.2f} ({by_itself}) |")
    lines.append(f"\nlast byte to 226: {delay:.2f} s; server's peak memory: {peak:.0f} MiB")
    return "\n".join(lines)


def main():
    parser = argparse.ArgumentParser(description="The gateway beside the store alone.")
    parser.add_argument("--build", type=Path, default=ROOT / "build/release", help="build folder (default build/release)")
    parser.add_argument("--store", choices=("rgw", "devstore"), default="rgw")
    parser.add_argument("--objectstore", choices=("bluestore", "memstore"), default="bluestore")
    parser.add_argument("--size", type=int, default=1024, metavar="MIB")
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--block-size", type=int, help="server's block size, bytes")
    parser.add_argument("--concurrency", type=int, help="server's concurrency")
    parser.add_argument("--json", type=Path, help="also write the raw times here")
    options = parser.parse_args()
    size = options.size * MIB

    fast = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
    with contextlib.ExitStack() as stack:
        work = Path(stack.enter_context(tempfile.TemporaryDirectory(prefix="zorvan-bench.")))
        files = Path(stack.enter_context(tempfile.TemporaryDirectory(prefix="zorvan-bench.", dir=fast)))
        store = stack.enter_context(rados_gateway(work, options.objectstore) if options.store == "rgw"
                                    else dev_store(work, options.build))
        server, port = stack.enter_context(gateway(work, options.build, store, options.block_size, options.concurrency))
        times, cost, delay = measure(store, server, port, files, size, options.rounds)
        print(report(times, cost, delay, peak_memory(server.pid), size))
        if options.json:
            options.json.write_text(json.dumps({f"{case}/{who}": seconds for (case, who), seconds in times.items()}, indent=2))
    return 0


if __name__ == "__main__":
    sys.exit(main())
