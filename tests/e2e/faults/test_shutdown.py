"""The administrator ends the server, by SIGTERM or by force, while something is under way."""

import signal
import socket

import pytest

from ftp_client import FtpClient
from stores import random_bytes
from waiting import wait_for

SIZE = 6 << 20


@pytest.fixture
def gateway(fresh_server):
    """A server of the test's own that cuts what still runs after a second."""
    return fresh_server(shutdown=1)


@pytest.fixture
def patient(fresh_server):
    """The same, which waits a minute."""
    return fresh_server(shutdown=60)


def ended(gateway, status=0):
    assert gateway.process.wait(60) == status, gateway.log_text()[-3000:]
    assert "error objects were not released" not in gateway.log_text()
    assert not any(gateway.spool.iterdir())


def cut(gateway):
    ended(gateway)
    assert "the time to shut down is over: cutting the running transfers" in gateway.log_text()


def refused(gateway):
    """No new sessions: nobody listens, or nobody greets."""
    try:
        with socket.create_connection((gateway.host, gateway.port), 30) as peer:
            return peer.recv(1) == b""
    except (ConnectionRefusedError, ConnectionResetError):
        return True


def works_again(gateway, binaries, bucket, stored, name="file"):
    """A new server at the same store."""
    gateway.start(binaries)
    with gateway.session() as ftp:
        content = random_bytes(SIZE)
        assert ftp.store(f"/{bucket}/{name}", content, allocate=SIZE).code == 226
        assert stored(bucket, name) == content
        assert ftp.retrieve(f"/{bucket}/{name}") == content


def last_words(ftp):
    """What the server says before it closes the control connection."""
    codes = []
    try:
        while True:
            codes.append(ftp.read_reply().code)
    except (EOFError, ConnectionResetError):
        return codes


def start_upload(ftp, bucket, content, announced, sent):
    if announced:
        ftp.expect(200, f"ALLO {len(content)}")
    data = ftp.open_data()
    ftp.expect(150, f"STOR /{bucket}/file")
    data.sendall(content[:sent])
    return data


def test_download_ends_first(patient, bucket, s3):
    content = random_bytes(24 << 20)
    s3.put_object(Bucket=bucket, Key="file", Body=content)
    with patient.session() as ftp:
        data = ftp.open_data(receive_buffer=65536)
        ftp.expect(150, f"RETR /{bucket}/file")
        patient.process.send_signal(signal.SIGTERM)
        wait_for(lambda: refused(patient), "no new sessions are taken")
        assert ftp.read_all(data) == content
        assert ftp.read_reply().code == 226
        assert set(last_words(ftp)) <= {421}
    ended(patient)


@pytest.mark.parametrize("announced", [True, False])
def test_upload_ends_first(patient, bucket, stored, announced):
    content = random_bytes(SIZE)
    with patient.session() as ftp:
        data = start_upload(ftp, bucket, content, announced, 1000)
        patient.process.send_signal(signal.SIGTERM)
        wait_for(lambda: refused(patient), "no new sessions are taken")
        data.sendall(content[1000:])
        data.close()
        assert ftp.read_reply().code == 226
        assert set(last_words(ftp)) <= {421}
    ended(patient)
    assert stored(bucket, "file") == content


def test_download_is_cut_at_the_limit(gateway, bucket, s3):
    content = random_bytes(24 << 20)
    s3.put_object(Bucket=bucket, Key="file", Body=content)
    with gateway.session() as ftp:
        data = ftp.open_data(receive_buffer=65536)
        ftp.expect(150, f"RETR /{bucket}/file")
        gateway.process.send_signal(signal.SIGTERM)
        cut(gateway)
        assert 226 not in last_words(ftp)
        received = bytearray()
        with data:
            try:
                while block := data.recv(1 << 20):
                    received += block
            except ConnectionResetError:
                pass
        assert len(received) < len(content) and content.startswith(bytes(received))


