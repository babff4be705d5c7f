"""The HTTP side: 100-continue, kept connections, refusals before the body, hostile heads."""

import re
import socket

import pytest
from conftest import ALICE, BOB


class Peer:
    """A bare connection that reads one reply at a time."""

    def __init__(self, store):
        self.socket = socket.create_connection(("127.0.0.1", store.port), timeout=30)
        self.buffer = b""

    def send(self, data):
        self.socket.sendall(data)

    def head(self, method, target, headers):
        lines = [f"{method} {target} HTTP/1.1"] + [f"{n}: {v}" for n, v in headers.items()]
        self.send("\r\n".join(lines + ["", ""]).encode())

    def fill(self):
        data = self.socket.recv(65536)
        self.buffer += data
        return data

    def reply(self, head_only=False):
        while b"\r\n\r\n" not in self.buffer:
            assert self.fill(), "closed before a reply: " + repr(self.buffer)
        head, self.buffer = self.buffer.split(b"\r\n\r\n", 1)
        status = int(head.split()[1])
        length = re.search(rb"(?i)content-length: (\d+)", head)
        size = int(length.group(1)) if length and not head_only and status >= 200 else 0
        while len(self.buffer) < size:
            assert self.fill(), "closed within a body"
        body, self.buffer = self.buffer[:size], self.buffer[size:]
        return status, head.decode(), body

    def closed(self):
        """True when the store ends the connection without sending more."""
        return self.buffer == b"" and self.fill() == b""

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()


def expecting(store, target, size, keys=ALICE, **headers):
    return store.signed("PUT", target, {"Expect": "100-continue", "Content-Length": str(size), **headers}, keys=keys)


def test_continue_comes_before_the_body(store, s3, bucket):
    with Peer(store) as peer:
        for data in (b"", b"first", b"second"):
            peer.head("PUT", f"/{bucket}/k", expecting(store, f"/{bucket}/k", len(data)))
            assert peer.reply()[0] == 100
            peer.send(data)
            assert peer.reply()[0] == 200
    assert s3.get_object(Bucket=bucket, Key="k")["Body"].read() == b"second"
    entries = [e for e in store.log() if e["method"] == "PUT" and e["path"] == f"/{bucket}/k"]
    assert [(e["continue"], e["bytes_in"], e["status"]) for e in entries] == [(True, 0, 200), (True, 5, 200),
                                                                                 (True, 6, 200)]
    assert len({e["connection"] for e in entries}) == 1


@pytest.mark.parametrize(
    "target, keys, headers, code",
    [
        ("/no-such-bucket/k", ALICE, {}, b"NoSuchBucket"),
        ("/{bucket}/k", BOB, {}, b"AccessDenied"),
        ("/{bucket}/k", (ALICE[0], "wrong"), {}, b"SignatureDoesNotMatch"),
        ("/{bucket}/k", ALICE, {"Content-MD5": "nonsense"}, b"InvalidDigest"),
        ("/{bucket}/k", ALICE, {"x-amz-storage-class": "NONE"}, b"InvalidArgument"),
        ("/{bucket}/k?partNumber=1&uploadId=none", ALICE, {}, b"NoSuchUpload"),
        ("/{bucket}/k", ALICE, {"Content-Length": str((5 << 30) + 1)}, b"EntityTooLarge"),
    ],
)
def test_refusal_instead_of_continue(store, bucket, target, keys, headers, code):
    target = target.format(bucket=bucket)
    with Peer(store) as peer:
        peer.head("PUT", target, expecting(store, target, 1 << 20, keys, **headers))
        status, head, body = peer.reply()
        assert 400 <= status < 500
        assert code in body
        assert "connection: close" in head.lower()
        assert peer.closed()
    assert store.log()[-1]["continue"] is False


def test_refusal_of_a_large_body_in_flight(store):
    """The refusal arrives although the client was still sending."""
    target = "/no-such-bucket/k"
    with Peer(store) as peer:
        peer.head("PUT", target, store.signed("PUT", target, {"Content-Length": str(64 << 20)}))
        peer.send(bytes(3 << 20))
        status, head, body = peer.reply()
        assert (status, b"NoSuchBucket" in body) == (404, True)
        assert peer.closed()


def test_connection_survives_a_small_refused_body(store, bucket):
    target = "/no-such-bucket/k"
    with Peer(store) as peer:
        peer.head("PUT", target, store.signed("PUT", target, {"Content-Length": "1000"}))
        peer.send(b"x" * 1000)
        assert peer.reply()[0] == 404
        peer.head("GET", f"/{bucket}", store.signed("GET", f"/{bucket}"))
        assert peer.reply()[0] == 200


def test_pipelined_requests(store, bucket):
    with Peer(store) as peer:
        for key in ("a", "b"):
            peer.head("PUT", f"/{bucket}/{key}", store.signed("PUT", f"/{bucket}/{key}", {"Content-Length": "1"}))
            peer.send(key.encode())
        assert [peer.reply()[0], peer.reply()[0]] == [200, 200]
        peer.head("GET", f"/{bucket}/a", store.signed("GET", f"/{bucket}/a"))
        peer.head("HEAD", f"/{bucket}/b", store.signed("HEAD", f"/{bucket}/b"))
        assert peer.reply()[2] == b"a"
        status, head, _ = peer.reply(head_only=True)
        assert (status, "content-length: 1\r\n" in head.lower()) == (200, True)


def test_close_on_request(store, bucket):
    with Peer(store) as peer:
        headers = store.signed("GET", f"/{bucket}")
        peer.head("GET", f"/{bucket}", {**headers, "Connection": "close"})
        assert peer.reply()[0] == 200
        assert peer.closed()


@pytest.mark.parametrize(
    "text", [b"nonsense\r\n\r\n", b"GET / HTTP/1.1\r\nx: " + b"y" * 100000 + b"\r\n\r\n", b"\x16\x03\x01\x00\x00\r\n\r\n"]
)
def test_malformed_heads(store, bucket, text):
    with Peer(store) as peer:
        try:
            peer.send(text)
            status = peer.reply()[0]
        except ConnectionError:
            status = 400
        assert status == 400
    assert store.raw("GET", f"/{bucket}").status == 200


def test_idle_connections_are_closed(make_store):
    with Peer(make_store("--idle-timeout", "1")) as peer:
        assert peer.closed()
