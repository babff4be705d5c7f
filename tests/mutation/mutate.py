#!/usr/bin/env python3
"""How many small mistakes in the back end do its tests notice?

Makes one small change at a time to a source of src/, builds the module tests and runs them. A change that some
test notices is caught; one that none does has survived, and is either without effect or a rule without a test.
With --sanitize, what survives is built once more with the address and undefined-behaviour sanitizers, as every
run of the tests in test.sh is: memory that is lost or used too late is noticed there.
Run by hand, for minutes or hours; nothing of it runs in CI.

    tests/mutation/mutate.py --count 100            # the first 100 changes of seed 1
    tests/mutation/mutate.py --only 'recv.*'        # only in sources that match
    tests/mutation/mutate.py --again FILE           # the survivors of an earlier report once more

It works on a copy of the checkout (--scratch) with a build folder of its own, which a later run takes up again.
The choice depends on the seed and the sources alone: a larger count goes on where a smaller one ended. A change
that does not compile does not count.
"""

import argparse
import collections
import dataclasses
import json
import os
import pathlib
import random
import re
import resource
import shutil
import signal
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]

# The suites that know a source best run first: most changes are caught there.
LIKELY = {
    "bucket_allowed": "BucketAllowed*:KeyPairs*:Policy*:BucketContext*",
    "bucket_context": "BucketContext*:ProbeHandlers*",
    "buffer_release": "BufferPool*:Send*:Recv*",
    "checksum": "ChecksumCommand*:KeylessCommand*",
    "checksum_cache": "Checksum*:EtagMd5*:RecvMultipart.*:Send*",
    "command": "Command*:Steps*:Mkdir*:Delete*",
    "config_parse": "ConfigParse*:Policy*:ModuleBase*",
    "delete": "Delete*:Steps*:Command*",
    "md5_pair": "Md5Pair*:RecvMultipart.*",
    "md5sum_encode": "Md5Encode*:Checksum*",
    "mime_types": "Mime*:RecvSingle*",
    "mkdir": "Mkdir*:Steps*",
    "module_base": "ModuleBase*:Mapping*:Retry*:ProbeHandlers*",
    "receive_queue": "ReceiveQueue*:RecvSingle*:RecvMultipart*",
    "recv": "RecvDispatch*:RecvSingle*",
    "recv_multipart": "RecvMultipart*",
    "recv_multipart_list_parts": "RecvMultipartResume*:RecvMultipart*",
    "recv_multipart_resolve_id": "RecvMultipart*",
    "recv_single": "RecvSingle*:RecvDispatch*",
    "region_table": "BucketContext*:StartCeph*",
    "rename": "Rename*:Steps*",
    "rmdir": "Rmdir*:Steps*",
    "s3_trace": "DebugLog*:RecvSingle*",
    "send": "Send*",
    "stage": "Stage*:Steps*",
    "start_ceph": "StartCeph*:Policy*",
    "stat": "Stat*:Values*:All*",
    "stat_list_buckets": "ListBuckets*:Stat*",
    "stat_objects": "StatObjects*:Stat*:Values*",
    "upload_properties": "RecvSingle*:RecvMultipart.*",
    "buffer_queue": "ReceiveQueue*:Send*:Recv*",
    "s3_request": "Retry*:Mapping*",
}

