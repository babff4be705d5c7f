#!/usr/bin/python3
"""Measure the gateway beside the store alone, and beside what people use instead, in one run on one store.

Starts a store, the server and the peers on loopback, lets them take turns for several rounds in each case, and prints one
table: medians, their ratios to the store alone, and what is aimed at. What the rows mean stands in docs/benchmarks.md.
Installs nothing: the packages are `build`, `demo`, `rgw` and, for peers, `bench` (tools/install-packages.sh).
"""

import argparse
import contextlib
import dataclasses
import json
import os
import shlex
import shutil
import signal
import sys
import tempfile
import time
from pathlib import Path

from cases import CASES, MEMORY_TRANSFERS, Bench, derive_costs
from gateway import gateway
from load import Direct
from peers import PEERS, peer
from processes import BenchError
from stores import dev_store, rados_gateway
from table import circumstances, table

ROOT = Path(__file__).resolve().parent.parent
MIB = 1 << 20


def arguments():
    parser = argparse.ArgumentParser(description="Measures the gateway beside the store alone, and beside others, in one run.")
    parser.add_argument("--build", type=Path, default=ROOT / "build/release", help="build folder (default build/release)")
    parser.add_argument("--store", choices=("rgw", "devstore"), default="rgw",
                        help="a RADOS Gateway (default), or the development store, which only shows that the harness works")
    parser.add_argument("--objectstore", choices=("bluestore", "memstore"), default="bluestore", help="below the RADOS Gateway")
    parser.add_argument("--cases", default=",".join(CASES), help="comma-separated, of: %(default)s (default: all)")
    parser.add_argument("--peer", choices=PEERS, action="append", default=[], dest="peers", help="measured too (repeatable)")
    parser.add_argument("--rounds", type=int, default=5, help="turns of everybody in each case (default 5)")
    parser.add_argument("--size", type=float, default=1024, metavar="MIB", help="of the large file (default 1024)")
    parser.add_argument("--session-size", type=float, default=256, metavar="MIB", help="of each of several files at once (default 256)")
    parser.add_argument("--files", type=int, default=500, help="small files of one session in a turn (default 500)")
    parser.add_argument("--names", type=int, default=10000, help="names in the folder that is listed (default 10000)")
    parser.add_argument("--block-size", type=int, help="server's block size, bytes")
    parser.add_argument("--concurrency", type=int, help="server's concurrency")
    parser.add_argument("--part-size", type=int, default=5 << 30,
                        help="uploads longer than this are cut into parts, bytes (default 5 GiB: none is)")
    parser.add_argument("--multipart-size", type=float, default=32, metavar="MIB",
                        help="part size of the case parts (default 32; S3 takes none below 5)")
    parser.add_argument("--load-folder", type=Path, default="/dev/shm", metavar="DIR",
                        help="for the files that are uploaded (default /dev/shm, so that no disk is measured with them)")
    parser.add_argument("--json", type=Path, help="also write every sample here")
    parser.add_argument("--markdown", type=Path, help="also write the table here")
    options = parser.parse_args()
    options.cases = [name for name in options.cases.split(",") if name]
    if unknown := set(options.cases) - set(CASES):
        parser.error(f"no case {', '.join(sorted(unknown))}; there are {', '.join(CASES)}")
    if min(options.rounds, options.size, options.session_size, options.multipart_size, options.files, options.names) <= 0:
        parser.error("rounds, sizes and counts must be positive")
    options.build = options.build.resolve()
    options.size, options.session_size = int(options.size * MIB), int(options.session_size * MIB)
    options.multipart_size = int(options.multipart_size * MIB)
    options.load_average = os.getloadavg()[0]
    return options


def check_programs(options):
    needed = ["bin/zorvan-gridftp-server", "lib/libzorvan_gridftp_server_ceph.so"]
    if "parts" in options.cases:
        needed += ["bin/zorvan-copy", "bin/zorvan-md5-cost"]  # a build with sanitizers has no zorvan-md5-cost
    for path in (options.build / name for name in needed):
        if not path.exists():
            raise BenchError(f"{path} is missing: build first, or name the build with --build")
    for program in ("curl", "mkpasswd", "cmp"):
        if not shutil.which(program):
            raise BenchError(f"{program} is not installed")


def start_store(options, work):
    if options.store == "devstore":
        return dev_store(work, options.build)
    # What lives at once in one turn, with room for what the gateway has deleted but not removed yet.
    largest = max(4 * options.size, (4 + MEMORY_TRANSFERS) * options.session_size)
    return rados_gateway(work, options.objectstore, 8 + 4 * (largest >> 30))


def measure(options):
    """Runs the cases; returns (samples, lines of the report)."""
    begun = time.monotonic()

    def say(text):
        print(f"{time.monotonic() - begun:7.1f} s  {text}", file=sys.stderr, flush=True)

    with contextlib.ExitStack() as stack:
        work, files = (Path(stack.enter_context(tempfile.TemporaryDirectory(prefix="zorvan-bench.", dir=folder)))
                       for folder in (None, options.load_folder))
        say(f"starting the store ({options.store})")
        store = stack.enter_context(start_store(options, work))
        contenders = [Direct(store), stack.enter_context(gateway(work, store, options))]
        for name in dict.fromkeys(options.peers):
            say(f"starting {name}")
            contenders.append(stack.enter_context(peer(name, work, store)))
        bench = Bench(options, work, files, store, contenders, say)
        for name in options.cases:
            CASES[name](bench)
        derive_costs(bench)
        say("done")
        command = "bench/bench.py " + shlex.join(sys.argv[1:])
        return bench.samples, [*circumstances(options, store, contenders, command.strip()), "", *table(bench.samples, contenders)]


def interrupted(*_):
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, signal.SIG_IGN)  # a second one must not cut the cleaning up short
    raise KeyboardInterrupt


def main():
    options = arguments()
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, interrupted)  # everything is ended and unmounted in that case too
    for name in list(os.environ):  # what would send requests, or programs for their certificates, elsewhere
        if name.startswith("AWS_") or name.lower().endswith("_proxy"):
            del os.environ[name]
    try:
        check_programs(options)
        samples, report = measure(options)
    except BenchError as error:
        print(f"bench.py: {error}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        print("bench.py: interrupted", file=sys.stderr)
        return 130
    print("\n".join(report))
    if options.json:
        options.json.write_text(json.dumps({row: {name: [dataclasses.asdict(sample) for sample in found] for name, found in by.items()}
                                            for row, by in samples.items()}, indent=1) + "\n")
    if options.markdown:
        options.markdown.write_text("\n".join(report) + "\n")
    return 0


if __name__ == "__main__":
    sys.exit(main())
