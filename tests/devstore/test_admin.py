"""The user administration."""

import json

import pytest
from conftest import ADMIN, ALICE, ALICE2


def get(store, target, keys=ADMIN):
    reply = store.raw("GET", target, keys=keys)
    return reply, json.loads(reply.body)


def test_user(store):
    reply, user = get(store, "/admin/user?format=json&uid=alice")
    assert reply.status == 200
    assert "content-type" not in reply.headers
    assert int(reply.headers["content-length"]) == len(reply.body)
    assert user["user_id"] == "alice"
    assert user["keys"] == [
        {"user": "alice", "access_key": key, "secret_key": secret} for key, secret in sorted((ALICE, ALICE2))
    ]
    assert (user["suspended"], user["caps"], user["admin"], user["tenant"]) == (0, [], "false", "")
    assert user["bucket_quota"]["max_size"] == -1
    assert list(user)[:5] == ["tenant", "user_id", "display_name", "email", "suspended"]


def test_forms(store):
    assert get(store, "/admin/user?uid=alice")[1]["user_id"] == "alice"
    assert get(store, f"/admin/user?access-key={ALICE2[0]}")[1]["user_id"] == "alice"
    assert get(store, "/admin/user?uid=admin")[1]["caps"][0] == {"type": "buckets", "perm": "*"}
    reply = store.raw("GET", "/admin/user?format=xml&uid=alice", keys=ADMIN)
    assert reply.headers["content-type"] == "application/xml"
    assert b"<user_info>" in reply.body and b"<access_key>ALICEKEY0001</access_key>" in reply.body
    assert get(store, "/admin/metadata/user")[1] == ["admin", "alice", "bob"]


@pytest.mark.parametrize(
    "target, keys, status, code",
    [
        ("/admin/user?uid=nobody", ADMIN, 404, "NoSuchUser"),
        ("/admin/user", ADMIN, 400, "InvalidArgument"),
        ("/admin/user?uid=bob", ALICE, 403, "AccessDenied"),
        ("/admin/user?uid=bob", None, 403, "AccessDenied"),
        ("/admin/user?uid=bob", (ADMIN[0], "wrong"), 403, "SignatureDoesNotMatch"),
        ("/admin/user?uid=bob", ("NOBODY", "x"), 403, "InvalidAccessKeyId"),
    ],
)
def test_refusals(store, target, keys, status, code):
    reply, document = get(store, target, keys)
    assert (reply.status, document["Code"], document["Message"]) == (status, code, "")
    assert reply.headers["content-type"] == "application/json"
    assert document["RequestId"].startswith("tx")


def test_other_entry(make_store):
    store = make_store("--admin-entry", "ops/v1")
    assert get(store, "/ops/v1/user?uid=bob")[1]["user_id"] == "bob"
    reply = store.raw("GET", "/admin/user?uid=bob", keys=ADMIN)
    assert (reply.status, b"NoSuchBucket" in reply.body) == (404, True)


def test_users_file(make_store, tmp_path):
    users = {
        "users": [
            {"uid": "t$carol", "display_name": "Carol", "email": "c@x", "keys": [["C1", "S1"]], "admin": True},
            {"uid": "dave", "keys": [["D1", "S2"]], "suspended": True},
        ]
    }
    (tmp_path / "users.json").write_text(json.dumps(users))
    store = make_store("--users-file", str(tmp_path / "users.json"))
    user = get(store, "/admin/user?uid=t%24carol", ("C1", "S1"))[1]
    assert (user["tenant"], user["user_id"], user["display_name"], user["email"]) == ("t", "carol", "Carol", "c@x")
    assert user["keys"][0]["user"] == "t$carol"
    assert get(store, "/admin/user?uid=dave", ("C1", "S1"))[1]["suspended"] == 1
    reply = store.raw("GET", "/", keys=("D1", "S2"))
    assert (reply.status, b"AccessDenied" in reply.body) == (403, True)


def test_users_added_while_running(store):
    store.control("POST", "/users", {"users": [{"uid": "erin", "keys": [["E1", "old"]]}]})
    assert store.s3(("E1", "old")).list_buckets()["Owner"]["ID"] == "erin"
    store.control("POST", "/users", {"users": [{"uid": "erin", "keys": [["E2", "new"]]}]})
    assert store.s3(("E2", "new")).list_buckets()["Owner"]["ID"] == "erin"
    assert store.raw("GET", "/", keys=("E1", "old")).status == 403