TOKEN = re.compile(
    r"""(?P<comment>//[^\n]*|/\*.*?\*/)
      | (?P<directive>^[ \t]*\#(?:[^\n\\]|\\.|\\\n)*)
      | (?P<string>"(?:[^"\\\n]|\\.)*")
      | (?P<char>'(?:[^'\\\n]|\\.)*')
      | (?P<number>\b(?:0[xX][0-9a-fA-F']+|[0-9][0-9']*)[uUlL]*\b)
      | (?P<word>[A-Za-z_]\w*)
      | (?P<op>->\*?|\+\+|--|<<=|>>=|<=>|&&|\|\||==|!=|<=|>=|::|[-+*/%&|^]=|.)
    """,
    re.X | re.M | re.S,
)
LEVELS = {
    "ZORVAN_S3_TRACE": "ZORVAN_S3_DEBUG", "ZORVAN_S3_DEBUG": "ZORVAN_S3_INFO", "ZORVAN_S3_INFO": "ZORVAN_S3_DEBUG",
    "ZORVAN_S3_WARN": "ZORVAN_S3_ERROR", "ZORVAN_S3_ERROR": "ZORVAN_S3_WARN",
}  # fmt: skip
COMPARISONS = {"==": "!=", "!=": "==", "<": "<=", "<=": "<", ">": ">=", ">=": ">"}
NOT_A_STATEMENT = {
    "case", "class", "const", "constexpr", "default", "do", "else", "enum", "extern", "for", "goto", "if", "namespace",
    "private", "protected", "public", "return", "static", "static_assert", "struct", "switch", "template", "throw",
    "try", "typedef", "union", "using", "virtual", "while", "explicit", "auto", "catch", "inline",
}  # fmt: skip


@dataclasses.dataclass(frozen=True)
class Token:
    kind: str
    text: str
    start: int
    end: int


@dataclasses.dataclass(frozen=True)
class Mutant:
    source: str  # relative to the checkout
    kind: str
    start: int
    end: int
    new: str
    line: int
    what: str


def tokens_of(text):
    found = []
    for match in TOKEN.finditer(text):
        if match.lastgroup in ("comment", "directive") or match.group().isspace():
            continue
        found.append(Token(match.lastgroup, match.group(), match.start(), match.end()))
    return found


def closing(tokens, opening):
    """Index of the bracket that closes the one at that index."""
    depth = 0
    for index in range(opening, len(tokens)):
        if tokens[index].text in "([{":
            depth += 1
        elif tokens[index].text in ")]}":
            depth -= 1
            if depth == 0:
                return index
    return len(tokens) - 1


def function_bodies(tokens):
    """For every token whether it stands inside a function's body, and the bracket that it stands in."""
    inside, around, stack = [], [], [("", False)]
    for index, token in enumerate(tokens):
        bracket, in_body = stack[-1]
        inside.append(in_body)
        around.append(bracket)
        if token.text in "([{":
            begins = index > 0 and tokens[index - 1].text in (")", "noexcept", "const", "override", "try")
            stack.append((token.text, in_body or (token.text == "{" and begins)))
        elif token.text in ")]}" and len(stack) > 1:
            stack.pop()
    return inside, around


def statements_of(tokens, inside, around):
    """Whole expression statements and locks, as pairs of token indices."""
    statements = []
    index = 0
    while index < len(tokens):
        token = tokens[index]
        previous = tokens[index - 1].text if index else ""
        begins = inside[index] and around[index] == "{" and (previous in (";", "{", "}", ")", "else"))
        if not begins or token.kind == "string" or token.text in ("{", "}", ";", ")"):
            index += 1
            continue
        end, depth = index, 0
        while end < len(tokens):
            text = tokens[end].text
            if text in "([{":
                depth += 1
            elif text in ")]}":
                depth -= 1
                if depth < 0:
                    break
            elif text == ";" and depth == 0:
                break
            end += 1
        whole = end < len(tokens) and tokens[end].text == ";"
        words = tokens[index:end]
        lock = any(word.text in ("lock_guard", "unique_lock") for word in words)
        plain = token.text not in NOT_A_STATEMENT and (token.kind == "word" or token.text in ("*", "++", "--"))
        declares = (
            len(words) > 1 and token.kind == "word" and words[1].kind == "word"
            or re.match(r"^\w[\w:<> ]* [*&]+ (const )?\w+ ?(=|\{|\(|\[|$)", " ".join(w.text for w in words))
            or re.match(r"^\w+( :: \w+)+( <.*>)? \w+ ?(=|\{|\(|\[|$)", " ".join(w.text for w in words))
        )  # fmt: skip
        # The body of a lambda inside it has statements of its own: no jump to the end.
        if whole and (lock or (plain and not declares)):
            statements.append((index, end))
        index += 1
    return statements


