"""RETR: exact bytes from any offset, and errors before the transfer where there is nothing to transfer."""

import hashlib
import threading

import pytest

from stores import random_bytes

BLOCK = 262144  # the server's default block


@pytest.fixture(scope="session")
def sample(new_bucket, s3):
    """(bucket, key, bytes) of an object of several blocks and an odd rest."""
    bucket, content = new_bucket(), random_bytes(9 * BLOCK + 12345)
    s3.put_object(Bucket=bucket, Key="data/sample.bin", Body=content)
    return bucket, "data/sample.bin", content


@pytest.mark.parametrize("size", [0, 1, BLOCK - 1, BLOCK, BLOCK + 1, 3 * BLOCK, 20 * BLOCK + 7])
def test_whole_object(ftp, bucket, s3, size):
    content = random_bytes(size)
    s3.put_object(Bucket=bucket, Key="file", Body=content)
    assert ftp.retrieve(f"/{bucket}/file") == content


@pytest.mark.parametrize("offset", [1, 1000, BLOCK, 5 * BLOCK - 1, 9 * BLOCK + 12344])
def test_restart(ftp, sample, offset):
    bucket, key, content = sample
    assert ftp.retrieve(f"/{bucket}/{key}", rest=offset) == content[offset:]


def test_restart_at_the_end_succeeds_with_no_data(ftp, sample):
    bucket, key, content = sample
    assert ftp.retrieve(f"/{bucket}/{key}", rest=len(content)) == b""


def test_restart_behind_the_end_is_refused(ftp, sample):
    bucket, key, content = sample
    replies, data = ftp.fetch(f"RETR /{bucket}/{key}", rest=len(content) + 1)
    assert data is None
    assert replies[0].code == 553 and replies[0].word == "APPEND_NOT_SUPPORTED"


def test_restart_counts_for_the_next_transfer_only(ftp, sample):
    bucket, key, content = sample
    assert ftp.retrieve(f"/{bucket}/{key}", rest=100) == content[100:]
    assert ftp.retrieve(f"/{bucket}/{key}") == content


def test_many_transfers_on_one_connection(ftp, bucket, s3):
    for number in range(30):
        s3.put_object(Bucket=bucket, Key=f"n{number}", Body=str(number).encode() * number)
    for number in range(30):
        assert ftp.retrieve(f"/{bucket}/n{number}") == str(number).encode() * number


@pytest.mark.parametrize("path", ["/{}/missing", "/no-such-bucket-here/file", "/{}/data", "/{}/data/none"])
def test_missing_object_is_refused_before_the_transfer(ftp, sample, path):
    replies, content = ftp.fetch(f"RETR {path.format(sample[0])}")
    assert content is None
    assert replies[0].code == 550 and replies[0].word == "PATH_NOT_FOUND"
    assert ftp.retrieve(f"/{sample[0]}/{sample[1]}", rest=len(sample[2]) - 1) == sample[2][-1:]


@pytest.mark.parametrize("path", ["/{}", "/{}/data/sample.bin/", "/{}/data/"])
def test_names_that_cannot_be_files(ftp, sample, path):
    replies, content = ftp.fetch(f"RETR {path.format(sample[0])}")
    assert content is None and replies[0].code == 553


def test_relative_and_untidy_paths(ftp, sample):
    bucket, _, content = sample
    ftp.expect(250, f"CWD /{bucket}/data")
    assert ftp.retrieve("sample.bin", rest=len(content) - 5) == content[-5:]
    assert ftp.retrieve("../data/./sample.bin", rest=len(content) - 5) == content[-5:]
    assert ftp.retrieve(f"//{bucket}//data//sample.bin", rest=len(content) - 5) == content[-5:]
    assert ftp.retrieve(f"/../../{bucket}/data/sample.bin", rest=len(content) - 5) == content[-5:]


def test_ascii_mode_changes_no_byte(ftp, bucket, s3):
    content = b"one\ntwo\r\nthree\rfour\n\0\xff"
    s3.put_object(Bucket=bucket, Key="text.txt", Body=content)
    ftp.expect(200, "TYPE A")
    assert ftp.retrieve(f"/{bucket}/text.txt") == content


def test_needs_a_data_connection(ftp, sample):
    assert ftp.command(f"RETR /{sample[0]}/{sample[1]}").code in (425, 503)
    assert ftp.expect(200, "NOOP").code == 200


