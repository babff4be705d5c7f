#!/usr/bin/env python3
"""Proves that the checks of this folder fail when they should, on small trees with one fault each."""

import argparse
import pathlib
import subprocess
import sys
import tempfile
import unittest

HERE = pathlib.Path(__file__).resolve().parent
TOOLS = argparse.Namespace()


def run(script, *arguments):
    """Runs a check of this folder. Returns (exit status, what it printed)."""
    done = subprocess.run([sys.executable, str(HERE / script), *map(str, arguments)], stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, check=False)
    return done.returncode, done.stdout


class Tree(unittest.TestCase):
    """A temporary tree of files."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="zorvan-layers-")
        self.addCleanup(folder.cleanup)
        self.root = pathlib.Path(folder.name).resolve()

    def write(self, name, text):
        path = self.root / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(text.encode() if isinstance(text, str) else text)
        return path


class Texts(Tree):
    """check_texts.py"""

    def setUp(self):
        super().setUp()
        subprocess.run([TOOLS.git, "init", "--quiet", str(self.root)], check=True)
        self.write("common/include/public.h", "// public\n")
        self.write("common/src/private.h", "// private\n")
        self.write("server/src/host.h", "// host\n")
        self.write("server/src/text.h", "// the server's text\n")
        self.write("s3/src/text.h", "// the client's text\n")

    def check(self):
        subprocess.run([TOOLS.git, "-C", str(self.root), "add", "--all"], check=True)
        return run("check_texts.py", self.root)

    def assert_fault(self, place, what):
        status, output = self.check()
        self.assertEqual(status, 1, output)
        self.assertIn(f"{place}: {what}", output)
        self.assertIn(", 1 faults", output)

    def assert_clean(self):
        status, output = self.check()
        self.assertEqual(status, 0, output)

    def test_clean_tree(self):
        self.write("server/src/a.cpp", '// a\n#include <public.h>\n#include "text.h"\n#include <vector>\n')
        self.write("tests/server/a.cpp", '#include "host.h"\n')
        self.write("packaging/debian/rules", "all:\n\ttrue\n")
        self.write("picture.png", b"\x89PNG\0\t \n")
        self.assert_clean()

    def test_tab(self):
        self.write("notes.md", "a\n\tb\n")
        self.assert_fault("notes.md:2", "tab")

    def test_trailing_blanks(self):
        self.write("notes.md", "a \n")
        self.assert_fault("notes.md:1", "blanks at the end of the line")

    def test_carriage_return(self):
        self.write("notes.md", "a\r\n")
        self.assert_fault("notes.md:1", "carriage return")

    def test_missing_newline(self):
        self.write("notes.md", "a\nb")
        self.assert_fault("notes.md:2", "no newline at the end of the file")

    def test_inputs_for_parsers(self):
        self.write("tests/fuzz/corpus/line/tab", "a\t \r")
        self.assert_clean()

    def test_longest_source(self):
        self.write("server/src/a.cpp", "// a\n" * 900)
        self.assert_clean()

    def test_source_too_long(self):
        self.write("server/src/a.cpp", "// a\n" * 901)
        self.assert_fault("server/src/a.cpp:901", "901 lines")

    def test_opening_comment(self):
        self.write("server/src/a.cpp", "#include <vector>\n")
        self.assert_fault("server/src/a.cpp:1", "does not open with a comment")

    def test_private_header_by_name(self):
        self.write("server/src/a.cpp", '// a\n#include "private.h"\n')
        self.assert_fault("server/src/a.cpp:2", '"private.h" is a private header of common/')

    def test_private_header_by_path(self):
        self.write("src/a.cpp", '// a\n#  include <server/src/host.h>\n')
        self.assert_fault("src/a.cpp:2", '"server/src/host.h" is a private header of server/')

    def test_private_header_of_another_test_suite(self):
        self.write("tests/s3/a.cpp", '#include "host.h"\n')
        self.assert_fault("tests/s3/a.cpp:1", '"host.h" is a private header of server/')

    def test_private_header_in_a_test_by_climbing(self):
        self.write("tests/s3/a.cpp", '#include "../../server/src/host.h"\n')
        self.assert_fault("tests/s3/a.cpp:1", '"../../server/src/host.h" is a private header of server/')

    def test_climbing_out(self):
        self.write("common/src/a.cpp", '// a\n#include "../include/public.h"\n')
        self.assert_fault("common/src/a.cpp:2", '"../include/public.h" climbs out')

    def test_untracked_files_are_left_alone(self):
        self.check()
        self.write("scratch.md", "a \n")
        status, output = run("check_texts.py", self.root)
        self.assertEqual(status, 0, output)

    def test_no_work_tree(self):
        with tempfile.TemporaryDirectory(prefix="zorvan-layers-") as folder:
            self.assertEqual(run("check_texts.py", folder)[0], 77)


class Layers(Tree):
    """check_layer.py"""

    def setUp(self):
        super().setUp()
        self.write("common/include/public.h", "")
        self.write("common/src/private.h", "")
        self.write("server/include/server.h", "#include <public.h>\n")
        self.write("server/src/host.h", "")
        self.write("s3/include/client.h", "")
        self.write("server/src/text.h", "")
        self.write("s3/src/text.h", "")

    def check(self, *includes, allow=("common/include/public.h", "server/include/server.h")):
        folders = ":".join(str(self.root / include) for include in includes)
        options = [option for header in allow for option in ("--allow", header)]
        return run("check_layer.py", "--root", self.root, "--compiler", TOOLS.compiler, "--folder", "server",
                   "--target", f"server={folders}", *options)

    def test_the_right_folders(self):
        status, output = self.check("common/include", "server/include", "server/src")
        self.assertEqual(status, 0, output)

    def test_an_allowed_header_that_is_not_found(self):
        status, output = self.check("server/include", "server/src")
        self.assertEqual(status, 1)
        self.assertIn("cannot include public.h, which it may", output)

    def test_a_forbidden_public_header(self):
        status, output = self.check("common/include", "server/include", "server/src", "s3/include")
        self.assertEqual(status, 1)
        self.assertIn('server: #include "client.h" finds s3/include/client.h', output)
        self.assertIn('server: #include "client.h" compiles', output)

    def test_a_forbidden_private_header(self):
        status, output = self.check("common/include", "server/include", "server/src", "common/src")
        self.assertEqual(status, 1)
        self.assertIn('#include "private.h" finds common/src/private.h', output)

    def test_a_header_of_the_same_name_elsewhere(self):
        status, output = self.check("common/include", "server/include", "s3/src", "server/src")
        self.assertEqual(status, 1)
        self.assertIn('#include "text.h" finds s3/src/text.h', output)

    def test_the_whole_tree_as_include_folder(self):
        status, output = self.check("common/include", "server/include", "server/src", "")
        self.assertEqual(status, 1)
        self.assertIn('#include "s3/include/client.h" finds s3/include/client.h', output)

    def test_no_targets(self):
        self.assertEqual(run("check_layer.py", "--root", self.root, "--compiler", TOOLS.compiler, "--folder",
                             "server")[0], 1)


class Exports(Tree):
    """check_exports.py"""

    def check(self, source, *options):
        path = self.write("library.c", source)
        library = self.root / "library.so"
        subprocess.run([TOOLS.compiler, "-x", "c", "-shared", "-fPIC", "-nostdlib", "-o", str(library), str(path)],
                       check=True)
        return run("check_exports.py", "--nm", TOOLS.nm, *options, library)

    def test_matching_symbols(self):
        status, output = self.check("int zorvan_a; int zorvan_b;", "--pattern", "zorvan_.*")
        self.assertEqual(status, 0, output)

    def test_a_stranger(self):
        status, output = self.check("int zorvan_a; int my_zorvan_b;", "--pattern", "zorvan_.*")
        self.assertEqual(status, 1)
        self.assertIn("exported, but should not be: my_zorvan_b", output)

    def test_the_wrong_number(self):
        options = ("--pattern", "zorvan_.*", "--count", "1")
        self.assertEqual(self.check("int zorvan_a;", *options)[0], 0)
        self.assertEqual(self.check("int zorvan_a; int zorvan_b;", *options)[0], 1)

    def test_nothing_exported(self):
        status, output = self.check("static int hidden __attribute__((used));", "--pattern", "zorvan_.*")
        self.assertEqual(status, 1)
        self.assertIn("nothing is exported", output)


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__)
    for tool in ("compiler", "nm", "git"):
        parser.add_argument(f"--{tool}", required=True)
    TOOLS, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], *rest])
