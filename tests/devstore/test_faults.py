"""Scripted faults: each does what it says, as often as it says, and nothing else."""

import http.client
import time
import urllib.error

import pytest
from conftest import wait_until
from test_connection import Peer, expecting
from test_objects import refused


@pytest.fixture
def key(s3, bucket):
    s3.put_object(Bucket=bucket, Key="k", Body=b"0123456789" * 1000)
    return f"/{bucket}/k"


def outcome(store):
    return store.log()[-1]["outcome"]


def test_status_count_and_skip(store, key):
    store.fault({"status": 503, "body": "<Error><Code>SlowDown</Code></Error>"}, method="GET", path="/k$", skip=1, count=2)
    assert [store.raw("GET", key).status for _ in range(5)] == [200, 503, 503, 200, 200]
    assert store.raw("HEAD", key).status == 200


def test_rule_without_end_until_removed(store, key):
    store.fault({"status": 500}, count=0)
    assert [store.raw("GET", key).status for _ in range(3)] == [500] * 3
    store.control("DELETE", "/faults")
    assert store.raw("GET", key).status == 200


def test_query_match(store, bucket, key):
    store.fault({"status": 500}, query="prefix=x", count=0)
    assert store.raw("GET", f"/{bucket}?prefix=y").status == 200
    assert store.raw("GET", f"/{bucket}?prefix=x").status == 500


def test_headers(store, key):
    store.fault({"headers": {"X-Added": "1", "Last-Modified": None, "content-type": "x/y"}})
    reply = store.raw("GET", key)
    assert (reply.status, reply.headers["x-added"], reply.headers["content-type"]) == (200, "1", "x/y")
    assert "last-modified" not in reply.headers


def test_answered_after_performing(store, s3, bucket, key):
    store.fault({"status": 500, "body": "<Error><Code>InternalError</Code></Error>", "perform": True}, method="PUT")
    assert store.raw("PUT", key, body=b"new").status == 500
    assert s3.get_object(Bucket=bucket, Key="k")["Body"].read() == b"new"


def test_answered_without_performing(store, s3, bucket, key):
    for read_body in (False, True):
        store.fault({"status": 500, "read_body": read_body}, method="PUT")
        assert store.raw("PUT", key, body=b"new").status == 500
        assert store.log()[-1]["bytes_in"] == (3 if read_body else 0)
        assert s3.get_object(Bucket=bucket, Key="k")["ContentLength"] == 10000


def test_error_in_a_200(store, s3, bucket, key):
    store.fault({"status": 200, "body": "<Error><Code>InternalError</Code></Error>"}, method="POST")
    reply = store.raw("POST", f"/{bucket}/k?uploadId=x", body=b"<x/>")
    assert (reply.status, reply.headers["content-type"]) == (200, "application/xml")
    assert reply.body == b"<Error><Code>InternalError</Code></Error>"


def test_redirect(store, key):
    store.fault({"redirect": "http://127.0.0.1:1/elsewhere"})
    reply = store.raw("GET", key)
    assert (reply.status, reply.headers["location"]) == (307, "http://127.0.0.1:1/elsewhere")
    store.fault({"redirect": "http://127.0.0.1:1/elsewhere", "status": 301})
    assert store.raw("GET", key).status == 301


def test_cut_before_reply(store, s3, bucket, key):
    store.fault({"cut_before_reply": True}, method="PUT")
    with pytest.raises(http.client.RemoteDisconnected):
        store.raw("PUT", key, body=b"stored")
    assert outcome(store) == "cut"
    assert s3.get_object(Bucket=bucket, Key="k")["Body"].read() == b"stored"


def test_reset(store, key):
    store.fault({"cut_before_reply": True, "reset": True})
    with pytest.raises(ConnectionResetError):
        store.raw("GET", key)


@pytest.mark.parametrize("after", [0, 1, 5000, 10000])
def test_cut_reply(store, key, after):
    store.fault({"cut_reply_after": after})
    with Peer(store) as peer:
        peer.head("GET", key, store.signed("GET", key))
        data = b""
        while piece := peer.fill():
            data += piece
    head, _, body = peer.buffer.partition(b"\r\n\r\n")
    assert b"Content-Length: 10000\r\n" in head
    assert len(body) == after
    assert (outcome(store), store.log()[-1]["bytes_out"]) == ("cut", after)


@pytest.mark.parametrize("after", [0, 10, 99999])
def test_cut_request(store, s3, bucket, after):
    target = f"/{bucket}/new"
    store.fault({"cut_request_after": after}, method="PUT")
    with Peer(store) as peer:
        peer.head("PUT", target, store.signed("PUT", target, {"Content-Length": "100000"}))
        try:
            peer.send(b"x" * 100000)
            assert peer.fill() == b""
        except ConnectionError:
            pass
    assert (outcome(store), store.log()[-1]["bytes_in"]) == ("cut", after)
    assert s3.list_objects_v2(Bucket=bucket)["KeyCount"] == 0


