"""Files of many parts, by programs and by many streams at once: contents and sums are those that went in, and what the server
needs does not grow with them."""

import functools
import hashlib
import os
import re
import subprocess
from dataclasses import dataclass
from pathlib import Path

import pytest

from extended_client import interleaved, retrieve, store as store_blocks
from gateway import shared_server
from multipart import PART, uploads_in
from stores import random_bytes

MIB = 1 << 20


@pytest.fixture(scope="module")
def server(store, binaries):
    with shared_server(binaries, store, extra_options={"part_size": PART}, spool_limit="512MiB") as gateway:
        yield gateway


@dataclass
class Sample:
    file: Path
    content: bytes

    @property
    def small(self):
        """Uploads are the subject: the way back is gone with the smaller file alone."""
        return len(self.content) < 100 * MIB

    @functools.cached_property
    def md5(self):
        return hashlib.md5(self.content).hexdigest()

    @functools.cached_property
    def etag(self):
        sums = [hashlib.md5(self.content[offset:offset + PART]).digest() for offset in range(0, len(self.content), PART)]
        return f'"{hashlib.md5(b"".join(sums)).hexdigest()}-{len(sums)}"'


@pytest.fixture(scope="module", params=[pytest.param(30 * MIB, id="30MiB"),
                                        pytest.param(200 * MIB, id="200MiB", marks=pytest.mark.slow)])
def sample(request, tmp_path_factory):
    """A file and its content; not a multiple of anything."""
    file = tmp_path_factory.mktemp("sample") / "source"
    file.write_bytes(content := random_bytes(request.param + 4321))
    return Sample(file, content)


@pytest.fixture
def arrived(s3, bucket, sample):
    """Looks at what is stored; removes it after the test, because a store in memory keeps all of it there."""

    def check():
        entry = s3.get_object(Bucket=bucket, Key="file")
        body = entry["Body"].read()
        assert hashlib.md5(body).hexdigest() == sample.md5
        assert body == sample.content
        assert entry["ETag"] == sample.etag
        assert uploads_in(s3, bucket) == {}

    yield check
    s3.delete_object(Bucket=bucket, Key="file")


def test_lftp(lftp, bucket, sample, arrived, tmp_path):
    """It announces the size."""
    lftp(f"put {sample.file} -o /{bucket}/file", settings=["set ftp:use-allo yes"])
    arrived()
    if sample.small:
        lftp(f"pget -n 4 /{bucket}/file -o back")
        assert (tmp_path / "back").read_bytes() == sample.content


def test_curl(curl, bucket, sample, arrived, tmp_path):
    """It announces nothing."""
    up = curl(f"/{bucket}/file", "-T", sample.file)
    assert up.returncode == 0, up.stderr
    arrived()
    if sample.small:
        down = curl(f"/{bucket}/file", "-o", tmp_path / "back")
        assert down.returncode == 0, down.stderr
        assert (tmp_path / "back").read_bytes() == sample.content


@pytest.mark.parametrize("streams", [1, 4, 16])
def test_extended_mode(ftp, bucket, sample, arrived, streams):
    ftp.expect(200, "MODE E")
    ftp.expect(200, f"ALLO {len(sample.content)}")
    plans = interleaved(len(sample.content), streams, block=256 << 10)
    end = store_blocks(ftp, f"/{bucket}/file", sample.content, plans, size=256 << 10)
    assert end.code == 226, end.reply.lines
    arrived()
    if sample.small:
        end, blocks = retrieve(ftp, f"/{bucket}/file", streams)
        assert end.code == 226
        assert b"".join(block for _, block in blocks) == sample.content


@pytest.mark.parametrize("streams", [1, 4, 16])
def test_zorvan_copy(binaries, server, bucket, sample, arrived, tmp_path, streams):
    """It compares the sums too."""

    def copy(source, destination):
        command = [binaries.server.parent / "zorvan-copy", "--parallel", str(streams), source, destination]
        environment = {**os.environ, "ZORVAN_COPY_PASSWORD": server.passwords["alice"]}
        done = subprocess.run(command, env=environment, capture_output=True, timeout=150, check=False)
        assert done.returncode == 0, done.stderr

    remote = f"ftp://alice@{server.host}:{server.port}/{bucket}/file"
    copy(sample.file, remote)
    arrived()
    if sample.small:
        copy(remote, tmp_path / "back")
        assert (tmp_path / "back").read_bytes() == sample.content


# -- what it costs --------------------------------------------------------------------------------------------------------
def memory(pid, what):
    """VmHWM (the peak) or VmRSS of a process, in bytes."""
    return int(re.search(rf"{what}:\s+(\d+)", Path(f"/proc/{pid}/status").read_text()).group(1)) << 10


@pytest.mark.slow
@pytest.mark.devstore_only(reason="zeros take no room there")
@pytest.mark.timeout(1200)
def test_memory_does_not_grow_with_the_file(request, fresh_server, bucket, store, s3, uploads):
    """Zeros, because the store has to keep the file. `--sparse-size` makes it larger."""
    part, piece, bound = 64 * MIB, bytes(MIB), 64 * MIB
    size = (request.config.getoption("--sparse-size") << 30) + part // 2
    gateway = fresh_server(extra_options={"part_size": part})
    before = memory(store.process.pid, "VmRSS")
    with gateway.session() as ftp:
        assert ftp.store(f"/{bucket}/small", b"warm", allocate=4).code == 226
        ftp.expect(200, f"ALLO {size}")
        data = ftp.open_data()
        ftp.expect(150, f"STOR /{bucket}/file")
        for _ in range(size // len(piece)):
            data.sendall(piece)
        data.close()
        ftp.socket.settimeout(300)
        reply = ftp.read_reply()
        assert reply.code == 226, reply.lines
        peak = memory(gateway.process.pid, "VmHWM")
        ftp.quit()
    parts = -(-size // part)
    sums = hashlib.md5(bytes(part)).digest() * (parts - 1) + hashlib.md5(bytes(part // 2)).digest()
    entry = s3.head_object(Bucket=bucket, Key="file")
    assert (entry["ContentLength"], entry["ETag"]) == (size, f'"{hashlib.md5(sums).hexdigest()}-{parts}"')
    assert uploads(bucket) == {}
    kept = memory(store.process.pid, "VmRSS") - before
    print(f"{size} bytes: the server's memory was {peak >> 10} KiB at most, the store keeps {kept >> 10} KiB of them")
    assert peak < bound
    assert kept < bound