@pytest.mark.parametrize("announced", [True, False])
@pytest.mark.parametrize("sent", [0, SIZE - 1, SIZE])
def test_upload_is_cut_at_the_limit(gateway, bucket, s3, stored, binaries, announced, sent):
    """Also with all bytes there: the client has not said that these are all."""
    s3.put_object(Bucket=bucket, Key="file", Body=b"old")
    with gateway.session() as ftp:
        data = start_upload(ftp, bucket, random_bytes(SIZE), announced, sent)
        gateway.process.send_signal(signal.SIGTERM)
        cut(gateway)
        assert 226 not in last_words(ftp)
        data.close()
    assert stored(bucket, "file") == b"old"
    works_again(gateway, binaries, bucket, stored)


def test_clients_with_nothing_to_do_are_sent_away(patient):
    clients = [patient.session() for _ in range(5)]
    patient.process.send_signal(signal.SIGTERM)
    for client in clients:
        assert last_words(client) == [421]
        client.close()
    ended(patient)


def test_before_login(patient):
    with FtpClient(patient.host, patient.port) as ftp:
        ftp.expect(331, "USER alice")
        patient.process.send_signal(signal.SIGTERM)
        assert last_words(ftp) == [421]
    ended(patient)


def test_second_signal_ends_it_at_once(patient, bucket, s3, stored, binaries):
    s3.put_object(Bucket=bucket, Key="file", Body=b"old")
    with patient.session() as ftp:
        data = start_upload(ftp, bucket, random_bytes(SIZE), True, SIZE - 1)
        patient.process.send_signal(signal.SIGTERM)
        wait_for(lambda: "shutting down" in patient.log_text(), "the first signal has been heard")
        wait_for(lambda: refused(patient), "no new sessions are taken")
        patient.process.send_signal(signal.SIGTERM)
        assert patient.process.wait(60) == -signal.SIGTERM
        data.close()
    assert stored(bucket, "file") == b"old"
    works_again(patient, binaries, bucket, stored)


@pytest.mark.slow
@pytest.mark.devstore_only(reason="the store has to stall")
def test_store_that_never_answers(gateway, bucket, store, stored, binaries):
    """The worker sits in its request: the server ends without it, in order as far as anybody can tell."""
    content = random_bytes(SIZE)
    store.add_fault({"method": "PUT", "path": "/file$", "count": 0}, {"stall_before_reply": True})
    try:
        with gateway.session() as ftp:
            start_upload(ftp, bucket, content, True, SIZE).close()
            wait_for(lambda: stored(bucket, "file") == content, "the store has it all")
            gateway.process.send_signal(signal.SIGTERM)
            cut(gateway)
            assert 226 not in last_words(ftp)
    finally:
        store.clear_faults()
    assert "ending with back-end work still running" in gateway.log_text()
    assert stored(bucket, "file") == content
    works_again(gateway, binaries, bucket, stored)


@pytest.mark.parametrize("announced", [True, False])
@pytest.mark.parametrize("sent", [0, 1000, SIZE - 1, SIZE])
def test_killed_in_an_upload(gateway, bucket, s3, stored, binaries, announced, sent):
    """Nothing is published, nothing is left on disk, and the next server knows nothing of it."""
    s3.put_object(Bucket=bucket, Key="file", Body=b"old")
    with gateway.session() as ftp:
        data = start_upload(ftp, bucket, random_bytes(SIZE), announced, sent)
        gateway.process.kill()
        ended(gateway, -signal.SIGKILL)
        data.close()
    assert stored(bucket, "file") == b"old"
    works_again(gateway, binaries, bucket, stored)
    assert "Uploads" not in s3.list_multipart_uploads(Bucket=bucket)


def test_killed_in_a_download(gateway, bucket, s3, stored, binaries):
    content = random_bytes(24 << 20)
    s3.put_object(Bucket=bucket, Key="file", Body=content)
    with gateway.session() as ftp:
        data = ftp.open_data(receive_buffer=65536)
        ftp.expect(150, f"RETR /{bucket}/file")
        gateway.process.kill()
        ended(gateway, -signal.SIGKILL)
        data.close()
    works_again(gateway, binaries, bucket, stored, "other")
    assert stored(bucket, "file") == content
