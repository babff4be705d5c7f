"""Log-in: who gets in, who does not, and what the refusal says."""

import pytest

from gateway import CAROL_IS_NOT_IN_THE_STORE as CAROL


def test_password_opens_session(connect, server):
    ftp = connect()
    assert ftp.greeting.code == 220
    assert ftp.command("USER alice").code == 331
    assert ftp.command(f"PASS {server.passwords['alice']}").code == 230
    assert ftp.expect(257, "PWD").last.startswith('"/"')
    ftp.quit()


def test_yescrypt_hash_opens_session(connect, server):
    assert connect().login("bob", server.passwords["bob"]).code == 230


def test_wrong_password_is_refused(connect, server):
    ftp = connect()
    reply = ftp.login("alice", server.passwords["alice"] + "x")
    assert reply.code == 530
    assert ftp.command("PWD").code == 530


def test_unknown_user_cannot_be_told_from_wrong_password(connect):
    wrong = connect().login("alice", "no")
    unknown_ftp = connect()
    question = unknown_ftp.command("USER nobody-of-that-name")
    assert question.code == 331
    unknown = unknown_ftp.command("PASS no")
    assert (unknown.code, unknown.lines) == (wrong.code, wrong.lines)


def test_refused_client_may_try_again_on_the_same_connection(connect, server):
    ftp = connect()
    assert ftp.login("alice", "no").code == 530
    assert ftp.login("alice", server.passwords["alice"]).code == 230


def test_user_unknown_to_the_store(connect, server):
    reply = connect().login(CAROL, server.passwords[CAROL])
    assert reply.code == 530
    assert f'No access key for ceph user "{CAROL}"' in reply.text


@pytest.mark.parametrize("host", ["down.test", "badadmin.test"])
def test_store_that_cannot_be_asked(connect, server, host):
    """A store that does not answer and one that refuses the administrator look the same to the client: no key was found."""
    ftp = connect(host)
    reply = ftp.login("alice", server.passwords["alice"])
    assert reply.code == 530
    assert 'No access key for ceph user "alice"' in reply.text
    for pairs in server.store.users.values():
        assert not any(access in reply.text or secret in reply.text for access, secret in pairs)
    assert ftp.command("PWD").code == 530


def test_store_trouble_bans_nobody(connect, server):
    for _ in range(6):
        assert connect("down.test").login("alice", server.passwords["alice"]).code == 530
    assert connect().login("alice", server.passwords["alice"]).code == 230


def test_policy_endpoint_without_scheme(connect, server):
    reply = connect("noscheme.test").login("alice", server.passwords["alice"])
    assert reply.code == 530
    assert "no storage session for this collection" in reply.text


def test_empty_policy_refuses_and_never_falls_back(connect, server):
    ftp = connect("empty.test")
    assert ftp.login("alice", server.passwords["alice"]).code == 530
    assert ftp.command("PWD").code == 530


def test_unknown_host_is_refused(connect):
    assert connect().command("HOST nowhere.test").code == 504


def test_before_login(connect):
    """What clients ask before they log in is answered; what touches the store is not."""
    ftp = connect()
    features = ftp.expect(211, "FEAT")
    assert all(line.startswith(" ") for line in features.lines[1:-1])
    offered = [line.strip() for line in features.lines[1:-1]]
    assert {"UTF8", "SIZE", "MDTM", "REST STREAM", "TVFS", "EPSV", "EPRT", "HOST"} <= set(offered)
    assert any(line.startswith("MLST type*;") for line in offered)
    assert "MFMT" not in offered  # clients would send it after every upload
    assert ftp.expect(215, "SYST").last == "UNIX Type: L8"
    assert ftp.command("NOOP").code == 200
    assert ftp.command("CLNT test").code == 200
    assert ftp.command("OPTS UTF8 ON").code == 200
    assert ftp.command("HELP").code in (211, 214)
    for line in ("PWD", "CWD /", "EPSV", "SIZE /a/b", "RETR /a/b", "STOR /a/b", "LIST", "DELE /a/b", "SITE STAGE /a/b"):
        assert ftp.command(line).code == 530, line


def test_rein_logs_out(ftp, server):
    assert ftp.command("REIN").code == 220
    assert ftp.command("PWD").code == 530
    assert ftp.login("bob", server.passwords["bob"]).code == 230


def test_each_user_acts_with_own_keys(login, new_bucket, server):
    """Bob's bucket is Bob's: Alice is refused by the store, not by the gateway's good will."""
    bobs = new_bucket("bob")
    server.store.client("bob").put_object(Bucket=bobs, Key="private", Body=b"bob's")
    assert login("bob").retrieve(f"/{bobs}/private") == b"bob's"
    alice = login("alice")
    replies, content = alice.fetch(f"RETR /{bobs}/private")
    assert content is None
    assert replies[0].code == 550 and replies[0].word == "PERMISSION_DENIED"
    assert bobs not in alice.listing("NLST", "/")