@pytest.mark.devstore_only(reason="makes a 5 GiB object without its bytes")
def test_five_gibibytes_by_ranges(ftp, new_bucket, store):
    """Offsets beyond 32 bits. Most of the object is never asked for, so the rest of the bytes stays in the store."""
    bucket, size = new_bucket(), 5 << 30
    store.make_sparse(bucket, "huge", size)
    assert ftp.expect(213, f"SIZE /{bucket}/huge").last == str(size)
    assert ftp.facts(f"/{bucket}")["huge"]["size"] == str(size)
    assert ftp.retrieve(f"/{bucket}/huge", rest=size - 100000) == bytes(100000)
    assert ftp.retrieve(f"/{bucket}/huge", rest=size) == b""
    data = ftp.open_data()
    ftp.expect(350, f"REST {(4 << 30) + 17}")
    ftp.expect(150, f"RETR /{bucket}/huge")
    received = 0
    while received < 4 << 20:
        block = data.recv(1 << 20)
        assert block and not block.strip(b"\0")
        received += len(block)
    ftp.reset(data)
    assert ftp.read_reply().code in (425, 426)
    assert ftp.retrieve(f"/{bucket}/huge", rest=size - 1) == b"\0"


@pytest.mark.devstore_only(reason="makes a large object without its bytes")
def test_slow_client_holds_little_memory(server, ftp, new_bucket, store):
    """A client that does not read must not make the server read the object into memory."""
    bucket = new_bucket()
    store.make_sparse(bucket, "large", 2 << 30)
    before = server.memory_kib()
    data = ftp.open_data(receive_buffer=65536)
    ftp.expect(150, f"RETR /{bucket}/large")
    received = 0
    while received < 16 << 20:
        received += len(data.recv(1 << 16))
    grown = server.memory_kib() - before
    ftp.reset(data)
    assert ftp.read_reply().code in (425, 426)
    assert grown < 128 << 10, f"{grown} KiB more memory for one download"


def test_client_gone_in_the_middle(ftp, bucket, s3):
    s3.put_object(Bucket=bucket, Key="big", Body=random_bytes(24 << 20))
    data = ftp.open_data(receive_buffer=65536)
    ftp.expect(150, f"RETR /{bucket}/big")
    assert data.recv(1000)
    ftp.reset(data)
    assert ftp.read_reply().code in (425, 426)
    assert ftp.expect(213, f"SIZE /{bucket}/big").last == str(24 << 20)


def test_control_connection_gone_in_the_middle(ftp, server, login, bucket, s3):
    s3.put_object(Bucket=bucket, Key="big", Body=random_bytes(24 << 20))
    data = ftp.open_data(receive_buffer=65536)
    ftp.expect(150, f"RETR /{bucket}/big")
    assert data.recv(1000)
    ftp.reset(ftp.socket)
    with data:
        server.wait_idle()
        # What was under way may still come, but not the whole object: nobody is there to be told that it ended well.
        received = 0
        try:
            while block := data.recv(1 << 20):
                received += len(block)
        except ConnectionResetError:
            pass
    assert received < 24 << 20
    assert login().expect(213, f"SIZE /{bucket}/big").last == str(24 << 20)


def test_abort(ftp, bucket, s3):
    s3.put_object(Bucket=bucket, Key="big", Body=random_bytes(24 << 20))
    data = ftp.open_data(receive_buffer=65536)
    ftp.expect(150, f"RETR /{bucket}/big")
    assert data.recv(1000)
    assert ftp.command("ABOR").code == 426
    assert ftp.read_reply().code == 226
    data.close()
    assert ftp.expect(213, f"SIZE /{bucket}/big").last == str(24 << 20)
    assert hashlib.md5(ftp.retrieve(f"/{bucket}/big")).hexdigest() == s3.head_object(Bucket=bucket, Key="big")["ETag"].strip('"')


def test_abort_with_nothing_to_abort(ftp):
    assert ftp.command("ABOR").code in (225, 226)


def test_commands_during_a_transfer(ftp, bucket, s3):
    content = random_bytes(24 << 20)
    s3.put_object(Bucket=bucket, Key="big", Body=content)
    data = ftp.open_data(receive_buffer=65536)
    ftp.expect(150, f"RETR /{bucket}/big")
    assert ftp.command("NOOP").code == 200
    assert ftp.command("STAT").code in (211, 213)
    assert ftp.read_all(data) == content
    assert ftp.read_reply().code == 226


def test_sessions_side_by_side(login, sample):
    """Eight sessions at once, each with its own restart offset, see only their own bytes."""
    bucket, key, content = sample
    sessions = [login() for _ in range(8)]
    wrong = []

    def work(number, session):
        for turn in range(4):
            offset = number * 10007 + turn
            if session.retrieve(f"/{bucket}/{key}", rest=offset) != content[offset:]:
                wrong.append(offset)

    threads = [threading.Thread(target=work, args=pair) for pair in enumerate(sessions)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join(120)
        assert not thread.is_alive()
    assert not wrong
