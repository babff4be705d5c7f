#!/usr/bin/env python3
"""Checks the rules of the house that a command can check, over the tracked text files.

 - no tabs (but where the file's format wants them), no blanks at line ends, no carriage returns, a final newline, except
   in what parsers are fed with;
 - no source longer than 900 lines;
 - a source of the product opens with a comment that says what it is for;
 - no include of another folder's private header, by whatever path, and none that climbs out with "..".

Usage: check_texts.py [ROOT]. Exit status: 0 clean, 1 faults (each is printed), 77 when ROOT is no git work tree.
"""

import fnmatch
import pathlib
import re
import subprocess
import sys

LONGEST_SOURCE = 900
PRODUCT = ("common", "s3", "server", "src", "devstore", "client")
# Whose private headers the tests may look at.
TESTED = {"common": {"common"}, "s3": {"s3"}, "module": {"src"}, "server": {"server"}, "devstore": {"devstore"}, "client": {"client"},
          "fuzz": set(PRODUCT)}
# The wire formats: private headers of the server that the client shares; and what is measured apart.
SHARED = {f"server/src/{name}.h": {"client"} for name in ("block_codec", "range_list", "text")} | {"src/md5_pair.h": {"bench"}}
SOURCE_SUFFIXES = (".c", ".cpp", ".h", ".hpp", ".py", ".sh")
C_SUFFIXES = (".c", ".cpp", ".h", ".hpp")
# Formats in which a tab has a meaning.
TABS_WANTED = ("Makefile", "*/Makefile", "*.mk", "debian/rules", "*/debian/rules", "*.tsv", ".gitmodules")
# Input for parsers: faults are what many of these files are for.
INPUTS = "tests/fuzz/corpus/*"
INCLUDE = re.compile(r'^\s*#\s*include\s*(["<])([^">]+)[">]')


def tracked_files(root):
    """Tracked files that exist, relative to the root; None when it is no work tree."""
    done = subprocess.run(["git", "-C", str(root), "ls-files", "-z"], capture_output=True, check=False)
    if done.returncode != 0:
        return None
    names = done.stdout.decode("utf-8", "surrogateescape").split("\0")
    return sorted(pathlib.PurePosixPath(name) for name in names if name and (root / name).is_file())


def text_of(path):
    """The text of a file, or None when it is not UTF-8 text."""
    data = path.read_bytes()
    if b"\0" in data:
        return None
    try:
        return data.decode("utf-8")
    except UnicodeDecodeError:
        return None


def check_blanks(name, text):
    if fnmatch.fnmatch(str(name), INPUTS):
        return
    tabs_allowed = any(fnmatch.fnmatch(str(name), pattern) for pattern in TABS_WANTED)
    for number, line in enumerate(text.split("\n"), start=1):
        if "\t" in line and not tabs_allowed:
            yield number, "tab"
        if line.endswith("\r"):
            yield number, "carriage return"
        elif line != line.rstrip():
            yield number, "blanks at the end of the line"
    if text and not text.endswith("\n"):
        yield text.count("\n") + 1, "no newline at the end of the file"


def check_length(name, text):
    lines = text.count("\n")
    if name.suffix in SOURCE_SUFFIXES and lines > LONGEST_SOURCE:
        yield lines, f"{lines} lines, the longest source may have {LONGEST_SOURCE}"


def check_opening(name, text):
    if name.suffix in C_SUFFIXES and name.parts[0] in PRODUCT and not text.startswith(("/*", "//")):
        yield 1, "does not open with a comment that says what it is for"


def folder_of(name):
    """The folder of the house that a tracked file belongs to, if any."""
    return name.parts[0] if name.parts[0] in PRODUCT else None


def is_public(header):
    return len(header.parts) > 2 and header.parts[1] == "include"


def resolve(base, included):
    """`included` seen from the folder `base`, with "." and ".." worked out; None when it leaves the tree."""
    parts = list(base.parts)
    for part in included.split("/"):
        if part == "..":
            if not parts:
                return None
            parts.pop()
        elif part not in ("", "."):
            parts.append(part)
    return pathlib.PurePosixPath(*parts)


def candidates(name, included, headers):
    """Tracked headers that an include of this text may mean."""
    if ".." in included.split("/"):
        target = resolve(name.parent, included)
        return [target] if target in headers else []
    wanted = "/" + included.lstrip("./")
    return [header for header in headers if f"/{header}".endswith(wanted)]


def check_includes(name, text, headers):
    if name.suffix not in C_SUFFIXES:
        return
    mine = folder_of(name)
    visible = {mine or name.parts[0]}
    if name.parts[0] == "tests" and len(name.parts) > 2:
        visible = TESTED.get(name.parts[1], set())
    for number, line in enumerate(text.split("\n"), start=1):
        match = INCLUDE.match(line)
        if not match:
            continue
        included = match.group(2)
        if mine and ".." in included.split("/"):
            yield number, f'"{included}" climbs out of its folder'
        targets = candidates(name, included, headers)
        # One name may exist in several folders. It is a fault when no reading of it is allowed.
        foreign = [target for target in targets
                   if folder_of(target) and folder_of(target) not in visible and not is_public(target)
                   and not SHARED.get(str(target), set()) & visible]
        if targets and len(foreign) == len(targets):
            yield number, f'"{included}" is a private header of {folder_of(foreign[0])}/'


def check_tree(root):
    """Prints the faults of a work tree. Returns the exit status."""
    names = tracked_files(root)
    if names is None:
        print(f"{root} is not a git work tree")
        return 77
    headers = {name for name in names if name.suffix in (".h", ".hpp")}
    faults = 0
    for name in names:
        text = text_of(root / name)
        if text is None:
            continue
        checks = [check_blanks(name, text), check_length(name, text), check_opening(name, text),
                  check_includes(name, text, headers)]
        for check in checks:
            for number, fault in check:
                print(f"{name}:{number}: {fault}")
                faults += 1
    print(f"{len(names)} files, {faults} faults")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(check_tree(pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else ".").resolve()))