def test_stalled_reply_ends_with_the_rules(store, key):
    store.fault({"stall_reply_after": 4000})
    with Peer(store) as peer:
        peer.head("GET", key, store.signed("GET", key))
        while len(peer.buffer.partition(b"\r\n\r\n")[2]) < 4000:
            assert peer.fill()
        assert len(peer.buffer.partition(b"\r\n\r\n")[2]) == 4000
        assert outcome(store) == "running"
        store.control("DELETE", "/faults")
        assert len(peer.reply()[2]) == 10000


def test_stall_before_reply_ends_with_the_peer(store, key):
    store.fault({"stall_before_reply": True})
    with Peer(store) as peer:
        peer.head("GET", key, store.signed("GET", key))
        wait_until(lambda: store.log()[-1]["path"] == key)
    wait_until(lambda: outcome(store) != "running")
    assert outcome(store) == "lost"


def test_stalled_request(store, s3, bucket):
    target = f"/{bucket}/new"
    store.fault({"stall_request_after": 10}, method="PUT")
    with Peer(store) as peer:
        peer.head("PUT", target, store.signed("PUT", target, {"Content-Length": "20"}))
        peer.send(b"x" * 20)
        wait_until(lambda: store.log()[-1]["path"] == target)
        store.control("DELETE", "/faults")
        assert peer.reply()[0] == 200
    assert s3.head_object(Bucket=bucket, Key="new")["ContentLength"] == 20


def test_short_body(store, key):
    store.fault({"short_body": 4})
    reply = store.raw("GET", key)
    assert (reply.status, reply.headers["content-length"], len(reply.body)) == (200, "9996", 9996)


def test_overlong_body(store, key):
    store.fault({"overlong": 7})
    with Peer(store) as peer:
        peer.head("GET", key, store.signed("GET", key))
        while peer.fill():
            pass
    head, _, body = peer.buffer.partition(b"\r\n\r\n")
    assert (b"Content-Length: 10000\r\n" in head, len(body)) == (True, 10007)


def test_etags(store, s3, bucket, key):
    store.fault({"etag": "wrong"}, method="HEAD")
    assert s3.head_object(Bucket=bucket, Key="k")["ETag"] == '"00000000000000000000000000000bad"'
    store.fault({"etag": "missing"}, method="PUT")
    assert "etag" not in store.raw("PUT", key, body=b"x").headers
    store.fault({"etag": "missing"}, path=f"^/{bucket}$")
    assert "ETag" not in s3.list_objects_v2(Bucket=bucket)["Contents"][0]
    store.fault({"etag": "wrong"}, path=f"^/{bucket}$")
    listed = s3.list_objects_v2(Bucket=bucket)["Contents"][0]
    assert listed["ETag"] == '"00000000000000000000000000000bad"'


def test_truncated_xml(store, bucket, key):
    store.fault({"truncate_xml": True})
    whole = None
    cut = store.raw("GET", f"/{bucket}")
    whole = store.raw("GET", f"/{bucket}")
    assert (cut.status, cut.body) == (200, whole.body[: len(whole.body) // 2])


def test_ignored_range(store, key):
    store.fault({"ignore_range": True})
    reply = store.raw("GET", key, headers={"Range": "bytes=5-9"})
    assert (reply.status, len(reply.body)) == (200, 10000)
    reply = store.raw("GET", key, headers={"Range": "bytes=5-9"})
    assert (reply.status, reply.body) == (206, b"56789")


def test_withheld_continue(store, bucket):
    target = f"/{bucket}/new"
    store.fault({"withhold_continue": True})
    with Peer(store) as peer:
        peer.head("PUT", target, expecting(store, target, 3))
        peer.send(b"abc")
        assert peer.reply()[0] == 200
    assert store.log()[-1]["continue"] is False


def test_delay(store, key):
    """The delayed request is answered late, and keeps nobody else waiting."""
    store.fault({"delay_ms": 600000}, query="held")
    store.fault({"delay_ms": 300}, query="late")
    with Peer(store) as peer:
        peer.head("GET", key + "?held", store.signed("GET", key + "?held"))
        wait_until(lambda: any("held" in e["query"] for e in store.log()))
        began = time.monotonic()
        assert store.raw("GET", key + "?late").status == 200
        assert time.monotonic() - began >= 0.3
        assert [e["outcome"] for e in store.log() if "held" in e["query"]] == ["running"]


@pytest.mark.parametrize(
    "rule",
    [
        {},
        {"match": {}},
        {"match": {}, "action": {"stauts": 500}},
        {"match": {"path": "("}, "action": {"status": 500}},
        {"match": {}, "action": {"status": 99}},
        {"match": {}, "action": {"etag": "odd"}},
        {"match": {"mehtod": "GET"}, "action": {"status": 500}},
    ],
)
def test_wrong_rules_are_refused(store, key, rule):
    with pytest.raises(urllib.error.HTTPError) as error:
        store.control("POST", "/faults", rule)
    assert error.value.code == 400
    assert store.raw("GET", key).status == 200
