#!/usr/bin/env python3
"""Proves that a folder can include what it may, and nothing else of the other folders.

For every target of the folder, with the target's own include folders:
 - a source that includes an allowed public header compiles (for at least one of the targets each);
 - a source that includes a header of another folder does not compile, because the header is not found.
A header whose name the folder itself uses is told by what the compiler finds under that name.
"""

import argparse
import concurrent.futures
import os
import pathlib
import re
import subprocess
import sys

FOLDERS = ("common", "s3", "src", "server", "devstore", "client")
NOT_FOUND = "No such file or directory"


def headers_of(root, folder):
    """All headers of a folder, as paths relative to the root."""
    found = []
    for pattern in ("*.h", "*.hpp"):
        found += [path.relative_to(root) for path in (root / folder).rglob(pattern)]
    return sorted(found)


def names_of(header):
    """The ways to include a header: by its path in the folder, and by every tail of it ("src/a.h", "a.h")."""
    parts = header.parts
    return ["/".join(parts[start:]) for start in range(len(parts))]


def compile_include(compiler, includes, name):
    """Compiles one #include. Returns (whether it compiled, the compiler's messages)."""
    command = [compiler, "-std=c++20", "-fsyntax-only", "-x", "c++", "-"]
    for folder in includes:
        command += ["-I", folder]
    # From the root, which is no include folder, and in the C locale, whose messages are known.
    done = subprocess.run(command, input=f'#include "{name}"\n', capture_output=True, text=True, cwd="/",
                          env={**os.environ, "LC_ALL": "C"}, check=False)
    return done.returncode == 0, done.stderr


def found_names(compiler, includes, names):
    """Which of the names the compiler finds, and where: {name: path}."""
    lines = []
    for name in names:
        lines.append(f'#if __has_include("{name}")\n@found {name}\n#endif\n')
    command = [compiler, "-std=c++20", "-E", "-P", "-x", "c++", "-"]
    for folder in includes:
        command += ["-I", folder]
    output = subprocess.run(command, input="".join(lines), capture_output=True, text=True, cwd="/",
                            check=True).stdout
    found = {}
    for name in re.findall(r"^@\s*found (.+)$", output, re.MULTILINE):
        # The compiler prints names token by token; blanks do not matter to a path of ours.
        name = name.replace(" ", "")
        for folder in includes:
            path = pathlib.Path(folder) / name
            if path.is_file():
                found[name] = path.resolve()
                break
    return found


def check_target(root, compiler, folder, includes, allowed):
    """The faults of one target."""
    faults = []
    foreign = [header for other in FOLDERS if other != folder for header in headers_of(root, other)]
    forbidden = [header for header in foreign if str(header) not in allowed]
    forbidden_paths = {(root / header).resolve(): header for header in forbidden}
    all_names = sorted({name for header in forbidden for name in names_of(header)})
    for name, path in found_names(compiler, includes, all_names).items():
        if path in forbidden_paths:
            faults.append(f'#include "{name}" finds {forbidden_paths[path]}')

    # The same for real: one source per public header, and one per folder for its private headers.
    own_names = {header.name for header in headers_of(root, folder)}
    samples = {}
    for header in forbidden:
        if header.name not in own_names:
            samples.setdefault((header.parts[0], "include" in header.parts), header)
    for header in samples.values():
        compiled, messages = compile_include(compiler, includes, header.name)
        if compiled:
            faults.append(f'#include "{header.name}" compiles')
        elif f"{header.name}: {NOT_FOUND}" not in messages:
            faults.append(f'#include "{header.name}" fails for another reason:\n{messages}')
    return faults


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--root", type=pathlib.Path, required=True, help="top folder of the sources")
    parser.add_argument("--compiler", required=True)
    parser.add_argument("--folder", required=True, choices=FOLDERS)
    parser.add_argument("--target", action="append", default=[], metavar="NAME=FOLDER:FOLDER...",
                        help="a target of the folder and its include folders")
    parser.add_argument("--allow", action="append", default=[], metavar="HEADER",
                        help="header of the house that the folder may include, relative to the root")
    arguments = parser.parse_args()
    root = arguments.root.resolve()

    targets = {}
    for target in arguments.target:
        name, _, includes = target.partition("=")
        targets[name] = [folder for folder in includes.split(":") if folder]
    if not targets:
        print(f"{arguments.folder}: no targets to check")
        return 1

    faults = []
    with concurrent.futures.ThreadPoolExecutor(max_workers=2) as pool:
        checks = {name: pool.submit(check_target, root, arguments.compiler, arguments.folder, includes,
                                    arguments.allow) for name, includes in targets.items()}
        for name, check in checks.items():
            faults += [f"{name}: {fault}" for fault in check.result()]
    for header in arguments.allow:
        base = pathlib.PurePath(header).name
        results = [compile_include(arguments.compiler, includes, base) for includes in targets.values()]
        if not any(compiled for compiled, _ in results):
            faults.append(f"{arguments.folder}: cannot include {base}, which it may:\n{results[0][1]}")

    for fault in faults:
        print(fault)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
