"""The command-line client zorvan-copy against the real server: round trips, folders, restart after a death, checksums, refusals."""

import filecmp
import hashlib
import os
import re
import signal
import subprocess
from pathlib import Path

import pytest

from gateway import Gateway, shared_server
from multipart import PART, parts_of
from stores import keys, random_bytes
from waiting import wait_for

LARGE = 20 << 20
LONG = 192 << 20  # lasts long enough to be killed in


class EagerGateway(Gateway):
    """Tells every second how far it is, and listens on the same port when it is started again."""

    def _configuration(self, *arguments):
        text = super()._configuration(*arguments)
        assert text.count("[server]\n") == 1
        return text.replace("[server]\n", "[server]\nupdate_interval = 1\n")

    def start(self, binaries):
        super().start(binaries)
        self.config.write_text(self.config.read_text().replace('"127.0.0.1:0"', f'"127.0.0.1:{self.port}"'))


@pytest.fixture
def eager(store, binaries, tmp_path_factory):
    gateway = EagerGateway(binaries, store, tmp_path_factory.mktemp("eager"), extra_options={"part_size": PART})
    yield gateway
    if gateway.process.poll() is None:
        gateway.process.send_signal(signal.SIGCONT)
        gateway.wait_idle()
        gateway.stop()


@pytest.fixture(scope="module")
def server(store, binaries):
    with shared_server(binaries, store, extra_options={"part_size": PART}, spool_limit="64MiB") as gateway:
        yield gateway


@pytest.fixture
def copy(binaries, tmp_path):
    """Starts the client in tmp_path against a server. `remote(path)` in its arguments is the address of a path there."""
    program = binaries.server.parent / "zorvan-copy"
    started = []

    class Copy:
        @staticmethod
        def start(gateway, *arguments, password=None, **settings):
            environment = {**os.environ, "ZORVAN_COPY_PASSWORD": password or gateway.passwords["alice"]}
            started.append(subprocess.Popen([program, *map(str, arguments)], cwd=tmp_path, env=environment,
                                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, stdin=subprocess.PIPE, **settings))
            return started[-1]

        @staticmethod
        def run(gateway, *arguments, status=0, password=None, input=b"", **settings):
            """Its standard output and its messages."""
            process = Copy.start(gateway, *arguments, password=password, **settings)
            output, messages = process.communicate(input, timeout=150)
            text = messages.decode()
            assert process.returncode == status, text
            assert (password or gateway.passwords["alice"]) not in text
            return output, text

    yield Copy
    for process in started:
        if process.poll() is None:
            process.kill()
        process.communicate()


def remote(gateway, path, user="alice"):
    return f"ftp://{user}@{gateway.host}:{gateway.port}/{path}"


def kill(process):
    """SIGKILL, in the middle of what it does."""
    assert process.poll() is None, process.communicate()
    process.kill()
    process.wait()


# -- round trips ----------------------------------------------------------------------------------------------------------
@pytest.mark.parametrize("streams", [1, 4, 16])
@pytest.mark.parametrize("size", [0, 1, LARGE])
def test_round_trip(server, copy, bucket, stored, tmp_path, size, streams):
    content = random_bytes(size)
    (tmp_path / "file").write_bytes(content)
    copy.run(server, "--parallel", streams, "file", remote(server, f"{bucket}/a%20b"))
    assert stored(bucket, "a b") == content
    copy.run(server, "--parallel", streams, remote(server, f"{bucket}/a%20b"), "back")
    assert (tmp_path / "back").read_bytes() == content
    assert sorted(os.listdir(tmp_path)) == ["back", "file"]


@pytest.mark.parametrize("streams", [1, 4])
def test_folder_round_trip(server, copy, bucket, s3, tmp_path, streams):
    for name, content in {"one": b"1", "empty": b"", "dir/two": b"22", "dir/deep/er/\u00e4 #%": random_bytes(100000)}.items():
        path = tmp_path / "tree" / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content)
    (tmp_path / "tree" / "nothing").mkdir()
    copy.run(server, "--recursive", "--parallel", streams, "tree", remote(server, f"{bucket}/"))
    assert keys(s3, bucket) == ["tree/dir/deep/er/\u00e4 #%", "tree/dir/two", "tree/empty", "tree/nothing/", "tree/one"]
    copy.run(server, "--recursive", "--parallel", streams, remote(server, f"{bucket}/tree"), "back")
    subprocess.run(["diff", "-r", "tree", "back"], cwd=tmp_path, check=True)
    assert (tmp_path / "back" / "nothing").is_dir()
    # Into a folder that is there.
    (tmp_path / "into").mkdir()
    copy.run(server, "--recursive", remote(server, f"{bucket}/tree"), "into")
    assert not filecmp.dircmp(tmp_path / "tree", tmp_path / "into" / "tree").left_only


