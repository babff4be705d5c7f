"""STOR and APPE: 226 means that exactly the sent bytes are the object; anything else means that nothing changed."""

import base64
import hashlib
import socket
import threading

import pytest

from stores import random_bytes

BLOCK = 262144
SIZES = [0, 1, BLOCK - 1, BLOCK, BLOCK + 1, 3 * BLOCK, 20 * BLOCK + 7]


@pytest.mark.parametrize("size", SIZES)
def test_announced_size(ftp, bucket, stored, size):
    content = random_bytes(size)
    assert ftp.store(f"/{bucket}/dir/file", content, allocate=size).code == 226
    assert stored(bucket, "dir/file") == content


@pytest.mark.parametrize("size", SIZES)
def test_unknown_size(ftp, bucket, stored, size):
    """Up to 1 MiB the spool is memory, the larger ones go through its file."""
    content = random_bytes(size)
    assert ftp.store(f"/{bucket}/dir/file", content).code == 226
    assert stored(bucket, "dir/file") == content


def test_overwrites(ftp, bucket, stored):
    for content in (b"first", b"second, longer", b"", b"x"):
        assert ftp.store(f"/{bucket}/file", content, allocate=len(content) or None).code == 226
        assert stored(bucket, "file") == content


def test_slow_trickle(ftp, bucket, stored):
    """A client that sends byte by byte, each in a packet of its own."""
    data = ftp.open_data()
    data.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    ftp.expect(200, "ALLO 200")
    assert ftp.command(f"STOR /{bucket}/file").code == 150
    for number in range(200):
        data.sendall(bytes([number]))
    data.close()
    assert ftp.read_reply().code == 226
    assert stored(bucket, "file") == bytes(range(200))


def test_object_appears_only_when_it_is_complete(ftp, bucket, stored):
    data = ftp.open_data()
    ftp.expect(200, "ALLO 1000000")
    ftp.expect(150, f"STOR /{bucket}/file")
    data.sendall(bytes(999999))
    assert stored(bucket, "file") is None
    data.sendall(b"\0")
    assert stored(bucket, "file") is None  # all bytes are there, but not yet the end of them
    data.close()
    assert ftp.read_reply().code == 226
    assert stored(bucket, "file") == bytes(1000000)


# -- metadata -----------------------------------------------------------------------------------------------------------
@pytest.mark.parametrize("allocate", [True, False])
def test_recorded_time(ftp, bucket, s3, allocate):
    reply = ftp.command(f"MFMT 20010909014640 /{bucket}/timed")
    assert reply.code == 213, reply.lines
    assert ftp.store(f"/{bucket}/timed", b"abc", allocate=3 if allocate else None).code == 226
    assert s3.head_object(Bucket=bucket, Key="timed")["Metadata"] == {"mtime": "1000000000"}
    assert ftp.expect(213, f"MDTM /{bucket}/timed").last == "20010909014640"
    # It was for that one upload.
    assert ftp.store(f"/{bucket}/untimed", b"abc", allocate=3).code == 226
    assert s3.head_object(Bucket=bucket, Key="untimed")["Metadata"] == {}


def test_time_of_a_stored_object_cannot_be_changed(ftp, bucket, s3):
    s3.put_object(Bucket=bucket, Key="file", Body=b"x")
    assert ftp.command(f"MFMT 20010909014640 /{bucket}/file").code == 504


@pytest.mark.parametrize("name, content_type", [
    ("a.txt", "text/plain"), ("a.b.text", "text/plain"), ("data.h5", "application/x-hdf5"), ("p.jpg", "image/jpeg"),
    ("P.JPG", None), ("name", None), ("name.", None), ("name.unknown", None), ("txt", None)])
def test_content_type_follows_the_extension(ftp, bucket, s3, name, content_type):
    s3.put_object(Bucket=bucket, Key="untyped", Body=b"")
    untyped = s3.head_object(Bucket=bucket, Key="untyped")["ContentType"]
    assert ftp.store(f"/{bucket}/{name}", b"x", allocate=1).code == 226
    assert s3.head_object(Bucket=bucket, Key=name)["ContentType"] == (content_type or untyped)


