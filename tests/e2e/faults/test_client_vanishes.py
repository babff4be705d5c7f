"""The client goes, by an end or by a reset, in every phase of a session; or takes back what it asked for."""

import pytest

from refusals import asked
from stores import random_bytes
from waiting import wait_for

pytestmark = pytest.mark.devstore_only(reason="holds the server in each phase by stalling the store")

SIZE = 6 << 20
ways = pytest.mark.parametrize("way", ["end", "reset"])
KINDS = [pytest.param(True, id="announced"), pytest.param(False, id="spooled")]


def end(client, way, connection):
    if way == "reset" and connection.fileno() >= 0:
        client.reset(connection)
    else:
        connection.close()


def leave(client, way, *data):
    """Close the sockets, data connections first."""
    for one in (*data, client.socket):
        end(client, way, one)


def upload_in_silence(ftp, bucket, stored, faults, announced):
    """Upload content that the store then has, but does not say so before its faults are cleared. Returns the content."""
    content = random_bytes(SIZE)
    faults({"stall_before_reply": True}, method="PUT", path="/file$")
    ftp.begin_store(f"/{bucket}/file", content, SIZE if announced else None).close()
    wait_for(lambda: stored(bucket, "file") == content, "the store has it all")
    return content


def final_reply(ftp):
    while (reply := ftp.read_reply()).code < 200:
        pass
    return reply


@pytest.fixture
def sample(bucket, s3):
    content = random_bytes(SIZE)
    s3.put_object(Bucket=bucket, Key="file", Body=content)
    return content


@ways
@pytest.mark.parametrize("lines", [[], ["USER alice"], ["USER alice", "PASS wrong"], ["FEAT", "USER al"]], ids=str)
def test_before_login(connect, way, lines):
    ftp = connect()
    for line in lines:
        ftp.send(line)
    leave(ftp, way)


@ways
def test_in_the_middle_of_a_line(connect, way):
    ftp = connect()
    ftp.socket.sendall(b"USER ali")
    leave(ftp, way)


@ways
@pytest.mark.parametrize("answer", [True, False])
def test_while_the_keys_are_looked_up(connect, server, store, faults, way, answer):
    """The store answers afterwards, or never does."""
    ftp = connect()
    ftp.expect(331, "USER alice")
    store.forget_requests()
    faults({"stall_before_reply": True} if answer else {"stall_before_reply": True, "cut_before_reply": True}, path="^/admin/user")
    ftp.send(f"PASS {server.passwords['alice']}")
    wait_for(lambda: asked(store, "GET", "/admin/user"), "the keys are looked up")
    leave(ftp, way)


@ways
@pytest.mark.parametrize("connected", [True, False])
def test_after_passive(login, way, connected):
    ftp = login()
    if connected:
        data = ftp.open_data()
        leave(ftp, way, data)
    else:
        ftp.expect(229, "EPSV")
        leave(ftp, way)


@ways
def test_nobody_connects(login, bucket, sample, way):
    """A download waits for a data connection that will never come."""
    ftp = login()
    ftp.expect(229, "EPSV")
    ftp.send(f"RETR /{bucket}/file")
    leave(ftp, way)


@ways
@pytest.mark.parametrize("command", ["RETR {}/file", "NLST {}", "MLSD {}", "SIZE {}/file", "CKSM MD5 0 -1 {}/file", "DELE {}/other",
                                     "MKD {}/dir", "STAT {}", "CWD {}/dir", "APPE {}/file"])
def test_before_the_answer(login, bucket, store, faults, sample, stored, way, command):
    """The command is at the store, which has not answered yet."""
    ftp = login()
    data = ftp.open_data()
    store.forget_requests()
    faults({"stall_before_reply": True}, path=f"^/{bucket}")
    ftp.send(command.format(f"/{bucket}"))
    if command.startswith("APPE"):
        ftp.read_reply()
        data.sendall(b"more")
        data.close()
    wait_for(store.requests, "the store is asked")
    leave(ftp, way, data)
    store.clear_faults()
    assert stored(bucket, "file") == sample


