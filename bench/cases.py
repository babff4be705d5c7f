"""What is measured. A case fills rows of the table; within it the contenders take turns, round by round, and who begins
changes with the round."""

import contextlib
import os
import time
from dataclasses import dataclass, field
from pathlib import Path

import load
from gateway import gateway
from load import Each, Sessions, together
from parts import parts
from processes import cpu_seconds, disk_bytes, peak_of, resident_kib, wait_for
from s3_wire import S3Connection
from samples import GIB, Sample

SMALL = 10 << 10  # bytes of a small file
MEMORY_TRANSFERS = 5


@dataclass
class Bench:
    """The run: who is measured, with what, and what came out: samples[row key][contender's name]."""

    options: object
    work: Path
    files: Path
    store: object
    contenders: list
    say: object
    samples: dict = field(default_factory=dict)

    def add(self, row, contender, sample):
        self.samples.setdefault(row, {}).setdefault(contender.name, []).append(sample)

    def turns(self, case, only=lambda contender: True):
        """(round, contender) by turns, once the store has come to rest from the turn before."""
        who = [contender for contender in self.contenders if only(contender)]
        for number in range(self.options.rounds):
            for index in range(len(who)):
                contender = who[(number + index) % len(who)]
                self.say(f"{case}: round {number + 1} of {self.options.rounds}, {contender.name}")
                self.settle()
                yield number, contender

    def settle(self):
        """Between turns: has everybody look at the bucket afresh, and waits until the store does nothing any more (it removes
        deleted objects later), or for 15 s."""
        for contender in self.contenders:
            if contender.forget:
                contender.forget()
        before = time.monotonic()
        spent = cpu_seconds(self.store.pids)
        while time.monotonic() < before + 15:
            time.sleep(0.25)
            now = cpu_seconds(self.store.pids)
            if now - spent <= 0.02:
                return
            spent = now

    def turn(self, row, contender, quantity, action, stored=None):
        """Measures one piece of load. `stored` says whether what was uploaded is in the store: a turn ends only then."""
        groups = contender.pids, self.store.pids
        before = [cpu_seconds(pids) for pids in groups]
        done = action()
        waited = self._wait_until_stored(contender, stored) if stored else 0
        spent = [cpu_seconds(pids) - earlier for pids, earlier in zip(groups, before)]
        self.add(row, contender, Sample(done.seconds + waited, done.seconds, quantity, done.client, *spent))
        return done

    def _wait_until_stored(self, contender, stored):
        """Seconds for which the store had to be waited for; 0 when the first look found everything."""
        begin = time.monotonic()
        at_once = stored()
        if contender.name != load.DIRECT:
            self.add("unstored", contender, Sample(0 if at_once else 100, 0))
        if at_once:
            return 0
        wait_for(stored, f"what {contender.name} took is not in the store", 600, 0.005)
        return time.monotonic() - begin

    def file(self, size):
        """A file of random bytes, made once."""
        path = self.files / f"source-{size}"
        if not path.exists():
            with open(path, "wb") as target:
                for begin in range(0, size, 1 << 20):
                    target.write(os.urandom(min(1 << 20, size - begin)))
        return path

    def direct(self):
        return contextlib.closing(S3Connection(self.store))

    def put_files(self, size, keys):
        """Puts objects of one size with curl, not measured."""
        source = self.file(size)
        for key in keys:
            together([self.store.curl(key, "-T", source)])


def _all_stored(connection, keys, size):
    return lambda: all(connection.size(key) == size for key in keys)


def _check_download(bench, contender, key, source):
    """Once for each contender: a fast download of the wrong bytes is worth nothing."""
    target = bench.files / "target"
    together([contender.download_command(key, target)])
    together([["cmp", source, target]])
    target.unlink()