def may_depend(one, two):
    """Whether the order of two statements can matter. It does not of two plain assignments of different things, of two
    that are freed, and of a line of the log and a plain assignment of what it does not tell."""
    targets = [re.sub(r"^std::free\(|\);?$", "", re.split(r"[^=!<>+-]=[^=]", statement)[0]).strip("*&;+- ")
               for statement in (one, two)]  # fmt: skip
    if one == two or targets[0] in two or targets[1] in one:
        return one != two
    calls = [statement for statement in (one, two) if "(" in statement]
    jumps = any(target in ("break", "continue") for target in targets)
    frees = all(statement.startswith("std::free(") for statement in (one, two))
    logs = len(calls) == 1 and calls[0].startswith("ZORVAN_S3_LOG(")
    return jumps or bool(calls) and not (frees or logs)


def mutants_of(source, text):
    tokens = tokens_of(text)
    inside, around = function_bodies(tokens)
    found = []

    def add(kind, start, end, new, what):
        line = text.count("\n", 0, start) + 1
        found.append(Mutant(source, kind, start, end, new, line, what))

    def spaced(token):
        return text[token.start - 1] in " \n" and text[token.end : token.end + 1] in (" ", "\n")

    for index, token in enumerate(tokens):
        following = tokens[index + 1].text if index + 1 < len(tokens) else ""
        if token.kind == "op" and token.text in COMPARISONS and spaced(token):
            new = COMPARISONS[token.text]
            add("comparison", token.start, token.end, new, f"{token.text} -> {new}")
        elif token.text in ("&&", "||") and spaced(token):
            new = "||" if token.text == "&&" else "&&"
            add("logic", token.start, token.end, new, f"{token.text} -> {new}")
        elif token.text == "!" and following not in ("=", ""):
            add("negation", token.start, token.end, "", "! removed")
        elif token.text in ("true", "false"):
            new = "false" if token.text == "true" else "true"
            add("negation", token.start, token.end, new, f"{token.text} -> {new}")
        elif token.text in ("if", "while") and following == "(" and inside[index]:
            end = closing(tokens, index + 1)
            inner = text[tokens[index + 1].end : tokens[end].start]
            if ";" not in inner and not re.search(r"[^=!<>]=[^=]", inner) and not inner.startswith("!"):
                add("negation", tokens[index + 1].end, tokens[end].start, f"!({inner})", f"{token.text} (!(...))")
        elif token.kind == "number" and inside[index] or (
            token.kind == "number" and index and tokens[index - 1].text in ("=", "*")
        ):
            for sign in ("+", "-"):
                add("constant", token.start, token.end, f"({token.text} {sign} 1)", f"{token.text} {sign} 1")
        elif token.text in LEVELS:
            add("level", token.start, token.end, LEVELS[token.text], f"{token.text} -> {LEVELS[token.text]}")
        elif token.kind == "string" and (index == 0 or tokens[index - 1].text != "extern"):
            add("text", token.end - 1, token.end, '~"', f"{token.text[:50]} gets a ~")
    statements = statements_of(tokens, inside, around)
    for first, last in statements:
        whole = text[tokens[first].start : tokens[last].end]
        # Braces, because it may be all that an if has.
        add("removal", tokens[first].start, tokens[last].end, "{}", f"removed: {' '.join(whole.split())[:80]}")
    starts = {first: last for first, last in statements}
    for first, last in statements:
        after = last + 1
        if after in starts and not re.match(r"(const )?std::(lock_guard|unique_lock)", text[tokens[after].start :]):
            one = text[tokens[first].start : tokens[last].end]
            two = text[tokens[after].start : tokens[starts[after]].end]
            if tokens[first - 1].text not in (")", "else") and may_depend(one, two):
                gap = text[tokens[last].end : tokens[after].start]
                add("swap", tokens[first].start, tokens[starts[after]].end, two + gap + one,
                    f"swapped: {' '.join(one.split())[:40]} / {' '.join(two.split())[:40]}")  # fmt: skip
    return found