def test_several_files_and_streams(server, copy, bucket, stored, tmp_path):
    (tmp_path / "a").write_bytes(b"1")
    (tmp_path / "b").write_bytes(b"2")
    copy.run(server, "a", "b", remote(server, f"{bucket}/d/"))
    assert (stored(bucket, "d/a"), stored(bucket, "d/b")) == (b"1", b"2")
    content = random_bytes(LARGE)
    copy.run(server, "-", remote(server, f"{bucket}/stream"), input=content)
    assert stored(bucket, "stream") == content
    assert copy.run(server, remote(server, f"{bucket}/stream"), "-")[0] == content


def test_active(server, copy, bucket, stored, tmp_path):
    content = random_bytes(LARGE)
    (tmp_path / "file").write_bytes(content)
    copy.run(server, "--active", "file", remote(server, f"{bucket}/file"))
    assert stored(bucket, "file") == content
    copy.run(server, "--active", remote(server, f"{bucket}/file"), "back")
    assert (tmp_path / "back").read_bytes() == content


# -- what one sees --------------------------------------------------------------------------------------------------------
def test_progress_and_verification(server, copy, bucket, tmp_path):
    (tmp_path / "bigfile").write_bytes(random_bytes(LARGE))
    _, text = copy.run(server, "--parallel", 4, "--progress", "bigfile", remote(server, f"{bucket}/x"))
    assert re.search(r"^bigfile .*100% +20\.0 MiB +[\d.]+ [KMG]iB/s +\d+:\d\d$", text, re.MULTILINE), text
    _, text = copy.run(server, "--parallel", 4, "--verbose", "bigfile", remote(server, f"{bucket}/x"))
    assert "> PASS ****\n" in text and "> MODE E\n" in text and "verified" in text
    assert copy.run(server, "--quiet", "bigfile", remote(server, f"{bucket}/x")) == (b"", "")


def restart_file(direction, url, path, size, stamp, ranges):
    return (f"zorvan-copy restart file, version 1\ndirection {direction}\nremote {url}\nlocal {path}\nsize {size}\n"
            f"stamp {stamp}\nranges {ranges}\nend\n")


@pytest.mark.parametrize("streams", [1, 4])
def test_checksums_differ_after_a_download(server, copy, ftp, bucket, s3, tmp_path, streams):
    """What an earlier run has left was spoiled since."""
    content = random_bytes(LARGE)
    s3.put_object(Bucket=bucket, Key="file", Body=content)
    (tmp_path / "back").write_bytes(b"old")
    (tmp_path / "back.part").write_bytes(random_bytes(PART))
    stamp = ftp.expect(213, f"MDTM /{bucket}/file").last
    url = f"ftp://{server.host}:{server.port}/{bucket}/file"
    (tmp_path / "back.restart").write_text(restart_file("download", url, tmp_path / "back", LARGE, stamp, f"0-{PART}"))
    options = ["--parallel", streams, "--checksum", "md5", "--resume", remote(server, f"{bucket}/file"), "back"]
    _, text = copy.run(server, *options, status=100)
    assert "are here already" in text and "zorvan-copy: (100) " in text and hashlib.md5(content).hexdigest() in text
    assert (tmp_path / "back").read_bytes() == b"old"
    assert os.listdir(tmp_path) == ["back"]
    copy.run(server, *options)
    assert (tmp_path / "back").read_bytes() == content


@pytest.mark.devstore_only(reason="it lies about ETags")
@pytest.mark.parametrize("streams", [1, 4])
def test_checksums_differ_in_the_store(server, copy, store, bucket, stored, tmp_path, streams):
    (tmp_path / "file").write_bytes(random_bytes(LARGE))
    store.add_fault({"method": "PUT", "path": "/file$"}, {"etag": "wrong"})
    try:
        _, text = copy.run(server, "--parallel", streams, "file", remote(server, f"{bucket}/file"), status=100)
    finally:
        store.clear_faults()
    assert "INCORRECT_CHECKSUM" in text
    assert stored(bucket, "file") is None