def _streams(bench, case, size, count):
    """Downloads and uploads of `count` files of `size` at once. Each round has new objects, so that no cache has seen them."""
    source, suffix = bench.file(size), f"_{count}" if count > 1 else ""
    million = size * count / 1e6
    with bench.direct() as connection:
        for number, contender in bench.turns(case):
            shared = [f"{case}-{number}-{index}" for index in range(count)]
            if connection.size(shared[0]) is None:
                bench.store.remove_all(f"{case}-{number - 1}-")
                check = [f"{case}-check"] if number == 0 else []
                bench.put_files(size, shared + check)
                together([bench.store.curl(key, "-o", "/dev/null") for key in shared])
                bench.settle()
            if number == 0:
                _check_download(bench, contender, f"{case}-check", source)
            bench.turn(f"down{suffix}", contender, million,
                       lambda c=contender, keys=shared: together([c.download_command(key, "/dev/null") for key in keys]))
            for row, announce in (("up", True), ("up_spooled", False)):
                if not announce and (contender.name != "gateway" or count > 1):
                    continue  # to everybody else it makes no difference
                own = [f"{case}-{contender.name.replace(' ', '-')}-{row}-{number}-{index}" for index in range(count)]
                bench.turn(f"{row}{suffix}", contender, million,
                           lambda c=contender, keys=own, a=announce: together([c.upload_command(k, source, a) for k in keys]),
                           _all_stored(connection, own, size))
                bench.store.remove_all(own[0].rpartition("-")[0])
    bench.store.remove_all(f"{case}-")


def large(bench):
    """One large file, one stream."""
    _streams(bench, "large", bench.options.size, 1)


def sessions(bench):
    """Four files at once."""
    _streams(bench, "sessions", bench.options.session_size, 4)


def _small(bench, case, count, files):
    """Small files through kept sessions: all up, again without their sizes, all down, all deleted."""
    content = os.urandom(SMALL)
    with bench.direct() as connection:
        for number, contender in bench.turns(case):
            prefix = f"{case}-{contender.name.replace(' ', '-')}-{number}-"
            def names(kind, prefix=prefix):
                return Each([f"{prefix}{kind}-{index}-{name}" for name in range(files)] for index in range(count))
            def stored(kind, prefix=prefix):
                def look():
                    sizes = connection.sizes(f"{prefix}{kind}-")
                    return len(sizes) == count * files and set(sizes.values()) == {SMALL}
                return look
            total = count * files
            with Sessions(contender, count) as group:
                if contender.name == "gateway":
                    bench.turn(f"{case}_up_spooled", contender, total,
                               lambda: group.run(load.upload, names("b"), content, False), stored("b"))
                bench.turn(f"{case}_up", contender, total, lambda: group.run(load.upload, names("a"), content, True), stored("a"))
                bench.turn(f"{case}_down", contender, total, lambda: group.run(load.download, names("a"), content))
                bench.turn(f"{case}_delete", contender, total, lambda: group.run(load.delete, names("a")),
                           lambda prefix=prefix: not connection.sizes(f"{prefix}a-"))
            bench.store.remove_all(prefix)


def small(bench):
    """10 KiB files, one session."""
    _small(bench, "small", 1, bench.options.files)


