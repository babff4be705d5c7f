"""An upload in parts that is cut off - whoever dies - goes on where the store has it, and no part that the store has is sent again."""

import ftplib
import hashlib
import subprocess

import botocore.exceptions
import pytest

from gateway import Gateway, shared_server
from multipart import PART, interrupt, parts_of, restart, uploads_in
from stores import DevStore, random_bytes
from waiting import wait_for

HALF = PART // 2
# A store that is away is away: little time between the tries.
QUICK = {"extra_options": {"part_size": PART, "retry_delay": 1}, "environment": {"ZORVAN_S3_RETRY_PAUSE_MS": "1"}}


@pytest.fixture(scope="module")
def server(store, binaries):
    with shared_server(binaries, store, **QUICK) as gateway:
        yield gateway


@pytest.fixture
def mortal(store, binaries, tmp_path):
    """A store that may be killed: it keeps what it has."""
    if store.name == "rgw":
        yield store
        return
    running = DevStore(binaries.devstore, tmp_path, "--data-dir", str(tmp_path / "data"))
    yield running
    running.stop()


@pytest.fixture
def at_mortal(mortal, binaries, tmp_path):
    """Makes servers in front of it."""
    made = []

    def make(**options):
        made.append(Gateway(binaries, mortal, tmp_path / f"server-{len(made)}", **options))
        return made[-1]

    yield make
    for gateway in made:
        gateway.stop()


def parts_sent(store):
    """The numbers of the parts that the dev store was sent since it was last told to forget."""
    queries = [entry["query"] for entry in store.requests() if entry["method"] == "PUT" and "partNumber=" in entry["query"]]
    return sorted(int(query.partition("partNumber=")[2].partition("&")[0]) for query in queries)


def published(s3, bucket, content):
    """The object is there, with these bytes, of parts that have theirs; nothing else is left."""
    assert hashlib.md5(s3.get_object(Bucket=bucket, Key="file")["Body"].read()).hexdigest() == hashlib.md5(content).hexdigest()
    sums = [hashlib.md5(content[offset:offset + PART]).digest() for offset in range(0, len(content), PART)]
    assert s3.head_object(Bucket=bucket, Key="file")["ETag"] == f'"{hashlib.md5(b"".join(sums)).hexdigest()}-{len(sums)}"'
    assert uploads_in(s3, bucket) == {}


def nothing_published(s3, bucket):
    assert "Contents" not in s3.list_objects_v2(Bucket=bucket)