# -- refusals -------------------------------------------------------------------------------------------------------------
@pytest.mark.parametrize("streams", [1, 4])
def test_missing_sources(server, copy, bucket, s3, tmp_path, streams):
    _, text = copy.run(server, "--parallel", streams, remote(server, f"{bucket}/none"), "back", status=78)
    assert text.startswith("zorvan-copy: (78) ")
    _, text = copy.run(server, "--parallel", streams, "none", remote(server, f"{bucket}/x"), status=26)
    assert text.startswith("zorvan-copy: (26) ")
    assert os.listdir(tmp_path) == [] and keys(s3, bucket) == []


def test_wrong_password(server, copy, bucket, tmp_path):
    (tmp_path / "file").write_bytes(b"1")
    _, text = copy.run(server, "file", remote(server, f"{bucket}/x"), password="not the password", status=67)
    assert text.startswith("zorvan-copy: (67) ")
    assert "530" in text


@pytest.mark.parametrize("streams", [1, 4])
def test_refused_buckets(server, copy, new_bucket, s3, tmp_path, streams):
    (tmp_path / "file").write_bytes(b"1")
    theirs = new_bucket("bob")
    copy.run(server, "--parallel", streams, "file", remote(server, f"{theirs}/x"), status=9)
    copy.run(server, "--parallel", streams, remote(server, f"{theirs}/x"), "back", status=9)
    copy.run(server, "--parallel", streams, "file", remote(server, "no-such-bucket/x"), status=78)
    assert os.listdir(tmp_path) == ["file"]


def test_folder_without_recursive(server, copy, bucket, s3, tmp_path):
    (tmp_path / "tree").mkdir()
    copy.run(server, "tree", remote(server, f"{bucket}/"), status=26)
    s3.put_object(Bucket=bucket, Key="tree/x", Body=b"1")
    copy.run(server, remote(server, f"{bucket}/tree"), "back", status=78)
    assert not (tmp_path / "back").exists() and not (tmp_path / "back.part").exists()


def test_nobody_listens(server, copy, tmp_path):
    (tmp_path / "file").write_bytes(b"1")
    _, text = copy.run(server, "--retry", 2, "--retry-pause", 0, "file", "ftp://alice@127.0.0.1:9/x", status=7)
    assert "2 tries left" in text and "1 tries left" in text


# -- broken off -----------------------------------------------------------------------------------------------------------
def sent_first(text):
    """Where the client said that it goes on."""
    return int(re.search(r"going on at byte (\d+)", text).group(1))


def unread(gateway):
    """How many bytes of its replies the client has not read."""
    fields = [line.split() for line in Path("/proc/net/tcp").read_text().splitlines()[1:]]
    return sum(int(each[4].partition(":")[2], 16) for each in fields if each[2].endswith(f":{gateway.port:04X}"))


def begin_upload(copy, gateway, s3, bucket, tmp_path, *options):
    """Uploads "file" over four connections. Its client, once that has noted a stored part; the server is stopped then (SIGSTOP),
    so that the upload is in its middle however long the test takes. Begins anew where it was over first."""
    for _ in range(20):
        client = copy.start(gateway, "--parallel", 4, *options, "file", remote(gateway, f"{bucket}/file"))
        wait_for(lambda: parts_of(s3, bucket) or client.poll() is not None, "a part is stored")
        while client.poll() is None:
            gateway.process.send_signal(signal.SIGSTOP)
            client.send_signal(signal.SIGCONT)
            wait_for(lambda: client.poll() is not None or not unread(gateway), "the client has read what it was told")
            if parts_of(s3, bucket) and (tmp_path / "file.restart").exists():
                return client
            # One of them runs at a time: it is told something more, and can send no more than is under way.
            client.send_signal(signal.SIGSTOP)
            gateway.process.send_signal(signal.SIGCONT)
            wait_for(lambda: client.poll() is not None or unread(gateway), "the server tells how far it is")
        gateway.process.send_signal(signal.SIGCONT)
        assert client.returncode == 0, client.communicate()
        s3.delete_object(Bucket=bucket, Key="file")
    raise AssertionError("the upload was always over first")