def small8(bench):
    """10 KiB files, 8 sessions in as many processes."""
    _small(bench, "small8", 8, max(1, bench.options.files // 4))


def size(bench):
    """SIZE of existing files; the store alone answers HEAD."""
    names, content = [f"size-{index}" for index in range(100)], os.urandom(SMALL)
    with Sessions(bench.contenders[0], 1) as direct:
        direct.run(load.upload, names, content, True)
    asked = (names * (bench.options.files // len(names) + 1))[:bench.options.files]
    for _, contender in bench.turns("size"):
        with Sessions(contender, 1) as group:
            bench.turn("size", contender, len(asked), lambda g=group: g.run(load.size, asked, SMALL))
    bench.store.remove_all("size-")


def listing(bench):
    """One folder of many names (MLSD, or LIST where a server has no MLSD); the store alone: the pages of its list."""
    count = bench.options.names
    names = Each([f"list/{index:06}" for index in range(start, count, 8)] for start in range(8))
    bench.say(f"list: making {count} objects")
    with Sessions(bench.contenders[0], 8) as direct:
        direct.run(load.upload, names, b"", True)
    for _, contender in bench.turns("list"):
        with Sessions(contender, 1) as group:
            done = bench.turn("list", contender, 1, lambda c=contender, g=group: g.run(load.listing, c.lists_with, "list", count))
            bench.add("list_first", contender, Sample(done.results[0], done.results[0]))
    bench.store.remove_all("list/")


def memory(bench):
    """Peak memory of a new server with one transfer, and with five at once."""
    file_size = bench.options.session_size
    source, keys = bench.file(file_size), [f"memory-{index}" for index in range(MEMORY_TRANSFERS)]
    bench.put_files(file_size, keys)
    for number in range(bench.options.rounds):
        for what, command in (("down", lambda server, key: server.download_command(key, "/dev/null")),
                              ("up", lambda server, key: server.upload_command(f"{key}-up", source, True))):
            peaks = []
            for some in (keys[:1], keys):
                bench.say(f"memory: round {number + 1} of {bench.options.rounds}, {what}, {len(some)} at once")
                with gateway(bench.work, bench.store, bench.options) as server:
                    together([command(server, key) for key in some])
                    peaks.append(resident_kib(server.pids[0], "VmHWM") / 1024)
            bench.add(f"memory_{what}", server, Sample(peaks[0], 0))
            bench.add(f"memory_{what}_more", server, Sample((peaks[1] - peaks[0]) / (MEMORY_TRANSFERS - 1), 0))
    bench.store.remove_all("memory-")


def reply(bench):
    """The client's wait between its last byte and the 226 of an announced upload."""
    source = bench.file(bench.options.size)
    for number, contender in bench.turns("reply", lambda contender: contender.name != load.DIRECT):
        with Sessions(contender, 1) as group:
            done = group.run(load.upload_file, f"reply-{number}", source)
        bench.add("last_byte", contender, Sample(done.results[0], 0))
    bench.store.remove_all("reply-")


def disk(bench):
    """The most that an upload takes of the local disk. Apart from the timed cases, because looking costs processor time."""
    source = bench.file(bench.options.size)
    for row, announce in (("disk", True), ("disk_spooled", False)):
        for number, contender in bench.turns(row, lambda contender, a=announce: contender.name == "gateway" or
                                             (a and contender.name != load.DIRECT)):
            key = f"{row}-{contender.name}-{number}"
            before = disk_bytes(contender.scratch, contender.pids)
            with bench.direct() as connection, peak_of(lambda c=contender: disk_bytes(c.scratch, c.pids)) as peak:
                together([contender.upload_command(key, source, announce)])
                wait_for(_all_stored(connection, [key], bench.options.size), f"{key} is not in the store", 600)
            bench.add(row, contender, Sample(max(0, peak[0] - before) / bench.options.size, 0))
            bench.store.remove_all(key)


CASES = {"large": large, "parts": parts, "sessions": sessions, "small": small, "small8": small8, "size": size, "list": listing,
         "memory": memory, "reply": reply, "disk": disk}


def derive_costs(bench):
    """Rows that are other views of samples: processor seconds per GiB of the server (of curl, for the store alone)."""
    for row, source in (("down", "down"), ("up", "up"), ("up_spooled", "up_spooled"), ("up_parts", "up_parts"),
                        ("up_parts_4", "up_parts_4")):
        for name, samples in bench.samples.get(source, {}).items():
            gib = bench.options.size / GIB
            for cost, value in ((f"cpu_{row}", lambda s, n=name: s.client if n == load.DIRECT else s.service),
                                (f"store_cpu_{row}", lambda s: s.store)):
                bench.samples.setdefault(cost, {})[name] = [Sample(value(sample) / gib, 0) for sample in samples]
    for row in ("small_up", "small_up_spooled", "small_down", "small_delete", "size"):
        for name, samples in bench.samples.get(row, {}).items():
            bench.samples.setdefault(f"cpu_{row}", {})[name] = [
                Sample((sample.client if name == load.DIRECT else sample.service) / sample.quantity * 1000, 0) for sample in samples]