def resume(ftp, store, s3, bucket, content, kept):
    """Goes on behind the parts `kept` ({number: record}), which have to be what the store has, and to stay as they are while the
    next part comes in: a part that is sent again gets another time."""
    assert parts_of(s3, bucket) == kept
    offset = len(kept) * PART
    if store.name == "devstore":
        store.forget_requests()
    data = ftp.begin_store(f"/{bucket}/file", content[offset:offset + PART + 10], len(content) - offset, offset)
    stored = wait_for(lambda: len(parts := parts_of(s3, bucket)) > len(kept) and parts, "one part more is stored", 60)
    assert {number: stored[number] for number in kept} == kept
    data.sendall(content[offset + PART + 10:])
    data.close()
    reply = ftp.read_reply()
    assert reply.code == 226, reply.lines
    published(s3, bucket, content)
    if store.name == "devstore":
        assert parts_sent(store) == list(range(len(kept) + 1, -(-len(content) // PART) + 1))


def two_parts(s3, bucket):
    return wait_for(lambda: len(parts := parts_of(s3, bucket)) == 2 and parts, "two parts are stored", 60)


# -- killed ---------------------------------------------------------------------------------------------------------------
def test_killed_client(server, login, bucket, store, s3):
    """A client of its own process, in the middle of the third part; whoever comes next goes on."""
    content = random_bytes(4 * PART + 777)
    url = f"ftp://{server.host}:{server.port}/{bucket}/file"
    command = ["curl", "-sS", "-u", f"alice:{server.passwords['alice']}", "-Q", f"+ALLO {len(content)}", "-T", "-", url]
    with subprocess.Popen(command, stdin=subprocess.PIPE) as client:
        client.stdin.write(content[:2 * PART + HALF])
        client.stdin.flush()
        kept = two_parts(s3, bucket)
        client.kill()
    assert client.returncode == -9
    nothing_published(s3, bucket)
    resume(login(), store, s3, bucket, content, kept)


def test_killed_server_and_another_in_its_place(fresh_server, bucket, store, s3):
    content = random_bytes(4 * PART + 777)
    first = fresh_server(**QUICK)
    with first.session() as ftp:
        data = ftp.begin_store(f"/{bucket}/file", content[:2 * PART + HALF], len(content))
        kept = two_parts(s3, bucket)
        first.process.kill()
        assert first.process.wait() == -9
        data.close()
    nothing_published(s3, bucket)
    second = fresh_server(**QUICK)
    with second.session() as ftp:
        resume(ftp, store, s3, bucket, content, kept)
        ftp.quit()


def test_killed_store(mortal, at_mortal):
    """The upload fails, and goes on when the store is back, in the same session."""
    s3, bucket = mortal.client(), "killed-store"
    s3.create_bucket(Bucket=bucket)
    content = random_bytes(4 * PART + 777)
    gateway = at_mortal(**QUICK)
    with gateway.session() as ftp:
        data = ftp.begin_store(f"/{bucket}/file", content[:2 * PART + HALF], len(content))
        kept = two_parts(s3, bucket)
        mortal.kill()
        try:
            try:
                data.sendall(content[2 * PART + HALF:])
            except ConnectionError:
                pass
            data.close()
            reply = ftp.read_reply()
            assert reply.code in (426, 451), reply.lines
        finally:
            mortal.start_again()
        nothing_published(s3, bucket)
        resume(ftp, mortal, s3, bucket, content, kept)
        ftp.quit()


# -- who goes on, and how -------------------------------------------------------------------------------------------------
def test_another_session_goes_on(login, bucket, store, s3, stored_parts):
    """The one whose upload broke stays, and works."""
    content = random_bytes(3 * PART + 5)
    first, second = login(), login()
    interrupt(first, bucket, content, stored_parts, 2)
    resume(second, store, s3, bucket, content, parts_of(s3, bucket))
    assert first.retrieve(f"/{bucket}/file") == content


@pytest.mark.parametrize("announce", [True, False], ids=["announced", "unannounced"])
@pytest.mark.parametrize("command", ["STOR", "APPE"])
def test_rest_and_command(ftp, bucket, s3, stored_parts, command, announce):
    content = random_bytes(3 * PART + 5)
    interrupt(ftp, bucket, content, stored_parts, 2)
    kept = parts_of(s3, bucket)
    assert list(kept) == [1, 2]
    reply = restart(ftp, bucket, content, 2 * PART, announce, command)
    assert reply.code == 226, reply.lines
    published(s3, bucket, content)


@pytest.mark.parametrize("announce", [True, False], ids=["announced", "unannounced"])
def test_esto_names_the_place(ftp, bucket, s3, stored_parts, announce):
    content = random_bytes(3 * PART + 5)
    interrupt(ftp, bucket, content, stored_parts, 2)
    rest = memoryview(content)[2 * PART:]
    reply = ftp.store(f"/{bucket}/file", rest, allocate=len(rest) if announce else None, command=f"ESTO A {2 * PART}")
    assert reply.code == 226, reply.lines
    published(s3, bucket, content)


def test_curl_goes_on(curl, ftp, bucket, s3, stored_parts):
    """From a pipe, at a place that its user knows."""
    content = random_bytes(3 * PART + 5)
    interrupt(ftp, bucket, content, stored_parts, 2)
    rest = len(content) - 2 * PART
    done = curl(f"/{bucket}/file", "-Q", f"+ALLO {rest}", "-Q", f"+REST {2 * PART}", "-T", "-", input=content[2 * PART:])
    assert done.returncode == 0, done.stderr
    published(s3, bucket, content)


# -- what is refused ------------------------------------------------------------------------------------------------------
@pytest.mark.parametrize("offset", [1, PART - 1, PART + 1, 2 * PART + 7])
def test_offset_inside_a_part(ftp, bucket, s3, stored_parts, offset):
    """Before any data, and with the numbers that help."""
    content = random_bytes(3 * PART + 5)
    interrupt(ftp, bucket, content, stored_parts, 2)
    kept = parts_of(s3, bucket)
    ftp.expect(200, f"ALLO {len(content) - offset}")
    ftp.expect(350, f"REST {offset}")
    with ftp.open_data():
        reply = ftp.expect(553, f"STOR /{bucket}/file")
    assert reply.word == "MULTI_PART_UPLOAD_NOT_FOUND"
    assert reply.last == f"The restart offset {offset} is not a multiple of the part size {PART}."
    assert parts_of(s3, bucket) == kept
    assert restart(ftp, bucket, content, 2 * PART).code == 226
    published(s3, bucket, content)


@pytest.mark.parametrize("command", ["STOR", "APPE"])
@pytest.mark.parametrize("old", [None, b"old"])
def test_nothing_to_go_on_with(pyftp, bucket, s3, stored, command, old):
    """A plain client, with an object in the place or without: a 553 for it to show, and nothing changes."""
    if old is not None:
        s3.put_object(Bucket=bucket, Key="file", Body=old)
    pyftp.voidcmd("TYPE I")
    with pytest.raises(ftplib.error_perm) as refused:
        data = pyftp.transfercmd(f"{command} /{bucket}/file", rest=PART)
        data.sendall(b"more")
        data.close()
        pyftp.voidresp()
    lines = str(refused.value).splitlines()
    assert lines[0].startswith("553") and "MULTI_PART_UPLOAD_NOT_FOUND" in lines[0], lines
    assert stored(bucket, "file") == old
    assert uploads_in(s3, bucket) == {}


def test_curl_cannot_append(curl, bucket, s3, stored, tmp_path):
    """What curl makes of "continue this upload" where an object is: an append, which object stores do not have."""
    s3.put_object(Bucket=bucket, Key="file", Body=b"old")
    (tmp_path / "source").write_bytes(b"old and new")
    done = curl(f"/{bucket}/file", "-C", "-", "-T", tmp_path / "source")
    assert done.returncode != 0
    assert b"553" in done.stderr, done.stderr
    assert stored(bucket, "file") == b"old"


# -- what an upload that is begun anew leaves of the old one ---------------------------------------------------------------
def test_fresh_upload_removes_the_stale_one_first(ftp, bucket, s3, stored_parts):
    content = random_bytes(3 * PART + 5)
    interrupt(ftp, bucket, content, stored_parts, 2)
    stale = uploads_in(s3, bucket)["file"]
    data = ftp.begin_store(f"/{bucket}/file", content[:PART + 10], len(content))
    wait_for(lambda: parts_of(s3, bucket).keys() == {1}, "the fresh upload has a part", 60)
    fresh = uploads_in(s3, bucket)["file"]
    assert len(fresh) == 1 and fresh != stale
    with pytest.raises(botocore.exceptions.ClientError) as gone:
        s3.list_parts(Bucket=bucket, Key="file", UploadId=stale[0])
    assert gone.value.response["Error"]["Code"] in ("NoSuchUpload", "NoSuchKey")
    data.sendall(content[PART + 10:])
    data.close()
    assert ftp.read_reply().code == 226
    published(s3, bucket, content)