@pytest.mark.slow
@pytest.mark.parametrize("end", [signal.SIGKILL, signal.SIGINT], ids=["killed", "interrupted"])
def test_upload_goes_on_after_the_clients_end(eager, copy, bucket, s3, stored, tmp_path, end):
    content = random_bytes(LONG)
    (tmp_path / "file").write_bytes(content)
    first = begin_upload(copy, eager, s3, bucket, tmp_path)
    first.send_signal(end)
    eager.process.send_signal(signal.SIGCONT)
    _, messages = first.communicate(timeout=60)
    assert first.returncode == (130 if end == signal.SIGINT else -signal.SIGKILL), messages
    assert stored(bucket, "file") is None
    eager.wait_idle()
    _, text = copy.run(eager, "--parallel", 4, "--resume", "--verbose", "file", remote(eager, f"{bucket}/file"))
    assert sent_first(text) >= PART and sent_first(text) % PART == 0
    assert "beginning anew" not in text and "verified" in text
    assert stored(bucket, "file") == content
    assert os.listdir(tmp_path) == ["file"]


@pytest.mark.slow
@pytest.mark.parametrize("streams", [1, 4])
def test_download_goes_on_after_the_clients_death(server, copy, bucket, s3, tmp_path, streams):
    content = random_bytes(LONG)
    s3.put_object(Bucket=bucket, Key="file", Body=content)
    options = ["--parallel", streams, "--checksum", "md5", "--resume", remote(server, f"{bucket}/file"), "back"]
    begun, broken_off = tmp_path / "back.restart", False
    while not broken_off:  # but over first
        for path in tmp_path.iterdir():
            path.unlink()
        first = copy.start(server, *options)
        wait_for(lambda process=first: begun.exists() or process.poll() is not None, "something has come")
        first.kill()
        first.communicate()
        broken_off = first.returncode != 0 and begun.exists() and f"ranges 0-{LONG}\n" not in begun.read_text()
    assert sorted(os.listdir(tmp_path)) == ["back.part", "back.restart"]
    server.wait_idle()
    _, text = copy.run(server, "--verbose", *options)
    assert re.search(r"^zorvan-copy: going on, .* are here already$", text, re.MULTILINE), text
    assert re.search(r"^> REST ", text, re.MULTILINE) and "verified" in text
    assert (tmp_path / "back").read_bytes() == content
    assert os.listdir(tmp_path) == ["back"]


@pytest.mark.slow
def test_upload_goes_on_after_the_servers_death(eager, copy, binaries, bucket, s3, stored, tmp_path):
    content = random_bytes(LONG)
    (tmp_path / "file").write_bytes(content)
    first = begin_upload(copy, eager, s3, bucket, tmp_path, "--verbose", "--retry", 100, "--retry-pause", 1)
    kill(eager.process)
    eager.start(binaries)
    _, messages = first.communicate(timeout=150)
    text = messages.decode()
    assert first.returncode == 0, text
    assert sent_first(text) >= PART and "beginning anew" not in text and "verified" in text
    assert stored(bucket, "file") == content
    assert os.listdir(tmp_path) == ["file"]


@pytest.mark.slow
def test_download_goes_on_after_the_servers_death(eager, copy, binaries, bucket, s3, tmp_path):
    content = random_bytes(LONG)
    s3.put_object(Bucket=bucket, Key="file", Body=content)
    status = 0
    while status == 0:  # over first
        (tmp_path / "back").unlink(missing_ok=True)
        first = copy.start(eager, "--parallel", 4, remote(eager, f"{bucket}/file"), "back")
        wait_for(lambda process=first: (tmp_path / "back.restart").exists() or process.poll() is not None, "something has come")
        kill(eager.process)
        status = first.wait(60)
        eager.start(binaries)
    assert status in (7, 18, 55, 56), first.communicate()
    assert not (tmp_path / "back").exists()
    _, text = copy.run(eager, "--parallel", 4, "--resume", remote(eager, f"{bucket}/file"), "back")
    assert "are here already" in text
    assert (tmp_path / "back").read_bytes() == content
    assert os.listdir(tmp_path) == ["back"]


def test_resume_of_what_nobody_remembers(server, copy, bucket, s3, stored, tmp_path):
    """A restart file whose upload is gone from the store: it begins anew, and says so."""
    content = random_bytes(LARGE)
    file = tmp_path / "file"
    file.write_bytes(content)
    status = file.stat()
    stamp = f"{status.st_mtime_ns // 10**9}.{status.st_mtime_ns % 10**9}"
    url = f"ftp://{server.host}:{server.port}/{bucket}/file"
    (tmp_path / "file.restart").write_text(restart_file("upload", url, file, LARGE, stamp, f"0-{2 * PART}"))
    _, text = copy.run(server, "--resume", "file", remote(server, f"{bucket}/file"))
    assert sent_first(text) == 2 * PART and "beginning anew" in text
    assert stored(bucket, "file") == content
    assert os.listdir(tmp_path) == ["file"]
