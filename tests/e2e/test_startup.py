"""Starting: what is wrong is said in one line with exit status 1."""

import re
import socket
import subprocess

import pytest

from gateway import module_options, write_private


class NoStore:
    """Stands in for a store where the server never gets as far as asking it."""

    host = "127.0.0.1:9"
    endpoint = "http://127.0.0.1:9"
    users = {"admin": [["ACCESS", "SECRET"]]}


@pytest.fixture
def files(tmp_path, binaries):
    """Configuration that would work. Returns a function that changes it, runs the server and gives the finished process."""
    write_private(tmp_path / "users", "alice:$6$rounds=1000$abcdefgh$" + "." * 86 + "\n")
    write_private(tmp_path / "ceph.conf", module_options(NoStore))
    config = tmp_path / "server.toml"

    def text():
        return (f'[server]\nlisten = ["127.0.0.1:0"]\n[backend]\nname = "ceph"\nmodule_dir = "{binaries.module_dir}"\n'
                f'options = "{tmp_path}/ceph.conf"\n[users]\nfile = "{tmp_path}/users"\n'
                f'[spool]\ndirectory = "{tmp_path}"\n')

    def run(*arguments, change=lambda text: text):
        write_private(config, change(text()))
        return subprocess.run([str(binaries.server), "--config", str(config), *arguments], stdin=subprocess.DEVNULL,
                              capture_output=True, text=True, timeout=60, check=False)

    run.folder, run.config = tmp_path, config
    return run


def refused(done, *words, lines=1):
    """The server must have ended with status 1 and at most so many lines on standard error, which name all the words."""
    assert done.returncode == 1, (done.returncode, done.stderr)
    shown = done.stderr.strip().splitlines()
    assert 1 <= len(shown) <= lines, done.stderr
    for word in words:
        assert str(word) in done.stderr, f"{word!r} is not in {done.stderr!r}"


def test_check_accepts_a_good_configuration(files):
    done = files("--check")
    assert done.returncode == 0, done.stderr


@pytest.mark.parametrize("added, words", [
    ("[server2]\n", ["server2"]),
    ("[timeouts]\nlogn = 5\n", ["logn"]),
    ("[timeouts]\nlogin = true\n", ["login"]),
    ("[timeouts]\nlogin = -5\n", ["login"]),
    ("[log]\nlevel = \"loud\"\n", ["level"]),
    ("[log]\nlevel = 3\n", ["level"]),
    ("[[collection]]\nhosts = [\"a\"]\n", ["name"]),
    ("not toml at all\n", []),
], ids=lambda value: value.strip().replace("\n", " ") if isinstance(value, str) else "")
def test_mistakes_are_named_with_file_and_line(files, added, words):
    done = files(change=lambda text: text + added)
    refused(done, files.config, *words)
    assert re.search(rf"{re.escape(str(files.config))}:\d+", done.stderr), done.stderr


def test_wrong_type_of_a_known_key(files):
    refused(files(change=lambda text: text.replace('["127.0.0.1:0"]', "2811")), f"{files.config}:2", "listen")


def test_address_that_is_none(files):
    refused(files(change=lambda text: text.replace("127.0.0.1:0", "localhost")), f"{files.config}:2", "listen", "localhost")


def test_missing_configuration(binaries, tmp_path):
    missing = tmp_path / "none.toml"
    done = subprocess.run([str(binaries.server), "--config", str(missing)], capture_output=True, text=True, timeout=60,
                          check=False)
    refused(done, missing)


def test_missing_users_file(files):
    (files.folder / "users").unlink()
    refused(files(), files.folder / "users")


def test_users_file_that_others_can_read(files):
    (files.folder / "users").chmod(0o644)
    refused(files(), files.folder / "users")


def test_users_file_with_a_password_instead_of_a_hash(files):
    (files.folder / "users").write_text("alice:secret\n")
    done = files()
    refused(done, files.folder / "users")
    assert "secret" not in done.stderr


def test_missing_module(files):
    done = files(change=lambda text: text.replace('name = "ceph"', 'name = "nosuch"'))
    refused(done, "libzorvan_gridftp_server_nosuch.so")


def test_file_that_is_no_module(files):
    (files.folder / "libzorvan_gridftp_server_ceph.so").write_text("not a shared object")
    done = files(change=lambda text: re.sub('module_dir = ".*"', f'module_dir = "{files.folder}"', text))
    refused(done, "libzorvan_gridftp_server_ceph.so")


def test_missing_option_file(files):
    (files.folder / "ceph.conf").unlink()
    refused(files(), f"Error loading config file {files.folder}/ceph.conf", lines=3)


def test_option_that_the_module_does_not_know(files):
    write_private(files.folder / "ceph.conf", module_options(NoStore, part_sise=5))
    refused(files(), f'Error parsing {files.folder}/ceph.conf:6: unknown option "part_sise"', lines=3)


def test_module_that_fails_to_activate(files):
    missing = files.folder / "none.types"
    write_private(files.folder / "ceph.conf", module_options(NoStore, mime_types_path=missing))
    refused(files(), f"There was an error parsing the mime.types file {missing}.", lines=3)


def test_port_in_use(files):
    with socket.socket() as taken:
        taken.bind(("127.0.0.1", 0))
        taken.listen(1)
        port = taken.getsockname()[1]
        refused(files(change=lambda text: text.replace("127.0.0.1:0", f"127.0.0.1:{port}")), str(port), lines=3)


@pytest.mark.parametrize("option, shown", [("--help", "--config"), ("--version", ".")])
def test_information(binaries, option, shown):
    done = subprocess.run([str(binaries.server), option], capture_output=True, text=True, timeout=60, check=False)
    assert done.returncode == 0 and shown in done.stdout


def test_unknown_option(binaries):
    done = subprocess.run([str(binaries.server), "--config", "none", "--no-such-option"], capture_output=True, text=True, timeout=60, check=False)
    assert done.returncode != 0 and "no-such-option" in done.stderr


def test_module_exports_one_symbol(binaries):
    """Whatever else it exported could collide with the server's own."""
    shown = subprocess.run(["nm", "-D", "--defined-only", str(binaries.module)], capture_output=True, text=True, check=True)
    symbols = [line.split()[-1] for line in shown.stdout.splitlines() if " A " not in line]
    assert [symbol.partition("@")[0] for symbol in symbols] == ["zorvan_gridftp_server_ceph_module"]
