"""The table: medians of one run, and their ratios to the store alone in the same run."""

import os
import platform
import re
import statistics
from pathlib import Path

from aims import COST, RATE, ROWS
from load import DIRECT
from processes import BenchError, run


def value_of(row, samples, seconds="seconds"):
    """The median in the row's unit."""
    if row.kind == RATE:
        return statistics.median(sample.quantity / getattr(sample, seconds) for sample in samples)
    return statistics.median(getattr(sample, seconds) for sample in samples)


def ratio_of(row, samples, alone):
    """To the store alone: as fast for a rate, as long for a time; None where there is nothing to compare with."""
    if row.kind == COST or not alone or not samples:
        return None
    return value_of(row, samples) / value_of(row, alone)


def _number(value, unit):
    if unit in ("MB/s", "/s", "MiB", "%"):
        return f"{value:.0f}" if value >= 10 or value == 0 else f"{value:.1f}"
    return f"{value:.3f}" if value < 1 else f"{value:.2f}"


def _cell(row, samples, lists_with):
    """The value; in brackets what it would be if the reply were believed, where the store had to be waited for."""
    if not samples:
        return "-"
    text = _number(value_of(row, samples), row.unit)
    if row.kind == RATE and any(sample.seconds > sample.replied for sample in samples):
        text += f" (until the reply: {_number(value_of(row, samples, 'replied'), row.unit)})"
    if row.key.startswith("list") and lists_with == "LIST":
        text += " (LIST)"
    return text


def _spread(row, samples):
    """Largest difference from the median, in percent of it."""
    values = [sample.quantity / sample.seconds if row.kind == RATE else sample.seconds for sample in samples]
    middle = statistics.median(values)
    return f"{max(abs(value - middle) for value in values) / middle * 100:.0f} %" if len(values) > 1 and middle else "-"


def _share(samples):
    """The client's part of all the processor time that was spent."""
    if not samples or not (total := sum(sample.client + sample.service + sample.store for sample in samples)):
        return "-"
    return f"{sum(sample.client for sample in samples) / total * 100:.0f} %"


def _aim(row):
    """The first aim and the goal as a text."""
    sign = "≥" if row.kind == RATE else "≤"
    return "-" if row.first_aim is None else f"{sign} {row.first_aim:g} ({sign} {row.goal:g})"


def _met(row, value, ratio):
    """Whether the first aim is met."""
    if row.first_aim is None or (judged := value if row.kind == COST else ratio) is None:
        return "-"
    return "yes" if (judged >= row.first_aim if row.kind == RATE else judged <= row.first_aim) else "NO"


def table(samples, contenders):
    """Lines of a Markdown table. The aims are for the gateway's ratio, or its value where a row has no ratio."""
    gateway, peers = contenders[1], contenders[2:]
    head = ["case", "unit", contenders[0].name, gateway.name, "ratio", "aim (goal)", "met", "spread", "client's share: alone / gateway"]
    for peer in peers:
        head += [peer.name, "ratio"]
    lines = [head, ["---"] * len(head)]
    for row in ROWS:
        if not (found := samples.get(row.key)):
            continue
        through = found.get(gateway.name)
        alone = samples.get(row.key.replace("_spooled", ""), {}).get(DIRECT)  # the store has but one kind of upload
        ratio = ratio_of(row, through, alone)
        line = [row.title, row.unit, _cell(row, alone, ""), _cell(row, through, gateway.lists_with),
                "-" if ratio is None else f"{ratio:.2f}", _aim(row),
                _met(row, value_of(row, through), ratio) if through else "-", _spread(row, through) if through else "-",
                f"{_share(alone)} / {_share(through)}" if row.kind == RATE else "-"]
        for peer in peers:
            theirs = found.get(peer.name)
            ratio = ratio_of(row, theirs, alone)
            line += [_cell(row, theirs, peer.lists_with), "-" if ratio is None else f"{ratio:.2f}"]
        lines.append(line)
    return ["| " + " | ".join(line) + " |" for line in lines]


def circumstances(options, store, contenders, command):
    """Lines that say what was measured, on what, and how to measure it again."""
    processor = re.search(r"model name\s*: (.*)", Path("/proc/cpuinfo").read_text())
    memory = os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES") / (1 << 30)
    try:
        commit = " at " + run("git", "-C", Path(__file__).parent, "describe", "--always", "--dirty", "--abbrev=12").strip()
    except (BenchError, FileNotFoundError):
        commit = ""  # an unpacked archive
    return [f"- `{command}`{commit}, {options.rounds} rounds; load average at the start {options.load_average:.2f}",
            f"- {os.cpu_count()} processors ({processor[1] if processor else platform.machine()}), {memory:.0f} GiB, "
            f"Linux {platform.release()}; client, server and store share them",
            f"- store: {store.title}; large file {options.size >> 20} MiB, sessions of {options.session_size >> 20} MiB, "
            f"{options.files} small files, {options.names} names",
            *(f"- {contender.name}: {contender.title}" for contender in contenders)]