def in_turn(groups):
    """The first of each group, then the second of each, ..."""
    groups = [list(group) for group in groups]
    while groups:
        for group in groups:
            yield group.pop(0)
        groups = [group for group in groups if group]


def choose(by_source, seed):
    """All changes in one order: every source has its share of any beginning of it, and so has every kind."""
    keyed = []
    for source in sorted(by_source):
        shuffler = random.Random(f"{seed} {source}")
        kinds = collections.defaultdict(list)
        for mutant in by_source[source]:
            kinds[mutant.kind].append(mutant)
        for group in kinds.values():
            shuffler.shuffle(group)
        names = sorted(kinds)
        shuffler.shuffle(names)
        ordered = list(in_turn(kinds[name] for name in names))
        keyed += [((place + 0.5) / len(ordered), source, mutant) for place, mutant in enumerate(ordered)]
    return [mutant for _, _, mutant in sorted(keyed, key=lambda entry: entry[:2])]


class Build:
    """A build folder for the copy, and the test program in it."""

    def __init__(self, tree, folder, temporary, cores):
        self.tree = tree
        self.folder = folder
        self.temporary = temporary
        self.cores = cores
        self.limit = 0.0
        self.program = folder / "bin" / "module_tests"

    # Without optimisation and warnings a source is compiled fastest.
    options = ("-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_FLAGS_DEBUG=-O0", "-DCMAKE_CXX_FLAGS=-w")
    environment = {}
    address_space = 1 << 33

    def configure(self):
        command = ["cmake", "-S", self.tree, "-B", self.folder, "-G", "Ninja", "-DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=lld"]
        subprocess.run([*command, *self.options], check=True, stdout=subprocess.DEVNULL)

    def make(self):
        command = ["ninja", "-C", self.folder, f"-j{self.cores}", "bin/module_tests"]
        return subprocess.run(command, capture_output=True, text=True, errors="replace")

    def object_of(self, source):
        return self.folder / "src/CMakeFiles/zorvan_ceph_objects.dir" / (pathlib.Path(source).name + ".o")

    def keep_object(self, source):
        """Put the object aside. @return what puts it back: then the next build compiles one source, not two."""
        compiled = self.object_of(source)
        kept = self.folder / (compiled.name + ".kept")
        if not compiled.is_file():
            return lambda: None
        shutil.copy2(compiled, kept)
        return lambda: shutil.copy2(kept, compiled)

    def passes(self, selection, limit):
        """Whether the selected tests pass. What they leave in memory, files and processes goes with them."""
        shutil.rmtree(self.temporary, ignore_errors=True)
        self.temporary.mkdir(parents=True)

        def bounds():
            resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
            resource.setrlimit(resource.RLIMIT_FSIZE, (1 << 28, 1 << 28))
            resource.setrlimit(resource.RLIMIT_AS, (self.address_space, self.address_space))

        command = [self.program, f"--gtest_filter={selection}", "--gtest_fail_fast", "--gtest_brief=1"]
        process = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                   env={**os.environ, **self.environment, "TMPDIR": str(self.temporary)},
                                   preexec_fn=bounds, start_new_session=True)  # fmt: skip
        try:
            return process.wait(limit) == 0
        except subprocess.TimeoutExpired:
            return False
        finally:
            try:
                os.killpg(process.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
            process.wait()

    def prepare(self, limit):
        """Build and run the unchanged tests. @param limit  seconds for a later run; 0 = in proportion to this one"""
        self.configure()
        made = self.make()
        if made.returncode != 0:
            sys.exit("The unchanged tests do not build:\n" + made.stdout[-4000:])
        began = time.monotonic()
        if not self.passes("*", 600):
            sys.exit(f"The unchanged tests do not pass in {self.folder}.")
        took = time.monotonic() - began
        self.limit = limit or max(20.0, 4 * took)
        print(f"unchanged: {took:.1f} s; a run has {self.limit:.0f} s", flush=True)

    def notices(self, source):
        """Whether some test fails, the likely ones first."""
        likely = LIKELY.get(pathlib.Path(source).stem)
        selections = [likely, "*-" + likely] if likely else ["*"]
        return not all(self.passes(selection, self.limit) for selection in selections)


class SanitizedBuild(Build):
    """As the preset asan, whose unit tests are part of test.sh."""

    options = ("-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_FLAGS_DEBUG=", "-DCMAKE_CXX_FLAGS=-O1 -w",
               "-DCMAKE_C_FLAGS=-O1", "-DZORVAN_SANITIZE=address,undefined")  # fmt: skip
    environment = {
        "ASAN_OPTIONS": "detect_leaks=1:strict_string_checks=1:detect_stack_use_after_return=1",
        "UBSAN_OPTIONS": "halt_on_error=1:print_stacktrace=1",
    }
    # The sanitizer reserves its shadow in terabytes.
    address_space = resource.RLIM_INFINITY


class Scratch:
    """The copy and its builds."""

    def __init__(self, folder, cores, limit, sanitize):
        self.tree = folder / "tree"
        self.limit = limit
        self.plain = Build(self.tree, folder / "build", folder / "tmp", cores)
        self.sanitized = SanitizedBuild(self.tree, folder / "sanitized", folder / "tmp", cores) if sanitize else None

    def copy_checkout(self):
        listing = ["git", "-C", ROOT, "ls-files", "-z", "--cached", "--others", "--exclude-standard"]
        names = subprocess.run(listing, check=True, capture_output=True, text=True).stdout
        wanted = set()
        for name in filter(None, names.split("\0")):
            if not (ROOT / name).is_file():
                continue
            wanted.add(name)
            content, target = (ROOT / name).read_bytes(), self.tree / name
            if not target.is_file() or target.read_bytes() != content:
                target.parent.mkdir(parents=True, exist_ok=True)
                target.write_bytes(content)
        for path in [path for path in self.tree.rglob("*") if path.is_file()]:
            if str(path.relative_to(self.tree)) not in wanted:
                path.unlink()

    def prepare(self):
        self.plain.prepare(self.limit)
        if self.sanitized:
            self.sanitized.prepare(self.limit)

    def judge(self, mutant):
        """One change, made, built, tested and taken back: "caught", "sanitizer" (caught by one alone), "survived" or
        "no build"."""
        path = self.tree / mutant.source
        original, stamp = path.read_text(), path.stat()
        put_back = []
        path.write_text(original[: mutant.start] + mutant.new + original[mutant.end :])
        try:
            for build, outcome in ((self.plain, "caught"), (self.sanitized, "sanitizer")):
                if not build:
                    continue
                put_back.append(build.keep_object(mutant.source))
                if build.make().returncode != 0:
                    return "no build"
                if build.notices(mutant.source):
                    return outcome
            return "survived"
        finally:
            path.write_text(original)
            os.utime(path, ns=(stamp.st_atime_ns, stamp.st_mtime_ns))
            for action in put_back:
                action()


def percent(part, whole):
    return f"{100 * part / whole:5.1f} %" if whole else "      -"


def print_table(title, outcomes, key):
    rows = collections.defaultdict(collections.Counter)
    for mutant, outcome in outcomes:
        rows[key(mutant)][outcome] += 1
        rows["all"][outcome] += 1
    print(f"\n{title:<32}{'caught':>8}{'sanitizer':>11}{'survived':>10}{'no build':>10}{'caught':>10}")
    for name in sorted(rows, key=lambda name: (name == "all", name)):
        row = rows[name]
        caught = row["caught"] + row["sanitizer"]
        print(f"{name:<32}{row['caught']:>8}{row['sanitizer']:>11}{row['survived']:>10}{row['no build']:>10}"
              f"{percent(caught, caught + row['survived']):>10}")  # fmt: skip


def survivors_of(report, mutants):
    """The changes that survived then: at the same place, or, where the source has moved on, the nearest of the same
    words."""
    found = []
    for entry in report:
        if entry["outcome"] != "survived":
            continue
        words = (entry["source"], entry["kind"], entry["what"])
        same = [each for each in mutants if (each.source, each.kind, each.what) == words]
        if same:
            found.append(min(same, key=lambda each: (each.start != entry["start"], abs(each.line - entry["line"]))))
    return list(dict.fromkeys(found))


def sources_below(folder, headers):
    suffixes = {".cpp", ".h"} if headers else {".cpp"}
    return sorted(path for path in folder.iterdir() if path.suffix in suffixes)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--count", type=int, default=50, help="how many changes (50)")
    parser.add_argument("--skip", type=int, default=0, help="leave out the first ones")
    parser.add_argument("--seed", type=int, default=1, help="another seed is another choice (1)")
    parser.add_argument("--only", default="", help="regular expression for the names of sources, without suffix")
    parser.add_argument("--kind", default="", help="regular expression for the kinds of changes")
    parser.add_argument("--headers", action="store_true", help="headers of src/ too; each rebuilds much")
    parser.add_argument("--again", type=pathlib.Path, help="the survivors of this report instead of a choice")
    parser.add_argument("--sanitize", action="store_true", help="judge survivors with the address sanitizer too")
    parser.add_argument("--scratch", type=pathlib.Path, default=pathlib.Path("/tmp/zorvan-mutation"))
    parser.add_argument("--report", type=pathlib.Path, help="write the outcomes here (SCRATCH/report.json)")
    parser.add_argument("--time-limit", type=float, default=0, help="seconds for a run of the tests (4 times the usual)")
    parser.add_argument("--stop-after", type=float, default=0, help="begin no change after so many minutes")
    parser.add_argument("--cores", type=int, default=1, help="for the builds (1)")
    parser.add_argument("--list", action="store_true", help="show the choice and do nothing")
    arguments = parser.parse_args()

    # Of the copy, whose places stay as they are while the checkout is edited.
    scratch = Scratch(arguments.scratch, arguments.cores, arguments.time_limit, arguments.sanitize)
    if not arguments.list:
        scratch.copy_checkout()
    root = ROOT if arguments.list else scratch.tree
    by_source = {}
    for path in sources_below(root / "src", arguments.headers):
        if arguments.only and not re.fullmatch(arguments.only, path.stem):
            continue
        name = str(path.relative_to(root))
        by_source[name] = [
            mutant for mutant in mutants_of(name, path.read_text())
            if not arguments.kind or re.fullmatch(arguments.kind, mutant.kind)
        ]  # fmt: skip
    by_source = {source: mutants for source, mutants in by_source.items() if mutants}
    chosen = choose(by_source, arguments.seed)
    print(f"{len(chosen)} changes in {len(by_source)} sources")
    if arguments.again:
        chosen = survivors_of(json.loads(arguments.again.read_text()), chosen)
    else:
        chosen = chosen[arguments.skip : arguments.skip + arguments.count]
    if arguments.list:
        for mutant in chosen:
            print(f"{mutant.source}:{mutant.line}: {mutant.kind}: {mutant.what}")
        return

    scratch.prepare()
    report = arguments.report or arguments.scratch / "report.json"
    began, outcomes = time.monotonic(), []
    for number, mutant in enumerate(chosen, 1):
        if arguments.stop_after and time.monotonic() - began > 60 * arguments.stop_after:
            print(f"time is up after {number - 1} changes")
            break
        outcome = scratch.judge(mutant)
        outcomes.append((mutant, outcome))
        print(f"{number:4}/{len(chosen)} {outcome:<9} {mutant.source}:{mutant.line}: {mutant.kind}: {mutant.what}",
              flush=True)  # fmt: skip
        report.write_text(json.dumps(
            [{**dataclasses.asdict(each), "outcome": result} for each, result in outcomes], indent=1))  # fmt: skip
    print_table("kind of change", outcomes, lambda mutant: mutant.kind)
    print_table("source", outcomes, lambda mutant: mutant.source)
    survivors = [mutant for mutant, outcome in outcomes if outcome == "survived"]
    if survivors:
        print("\nsurvived:")
    for mutant in survivors:
        print(f"{mutant.source}:{mutant.line}: {mutant.kind}: {mutant.what}")


if __name__ == "__main__":
    main()
