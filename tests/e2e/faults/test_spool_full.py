"""An upload of unknown size for which the spool has no room: 552, nothing stored, and room again for the next."""

import resource
import threading

from stores import random_bytes
from waiting import wait_for

SMALL, LARGE = 2 << 20, 24 << 20  # the spool's limit is 32 MiB
MEMORY = 1 << 20  # of each upload; the rest goes to its file


def refused(reply):
    assert reply.code == 552, reply.lines


def empty(gateway):
    """Sessions that have nothing to do keep no room."""
    wait_for(lambda: not gateway.spool_files(), "nothing is in the spool")


def test_too_large_for_the_limit(server, ftp, bucket, s3, stored):
    s3.put_object(Bucket=bucket, Key="file", Body=b"old")
    for _ in range(3):  # what a refused one had taken is given back
        refused(ftp.store(f"/{bucket}/file", random_bytes(40 << 20)))
    assert stored(bucket, "file") == b"old"
    content = random_bytes(LARGE)
    assert ftp.store(f"/{bucket}/file", content).code == 226
    assert stored(bucket, "file") == content
    empty(server)


def test_the_limit_is_for_all_sessions_together(server, login, bucket, stored):
    """Two at a time do not fit: one at least is refused. What needs no room is not."""
    first, second = login(), login()
    contents = {"first": random_bytes(LARGE), "second": random_bytes(LARGE)}
    data = first.open_data()
    first.expect(150, f"STOR /{bucket}/first")
    data.sendall(contents["first"])
    # Not only in the buffers of the connection, which may be as large.
    wait_for(lambda: server.spooled_bytes() >= LARGE - MEMORY, "the first one has taken its room")
    replies = {"second": second.store(f"/{bucket}/second", contents["second"])}
    assert second.store(f"/{bucket}/announced", b"x", allocate=1).code == 226
    data.close()
    replies["first"] = first.read_reply()
    assert 552 in [reply.code for reply in replies.values()]
    for name, reply in replies.items():
        assert reply.code in (226, 552), reply.lines
        assert stored(bucket, name) == (contents[name] if reply.code == 226 else None)
    empty(server)
    assert second.store(f"/{bucket}/second", contents["second"]).code == 226
    assert stored(bucket, "second") == contents["second"]


def test_no_room_on_the_disk(fresh_server, bucket, stored):
    """Stands for a full disk: the system refuses to let a file grow."""
    gateway = fresh_server()
    resource.prlimit(gateway.process.pid, resource.RLIMIT_FSIZE, (8 << 20, 8 << 20))
    with gateway.session() as ftp:
        refused(ftp.store(f"/{bucket}/file", random_bytes(LARGE)))
        assert stored(bucket, "file") is None
        content = random_bytes(SMALL)
        assert ftp.store(f"/{bucket}/file", content).code == 226
        assert stored(bucket, "file") == content
        ftp.quit()
    gateway.wait_idle()
    gateway.stop()


def test_directory_disappears(fresh_server, bucket, stored):
    gateway = fresh_server()
    content = random_bytes(SMALL)
    with gateway.session() as ftp:
        gateway.spool.rmdir()
        refused(ftp.store(f"/{bucket}/file", content))
        assert stored(bucket, "file") is None
        assert ftp.store(f"/{bucket}/small", b"fits into memory").code == 226
        assert ftp.store(f"/{bucket}/announced", content, allocate=SMALL).code == 226
        gateway.spool.mkdir()
        assert ftp.store(f"/{bucket}/file", content).code == 226
        assert stored(bucket, "file") == content
        ftp.quit()
    gateway.wait_idle()
    gateway.stop()


def test_directory_disappears_in_the_middle(fresh_server, bucket, stored):
    """The file of a running upload has no name anyway."""
    gateway = fresh_server()
    content = random_bytes(2 * SMALL)
    with gateway.session() as ftp:
        data = ftp.open_data()
        ftp.expect(150, f"STOR /{bucket}/file")
        data.sendall(content[:-1])
        wait_for(lambda: any("deleted" in name for name in gateway.spool_files()), "the upload is in its file")
        gateway.spool.rmdir()
        data.sendall(content[-1:])
        data.close()
        assert ftp.read_reply().code == 226
        assert stored(bucket, "file") == content
        gateway.spool.mkdir()


def test_many_sessions_want_the_last_room(server, login, bucket, stored):
    """Each gets its file stored or is refused; none gets half of anything, and all the room comes back."""
    sessions = [login() for _ in range(8)]
    contents = [random_bytes((8 << 20) + number) for number in range(8)]
    replies = [None] * 8
    together = threading.Barrier(8)

    def work(number):
        together.wait(60)
        replies[number] = sessions[number].store(f"/{bucket}/file-{number}", contents[number])

    threads = [threading.Thread(target=work, args=(number,)) for number in range(8)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join(120)
    for number, reply in enumerate(replies):
        assert reply is not None and reply.code in (226, 552), reply
        assert stored(bucket, f"file-{number}") == (contents[number] if reply.code == 226 else None)
    empty(server)
    content = random_bytes(30 << 20)
    assert sessions[0].store(f"/{bucket}/after", content).code == 226
    assert stored(bucket, "after") == content