@pytest.mark.parametrize("allocate", [True, False])
def test_expected_checksum(ftp, bucket, s3, stored, allocate):
    content = random_bytes(700001)
    announced = len(content) if allocate else None
    digest = hashlib.md5(content)
    reply = ftp.command(f"SCKS MD5 {digest.hexdigest()}")
    assert reply.code == 213 or 200 <= reply.code < 300, reply.lines
    assert ftp.store(f"/{bucket}/good", content, allocate=announced).code == 226
    assert s3.head_object(Bucket=bucket, Key="good")["Metadata"]["md5"] == base64.b64encode(digest.digest()).decode()
    ftp.command(f"SCKS MD5 {hashlib.md5(b'other').hexdigest()}")
    reply = ftp.store(f"/{bucket}/bad", content, allocate=announced)
    assert reply.code == 550 and reply.word == "INCORRECT_CHECKSUM", reply.lines
    assert stored(bucket, "bad") is None
    assert ftp.store(f"/{bucket}/bad", content, allocate=announced).code == 226  # the checksum was for one upload
    assert ftp.command("SCKS SHA256 00").code == 504


# -- sizes that do not hold ---------------------------------------------------------------------------------------------
@pytest.mark.parametrize("announced, sent", [(10, 9), (10, 0), (BLOCK, BLOCK - 1), (3 * BLOCK, BLOCK), (8 << 20, 1 << 20)])
@pytest.mark.parametrize("old", [None, b"old"])
def test_fewer_bytes_than_announced(ftp, bucket, s3, stored, announced, sent, old):
    if old is not None:
        s3.put_object(Bucket=bucket, Key="file", Body=old)
    reply = ftp.store(f"/{bucket}/file", random_bytes(sent), allocate=announced)
    assert reply.code in (426, 451, 550), reply.lines
    assert stored(bucket, "file") == old
    assert ftp.store(f"/{bucket}/next", b"next", allocate=4).code == 226


@pytest.mark.parametrize("announced, sent", [(10, 11), (1, 100), (BLOCK, BLOCK + 1), (BLOCK, 5 * BLOCK), (1 << 20, 24 << 20)])
@pytest.mark.parametrize("old", [None, b"old"])
def test_more_bytes_than_announced(ftp, bucket, s3, stored, announced, sent, old):
    if old is not None:
        s3.put_object(Bucket=bucket, Key="file", Body=old)
    reply = ftp.store(f"/{bucket}/file", random_bytes(sent), allocate=announced)
    assert reply.code == 552, reply.lines
    assert stored(bucket, "file") == old
    assert ftp.store(f"/{bucket}/next", b"next", allocate=4).code == 226


def test_announced_size_is_for_one_upload(ftp, bucket, stored):
    assert ftp.store(f"/{bucket}/one", b"12345", allocate=5).code == 226
    assert ftp.store(f"/{bucket}/two", b"1234567890").code == 226
    assert stored(bucket, "two") == b"1234567890"


def test_allo_zero_announces_nothing(ftp, bucket, stored):
    assert ftp.store(f"/{bucket}/file", b"content", allocate=0).code == 226
    assert stored(bucket, "file") == b"content"


def test_allo_with_record_size(ftp, bucket, stored):
    ftp.expect(200, "ALLO 7 R 100")
    assert ftp.store(f"/{bucket}/file", b"content").code == 226
    assert stored(bucket, "file") == b"content"


@pytest.mark.parametrize("argument", ["", "x", "-1", "99999999999999999999999", "1 R", "1 2"])
def test_allo_nonsense(ftp, argument):
    assert ftp.command(f"ALLO {argument}".strip()).code == 501


def test_size_beyond_the_limit_is_refused_before_the_data(ftp, bucket, stored):
    reply = ftp.store(f"/{bucket}/file", b"", allocate=10**18)
    assert reply.code >= 450, reply.lines
    assert "File upload too large" in reply.text
    assert stored(bucket, "file") is None


# -- spool --------------------------------------------------------------------------------------------------------------
def test_full_spool_refuses_and_stores_nothing(ftp, bucket, stored):
    content = random_bytes(40 << 20)  # the limit is 32 MiB
    reply = ftp.store(f"/{bucket}/file", content)
    assert reply.code == 552, reply.lines
    assert stored(bucket, "file") is None
    assert ftp.store(f"/{bucket}/file", content, allocate=len(content)).code == 226
    assert stored(bucket, "file") == content


def test_without_spool_the_size_must_be_announced(fresh_server, bucket, stored):
    from ftp_client import FtpClient
    gateway = fresh_server(spool_enabled=False)
    with FtpClient(gateway.host, gateway.port) as ftp:
        assert ftp.login("alice", gateway.passwords["alice"]).code == 230
        ftp.expect(200, "TYPE I")
        reply = ftp.store(f"/{bucket}/file", b"content")
        assert reply.code == 504 and "ALLO" in reply.text
        assert stored(bucket, "file") is None
        assert ftp.store(f"/{bucket}/file", b"content", allocate=7).code == 226
        assert stored(bucket, "file") == b"content"
        ftp.quit()


