#!/usr/bin/env python3
"""Checks the dynamic symbols that a shared library defines: each must match, and there must be some."""

import argparse
import re
import subprocess
import sys

# What the sanitizers add to every object they instrument.
INSTRUMENTATION = re.compile(r"__(asan|odr_asan|tsan|ubsan|sanitizer|start|stop)")


def exported(nm, library):
    """Names of the defined dynamic symbols, without symbol versions."""
    output = subprocess.run([nm, "--dynamic", "--defined-only", "--format=posix", library], capture_output=True,
                            text=True, check=True).stdout
    names = {line.split()[0].split("@")[0] for line in output.splitlines() if line.strip()}
    return sorted(name for name in names if not INSTRUMENTATION.match(name))


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--nm", required=True)
    parser.add_argument("--pattern", required=True, help="regular expression for a whole name")
    parser.add_argument("--count", type=int, help="how many symbols there must be")
    parser.add_argument("library")
    arguments = parser.parse_args()

    names = exported(arguments.nm, arguments.library)
    strangers = [name for name in names if not re.fullmatch(arguments.pattern, name)]
    for name in strangers[:20]:
        print(f"exported, but should not be: {name}")
    if len(strangers) > 20:
        print(f"... and {len(strangers) - 20} more")
    if not names:
        print("nothing is exported")
        return 1
    if arguments.count is not None and len(names) - len(strangers) != arguments.count:
        print(f"{len(names) - len(strangers)} matching symbols instead of {arguments.count}")
        return 1
    return 1 if strangers else 0


if __name__ == "__main__":
    sys.exit(main())
