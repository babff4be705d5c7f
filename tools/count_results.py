#!/usr/bin/python3
"""Add up JUnit XML files of ctest and pytest.

    count_results.py FILE...

Prints "PASSED FAILED SKIPPED" for all files together, then one line for each test that failed: "FILE: TEST". A file that is
missing, unreadable or without a single test counts as one failure: a suite that did not run is not a suite that passed.
"""

import sys
import xml.etree.ElementTree as ElementTree
from pathlib import Path


def count(path):
    """(passed, failed, skipped, names of the failed ones) of one file."""
    try:
        cases = list(ElementTree.parse(path).getroot().iter("testcase"))
    except (OSError, ElementTree.ParseError) as error:
        return 0, 1, 0, [f"no results: {error}"]
    if not cases:
        return 0, 1, 0, ["no test ran"]
    passed = skipped = 0
    failed = []
    for case in cases:
        note = case.find("skipped")
        # ctest reports a test whose program is missing as skipped; only a test that said so itself was.
        broken = note is not None and case.get("status") == "notrun" and "SKIP" not in note.get("message", "")
        if broken or case.find("failure") is not None or case.find("error") is not None:
            failed.append(".".join(dict.fromkeys(filter(None, (case.get("classname"), case.get("name"))))))
        elif note is not None or case.get("status") == "disabled":
            skipped += 1
        else:
            passed += 1
    return passed, len(failed), skipped, failed


def main():
    totals = [0, 0, 0]
    names = []
    for argument in sys.argv[1:]:
        *numbers, failed = count(argument)
        totals = [total + number for total, number in zip(totals, numbers)]
        names += [f"{Path(argument).stem}: {name}" for name in failed]
    print(*totals)
    print("\n".join(names))


if __name__ == "__main__":
    main()