# -- refused places -----------------------------------------------------------------------------------------------------
@pytest.mark.parametrize("allocate", [True, False])
@pytest.mark.parametrize("size", [10, 8 << 20])
def test_missing_bucket(ftp, allocate, size):
    """The client gets the reply, not a reset, however much it has already sent."""
    reply = ftp.store("/no-such-bucket-here/file", random_bytes(size), allocate=size if allocate else None)
    assert reply.code == 550 and reply.word == "PATH_NOT_FOUND", reply.lines


@pytest.mark.parametrize("allocate", [True, False])
def test_foreign_bucket(ftp, new_bucket, server, allocate):
    bucket = new_bucket("bob")
    reply = ftp.store(f"/{bucket}/file", b"intruder", allocate=8 if allocate else None)
    assert reply.code == 550 and reply.word == "PERMISSION_DENIED", reply.lines
    assert "Contents" not in server.store.client("bob").list_objects_v2(Bucket=bucket)


@pytest.mark.parametrize("path", ["/file-in-the-root", "/{}/file/", "/{}/", "/"])
def test_names_that_cannot_be_files(ftp, bucket, s3, path):
    reply = ftp.store(path.format(bucket), b"x", allocate=1)
    assert reply.code == 553, reply.lines
    assert "Contents" not in s3.list_objects_v2(Bucket=bucket)


# -- append and restart -------------------------------------------------------------------------------------------------
@pytest.mark.parametrize("old", [None, b""])
def test_append_to_nothing_is_a_store(ftp, bucket, s3, stored, old):
    if old is not None:
        s3.put_object(Bucket=bucket, Key="file", Body=old)
    content = random_bytes(2 * BLOCK + 5)
    assert ftp.store(f"/{bucket}/file", content, command="APPE").code == 226
    assert stored(bucket, "file") == content


def test_allo_before_append_is_no_announcement(ftp, bucket, stored):
    """Some clients name an offset there."""
    assert ftp.store(f"/{bucket}/file", b"content", allocate=3, command="APPE").code == 226
    assert stored(bucket, "file") == b"content"


def test_restart_at_zero_is_a_store(ftp, bucket, stored):
    ftp.expect(350, "REST 0")
    assert ftp.store(f"/{bucket}/file", b"content", allocate=7).code == 226
    assert stored(bucket, "file") == b"content"


# -- broken uploads -----------------------------------------------------------------------------------------------------
@pytest.mark.parametrize("allocate", [True, False])
@pytest.mark.parametrize("old", [None, b"old"])
def test_data_connection_reset(ftp, bucket, s3, stored, allocate, old):
    if old is not None:
        s3.put_object(Bucket=bucket, Key="file", Body=old)
    if allocate:
        ftp.expect(200, f"ALLO {4 << 20}")
    data = ftp.open_data()
    assert ftp.command(f"STOR /{bucket}/file").code == 150
    data.sendall(random_bytes(3 << 20))
    ftp.reset(data)
    assert ftp.read_reply().code in (425, 426, 451)
    assert stored(bucket, "file") == old
    assert ftp.store(f"/{bucket}/next", b"next").code == 226


@pytest.mark.parametrize("allocate", [True, False])
@pytest.mark.parametrize("old", [None, b"old"])
def test_abort(ftp, bucket, s3, stored, allocate, old):
    if old is not None:
        s3.put_object(Bucket=bucket, Key="file", Body=old)
    if allocate:
        ftp.expect(200, f"ALLO {4 << 20}")
    data = ftp.open_data()
    assert ftp.command(f"STOR /{bucket}/file").code == 150
    data.sendall(random_bytes(1 << 20))
    assert ftp.command("ABOR").code == 426
    assert ftp.read_reply().code == 226
    data.close()
    assert stored(bucket, "file") == old
    assert ftp.store(f"/{bucket}/next", b"next", allocate=4).code == 226


@pytest.mark.parametrize("allocate", [True, False])
@pytest.mark.parametrize("sent", [1 << 20, 4 << 20])
def test_client_vanishes(server, login, bucket, s3, stored, allocate, sent):
    """Also when the last announced byte has arrived: without the client nobody says that this was the end."""
    s3.put_object(Bucket=bucket, Key="file", Body=b"old")
    ftp = login()
    if allocate:
        ftp.expect(200, f"ALLO {4 << 20}")
    data = ftp.open_data()
    assert ftp.command(f"STOR /{bucket}/file").code == 150
    data.sendall(random_bytes(sent))
    ftp.reset(ftp.socket)
    ftp.reset(data)
    server.wait_idle()
    assert stored(bucket, "file") == b"old"