@ways
@pytest.mark.parametrize("which", ["both", "data", "control"])
@pytest.mark.parametrize("received", [0, 100000])
def test_in_a_download(login, server, bucket, sample, faults, way, which, received):
    ftp = login()
    faults({"stall_reply_after": SIZE // 2}, method="GET", path="/file$")
    data = ftp.open_data(receive_buffer=65536)
    ftp.expect(150, f"RETR /{bucket}/file")
    while received > 0:
        received -= len(data.recv(received))
    if which == "both":
        leave(ftp, way, data)
    elif which == "control":
        leave(ftp, way)
        with data:
            # The server ends it: nobody is there to be told how it went.
            try:
                while data.recv(1 << 20):
                    pass
            except ConnectionResetError:
                pass
    else:
        end(ftp, way, data)
        server.store.clear_faults()
        assert ftp.read_reply().code in (425, 426)


@ways
def test_before_the_last_reply_of_a_download(login, bucket, sample, way):
    """All bytes are there; the 226 has nobody to go to."""
    ftp = login()
    data = ftp.open_data()
    ftp.expect(150, f"RETR /{bucket}/file")
    assert ftp.read_all(data) == sample
    leave(ftp, way)


@ways
@pytest.mark.parametrize("announced", KINDS)
@pytest.mark.parametrize("sent", [0, 1, 100000, SIZE - 1, SIZE])
@pytest.mark.parametrize("which", ["both", "data", "control"])
def test_in_an_upload(login, server, bucket, s3, stored, way, announced, sent, which):
    """Without an announced size an end of the data is one, whoever leaves; only a reset and a lost control connection are none."""
    s3.put_object(Bucket=bucket, Key="file", Body=b"old")
    ftp = login()
    content = random_bytes(SIZE)
    data = ftp.begin_store(f"/{bucket}/file", content[:sent], SIZE if announced else None)
    ended_well = way == "end" and which != "control" and (sent == SIZE or not announced)
    if which == "both":
        leave(ftp, way, data)
    elif which == "control":
        leave(ftp, way)
        with data:
            try:
                assert data.recv(1) == b""
            except ConnectionResetError:
                pass
    else:
        end(ftp, way, data)
        reply = ftp.read_reply()
        assert (reply.code == 226) == ended_well, reply.lines
    if which != "data":
        server.wait_idle()
    outcomes = [content[:sent]] if ended_well and which == "data" else [b"old", content[:sent]] if ended_well else [b"old"]
    assert stored(bucket, "file") in outcomes


@ways
@pytest.mark.parametrize("announced", KINDS)
def test_before_the_last_reply_of_an_upload(login, server, bucket, stored, store, faults, way, announced):
    """The store has the object, but has not said so."""
    ftp = login()
    content = upload_in_silence(ftp, bucket, stored, faults, announced)
    leave(ftp, way)
    store.clear_faults()
    server.wait_idle()
    assert stored(bucket, "file") == content


@ways
@pytest.mark.parametrize("which", ["both", "data", "control"])
def test_in_a_listing(login, bucket, store, faults, way, which):
    """The first page has gone out, the second is being waited for."""
    page = ("<ListBucketResult><IsTruncated>true</IsTruncated><NextMarker>file</NextMarker><Contents><Key>file</Key><Size>1</Size>"
            "<LastModified>2020-01-01T00:00:00.000Z</LastModified></Contents></ListBucketResult>")
    pages = {"method": "GET", "path": f"^/{bucket}/?$"}
    faults({"stall_before_reply": True}, query="marker=file", **pages)
    faults({"status": 200, "body": page}, **pages)
    ftp = login()
    store.forget_requests()
    data = ftp.open_data()
    ftp.send(f"MLSD /{bucket}")
    wait_for(lambda: any("marker=file" in entry["query"] for entry in store.requests()), "the second page is asked for")
    if which == "both":
        leave(ftp, way, data)
    elif which == "control":
        leave(ftp, way)
        data.close()
    else:
        end(ftp, way, data)
        store.clear_faults()
        # What there is fits into the connection: a client that only closes may be taken for one that has it all.
        assert final_reply(ftp).code in (226, 425, 426)


@ways
def test_in_a_checksum(login, bucket, s3, store, faults, way):
    content = random_bytes(SIZE)
    s3.put_object(Bucket=bucket, Key="file", Body=content)
    ftp = login()
    faults({"stall_reply_after": SIZE // 2}, method="GET", path="/file$")
    store.forget_requests()
    ftp.send(f"CKSM MD5 1 {SIZE - 1} /{bucket}/file")
    wait_for(lambda: asked(store, "GET", "/file"), "the file is being read")
    leave(ftp, way)


# -- ABOR ------------------------------------------------------------------------------------------------------------------
@pytest.mark.parametrize("command", ["RETR {}/file", "NLST {}", "MLSD {}", "SIZE {}/file", "MLST {}/file", "CKSM MD5 0 -1 {}/file"])
def test_abort_before_the_answer(ftp, bucket, store, faults, sample, command):
    """A reply to the command, whichever, one to ABOR, and none more."""
    data = ftp.open_data()
    store.forget_requests()
    faults({"stall_before_reply": True}, path=f"^/{bucket}")
    ftp.send(command.format(f"/{bucket}"))
    wait_for(store.requests, "the store is asked")
    ftp.send("ABOR")
    store.clear_faults()
    assert final_reply(ftp).code in (213, 226, 250, 426)
    assert final_reply(ftp).code in (225, 226)
    data.close()


def test_abort_in_a_download(ftp, bucket, sample, store, faults):
    faults({"stall_reply_after": SIZE // 2}, method="GET", path="/file$")
    data = ftp.open_data()
    ftp.expect(150, f"RETR /{bucket}/file")
    ftp.send("ABOR")
    received = bytearray()
    with data:
        try:
            while block := data.recv(1 << 20):
                received += block
        except ConnectionResetError:
            pass
    assert len(received) < SIZE and sample.startswith(bytes(received))
    store.clear_faults()
    assert [final_reply(ftp).code, final_reply(ftp).code] == [426, 226]


@pytest.mark.parametrize("announced", KINDS)
@pytest.mark.parametrize("sent", [0, 1, SIZE // 2, SIZE])
def test_abort_in_an_upload(ftp, bucket, s3, stored, announced, sent):
    s3.put_object(Bucket=bucket, Key="file", Body=b"old")
    content = random_bytes(SIZE)
    data = ftp.begin_store(f"/{bucket}/file", content[:sent], SIZE if announced else None)
    ftp.send("ABOR")
    assert [final_reply(ftp).code, final_reply(ftp).code] == [426, 226]
    data.close()
    assert stored(bucket, "file") == b"old"


@pytest.mark.parametrize("announced", KINDS)
def test_abort_while_the_store_is_at_work(ftp, bucket, stored, store, faults, announced):
    content = upload_in_silence(ftp, bucket, stored, faults, announced)
    ftp.send("ABOR")
    store.clear_faults()
    assert [ftp.read_reply().code, ftp.read_reply().code] == [226, 226], "the store had confirmed"
    assert stored(bucket, "file") == content
