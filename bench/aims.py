"""The rows of the table and what is aimed at: the one place where these numbers stand."""

from dataclasses import dataclass

RATE, TIME, COST = "rate", "time", "cost"


@dataclass(frozen=True)
class Row:
    """A line of the table.

    A RATE is compared with the store alone as "so many times as fast", a TIME as "so many times as long"; the aims of these
    are such ratios, at least and at most. A COST stands for itself, and its aims are the most that it may be."""

    key: str
    title: str
    unit: str
    kind: str
    first_aim: float | None = None
    goal: float | None = None


def _small(key, sessions, first_aims, goals):
    titles = {"up": "up", "up_spooled": "up, size not announced", "down": "down", "delete": "delete"}
    return [Row(f"{key}_{what}", f"10 KiB files, {sessions}: {titles[what]}", "/s", RATE, first, goal)
            for what, first, goal in zip(titles, first_aims, goals)]


ROWS = [
    Row("down", "download of one file, one stream", "MB/s", RATE, 0.8, 0.95),
    Row("up", "upload of one file, one stream, announced", "MB/s", RATE, 0.8, 0.95),
    Row("up_spooled", "the same, size not announced", "MB/s", RATE),
    Row("up_parts", "upload of one file in parts, one stream, announced", "MB/s", RATE, 0.8, 0.95),
    Row("up_parts_1", "the same by zorvan-copy", "MB/s", RATE),
    Row("up_parts_4", "the same by zorvan-copy, extended mode, 4 streams", "MB/s", RATE),
    Row("down_4", "4 sessions at once, down", "MB/s", RATE, 0.8, 0.95),
    Row("up_4", "4 sessions at once, up", "MB/s", RATE, 0.8, 0.95),
    *_small("small", "one session", (0.6, None, 0.5, 0.9), (0.8, None, 0.7, 0.95)),
    *_small("small8", "8 sessions", (0.6, None, 0.6, 0.8), (0.85, None, 0.85, 0.85)),
    Row("size", "SIZE, one session", "/s", RATE, 0.7, 0.9),
    Row("list", "listing of many names, all of it", "s", TIME, 2.0, 1.2),
    Row("list_first", "the same, until the first byte", "s", TIME),
    Row("cpu_down", "processor seconds per GiB, download", "s", COST, 1.0, 0.7),
    Row("cpu_up", "processor seconds per GiB, upload announced", "s", COST, 1.3, 0.9),
    Row("cpu_up_spooled", "processor seconds per GiB, not announced", "s", COST),
    Row("cpu_up_parts", "processor seconds per GiB, upload in parts", "s", COST),
    Row("cpu_up_parts_4", "processor seconds per GiB, in parts, 4 streams", "s", COST),
    Row("md5_apart", "two MD5 sums of a GiB alone, one after the other", "s", COST),
    Row("md5_both", "the same side by side, as the server takes them", "s", COST),
    Row("store_cpu_down", "the store's own, download", "s", COST),
    Row("store_cpu_up", "the store's own, upload", "s", COST),
    Row("store_cpu_up_parts", "the store's own, upload in parts", "s", COST),
    Row("store_cpu_up_parts_4", "the store's own, in parts, 4 streams", "s", COST),
    *(Row(f"cpu_{key}", f"processor milliseconds of one 10 KiB file: {what}", "ms", COST) for key, what in (
        ("small_up", "up"), ("small_up_spooled", "up, not announced"), ("small_down", "down"), ("small_delete", "delete"),
        ("size", "SIZE"))),
    Row("memory_down", "peak memory, one download", "MiB", COST),
    Row("memory_down_more", "more for each further download", "MiB", COST),
    Row("memory_up", "peak memory, one upload", "MiB", COST),
    Row("memory_up_more", "more for each further upload", "MiB", COST),
    Row("memory_parts", "peak memory, upload in parts of the large file", "MiB", COST),
    Row("memory_parts_short", "the same, a file of a session's size", "MiB", COST),
    Row("memory_parts_large", "the same, the large file in parts four times as long", "MiB", COST),
    Row("last_byte", "last byte until 226", "s", COST),
    Row("disk", "local disk per GiB, upload announced", "GiB", COST, 0.0, 0.0),
    Row("disk_spooled", "local disk per GiB, not announced", "GiB", COST),
    Row("unstored", "uploads answered with 226 before they were stored", "%", COST, 0.0, 0.0),
]
BY_KEY = {row.key: row for row in ROWS}
