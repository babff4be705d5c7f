"""The store fails while a user's keys are looked up: 530, nobody is banned, and the next one gets in."""

import json

import pytest

from refusals import all_refusals, asked

pytestmark = pytest.mark.devstore_only(reason="the faults are scripted in the dev store")

ADMIN = "^/admin/user"


@pytest.fixture
def attempt(connect, server):
    return lambda: connect().login("alice", server.passwords["alice"])


def refused(reply):
    assert reply.code == 530
    assert 'No access key for ceph user "alice"' in reply.text


@all_refusals()
def test_refusal(attempt, store, faults, refusal):
    faults(refusal.action, path=ADMIN)
    store.forget_requests()
    refused(attempt())
    assert asked(store, "GET", "/admin/user") == (2 if refusal.retried else 1)


def test_one_refusal_is_retried(attempt, faults):
    faults({"status": 500}, count=1, path=ADMIN)
    assert attempt().code == 230


def test_the_same_connection_may_try_again(connect, server, faults, store):
    ftp = connect()
    faults({"status": 503}, path=ADMIN)
    refused(ftp.login("alice", server.passwords["alice"]))
    store.clear_faults()
    assert ftp.login("alice", server.passwords["alice"]).code == 230


@pytest.mark.parametrize("body", [
    "", "not json", "{}", '{"user_id":"alice","keys":[]}', "[1,2", '{"keys":"none"}', '{"user_id":"alice","keys":[{}]}',
    '{"user_id":"alice","keys":[{"user":"bob","access_key":"A","secret_key":"S"}]}', "<Error><Code>AccessDenied</Code></Error>",
    json.dumps({"user_id": "alice", "keys": [{"user": "alice", "access_key": "A" * 1000, "secret_key": "S" * 1000}]}),
    "[" * 100000])
def test_strange_answer(attempt, faults, body):
    faults({"status": 200, "body": body}, path=ADMIN)
    refused(attempt())


@pytest.mark.parametrize("reset", [False, True], ids=["FIN", "RST"])
@pytest.mark.parametrize("action", [{"cut_before_reply": True}, {"cut_reply_after": 0}, {"cut_reply_after": 40}], ids=str)
def test_cut(attempt, faults, action, reset):
    faults({**action, "reset": reset}, path=ADMIN)
    refused(attempt())


@pytest.mark.parametrize("action", [{"cut_before_reply": True}, {"overlong": 5}, {"delay_ms": 300}, {"redirect": "{}/admin/user?uid=alice&format=json"}],
                         ids=str)
def test_what_does_not_matter(attempt, faults, store, action):
    if "redirect" in action:
        action = {"redirect": action["redirect"].format(store.endpoint)}
    faults(action, count=1, path=ADMIN)
    assert attempt().code == 230


@pytest.mark.parametrize("action", [
    {"short_body": 100},
    {"status": 301, "body": "<Error><Code>PermanentRedirect</Code></Error>", "headers": {"x-amz-bucket-region": "eu-west-1"}},
    {"redirect": "http://127.0.0.1:1/admin/user", "status": 301}, {"redirect": "http://127.0.0.1:1/admin/user"}], ids=str)
def test_lies(attempt, faults, action):
    faults(action, path=ADMIN)
    refused(attempt())


def test_redirect_in_a_circle(attempt, faults, store):
    faults({"redirect": store.endpoint + "/admin/user?uid=alice&format=json"}, path=ADMIN)
    store.forget_requests()
    refused(attempt())
    assert asked(store, "GET", "/admin/user") < 20


def test_clocks_apart(attempt, store):
    store.skew(3600)
    try:
        refused(attempt())
    finally:
        store.skew(0)


def test_others_go_on_while_one_waits(connect, login, server, bucket, store, faults):
    """A store that keeps one log-in waiting: the client's own control connection lives, and everybody else works."""
    ftp = login()
    faults({"stall_before_reply": True}, path=ADMIN)
    waiting = connect()
    waiting.expect(331, "USER alice")
    waiting.send(f"PASS {server.passwords['alice']}")
    assert ftp.store(f"/{bucket}/file", b"content").code == 226
    assert ftp.retrieve(f"/{bucket}/file") == b"content"
    store.clear_faults()
    assert waiting.read_reply().code == 230