def test_control_connection_lost_before_the_end_of_data(server, login, bucket, stored):
    ftp = login()
    ftp.expect(200, "ALLO 1000")
    data = ftp.open_data()
    assert ftp.command(f"STOR /{bucket}/file").code == 150
    data.sendall(bytes(1000))
    ftp.reset(ftp.socket)
    # The server notices the loss: it closes the data connection from its side.
    data.settimeout(60)
    try:
        assert data.recv(1) == b""
    except ConnectionResetError:
        pass
    data.close()
    server.wait_idle()
    assert stored(bucket, "file") is None


def test_quit_during_an_upload_waits_for_it(ftp, bucket, stored):
    content = random_bytes(1 << 20)
    ftp.expect(200, f"ALLO {len(content)}")
    data = ftp.open_data()
    ftp.expect(150, f"STOR /{bucket}/file")
    data.sendall(content[:1000])
    ftp.send("QUIT")
    data.sendall(content[1000:])
    data.close()
    assert sorted([ftp.read_reply().code, ftp.read_reply().code]) == [221, 226]
    assert stored(bucket, "file") == content


# -- more than one ------------------------------------------------------------------------------------------------------
def test_sessions_side_by_side(login, bucket, stored):
    sessions = [login() for _ in range(8)]
    contents = {f"file-{number}-{turn}": random_bytes(300000 + number * 1000 + turn)
                for number in range(8) for turn in range(4)}
    wrong = []

    def work(number, session):
        for turn in range(4):
            name = f"file-{number}-{turn}"
            content = contents[name]
            reply = session.store(f"/{bucket}/{name}", content, allocate=len(content) if turn % 2 else None)
            if reply.code != 226:
                wrong.append((name, reply.lines))

    threads = [threading.Thread(target=work, args=pair) for pair in enumerate(sessions)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join(120)
        assert not thread.is_alive()
    assert not wrong
    for name, content in contents.items():
        assert stored(bucket, name) == content


def test_two_uploads_of_one_name_take_turns(login, bucket, stored):
    """The second waits for the first, and the last one to end is what stays: never a mixture."""
    first, second = login(), login()
    one, two = random_bytes(1 << 20), random_bytes(1 << 20)
    first.expect(200, f"ALLO {len(one)}")
    first_data = first.open_data()
    first.expect(150, f"STOR /{bucket}/file")
    first_data.sendall(one[:1000])
    replies = []
    other = threading.Thread(target=lambda: replies.append(second.store(f"/{bucket}/file", two, allocate=len(two))))
    other.start()
    first_data.sendall(one[1000:])
    first_data.close()
    assert first.read_reply().code == 226
    other.join(120)
    assert replies and replies[0].code == 226
    assert stored(bucket, "file") in (one, two)


def test_active_mode(ftp, bucket, stored):
    """PORT and EPRT to the client's own address; anything else is refused."""
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        listener.listen(1)
        listener.settimeout(30)
        port = listener.getsockname()[1]
        ftp.expect(200, f"PORT 127,0,0,1,{port >> 8},{port & 255}")
        ftp.expect(200, "ALLO 4")
        ftp.send(f"STOR /{bucket}/file")
        data, _ = listener.accept()
        with data:
            assert ftp.read_reply().code == 150
            data.sendall(b"data")
        assert ftp.read_reply().code == 226
        assert stored(bucket, "file") == b"data"
        ftp.expect(200, f"EPRT |1|127.0.0.1|{port}|")
        ftp.send(f"RETR /{bucket}/file")
        data, _ = listener.accept()
        assert ftp.read_all(data) == b"data"
        assert [ftp.read_reply().code, ftp.read_reply().code] == [150, 226]
    for line in ("PORT 127,0,0,2,100,100", "PORT 127,0,0,1,0,25", "EPRT |1|127.0.0.2|30000|", "PORT 1,2,3"):
        assert 500 <= ftp.command(line).code < 600, line


def test_nobody_connects(ftp, bucket, stored):
    """A client that names a port and does not listen there: 425, and the session goes on."""
    with socket.socket() as unused:
        unused.bind(("127.0.0.1", 0))
        port = unused.getsockname()[1]
        ftp.expect(200, f"PORT 127,0,0,1,{port >> 8},{port & 255}")
        ftp.expect(200, "ALLO 4")
        ftp.send(f"STOR /{bucket}/file")
        reply = ftp.read_reply()
        if reply.code == 150:
            reply = ftp.read_reply()
    assert reply.code == 425
    assert stored(bucket, "file") is None
    assert ftp.command("NOOP").code == 200
