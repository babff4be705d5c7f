"""Signature V4: what is accepted, and how each kind of wrong request is refused."""

import datetime
import hashlib
import subprocess
import urllib.error
import urllib.request

import botocore.auth
import pytest
from botocore.exceptions import ClientError
from conftest import ADMIN, ALICE, ALICE2, BOB


def code(error):
    return error.value.response["Error"]["Code"], error.value.response["ResponseMetadata"]["HTTPStatusCode"]


def test_second_key_of_a_user_sees_the_same_buckets(store, bucket):
    names = [b["Name"] for b in store.s3(ALICE2).list_buckets()["Buckets"]]
    assert bucket in names


@pytest.mark.parametrize("region", ["us-east-1", "default", "eu-west-3"])
def test_any_region_is_taken(store, region):
    assert store.s3(region=region).list_buckets()["Owner"]["ID"] == "alice"


def test_unknown_key(store):
    with pytest.raises(ClientError) as error:
        store.s3(("NOBODY", "x")).list_buckets()
    assert code(error) == ("InvalidAccessKeyId", 403)


def test_wrong_secret(store):
    with pytest.raises(ClientError) as error:
        store.s3((ALICE[0], "wrong")).list_buckets()
    assert code(error) == ("SignatureDoesNotMatch", 403)


def test_anonymous(store, bucket):
    reply = store.raw("GET", f"/{bucket}", keys=None)
    assert reply.status == 403
    assert b"<Code>AccessDenied</Code>" in reply.body


@pytest.mark.parametrize("offset", [1000, -1000])
def test_skewed_clock(store, offset):
    store.control("POST", "/clock", {"request_offset": offset})
    with pytest.raises(ClientError) as error:
        store.s3().list_buckets()
    assert code(error) == ("RequestTimeTooSkewed", 403)


@pytest.mark.parametrize("offset", [800, -800])
def test_small_skew_is_allowed(store, offset):
    store.control("POST", "/clock", {"request_offset": offset})
    assert store.s3().list_buckets()["Owner"]["ID"] == "alice"


def test_signature_of_another_request(store, bucket):
    headers = store.signed("GET", f"/{bucket}?prefix=a")
    reply = store.raw("GET", f"/{bucket}?prefix=b", headers=headers, keys=None)
    assert (reply.status, b"SignatureDoesNotMatch" in reply.body) == (403, True)


def test_unsigned_amz_header_is_refused(store, bucket):
    headers = store.signed("PUT", f"/{bucket}/k", body=b"x")
    headers["x-amz-meta-added"] = "later"
    reply = store.raw("PUT", f"/{bucket}/k", headers=headers, body=b"x", keys=None)
    assert (reply.status, b"AccessDenied" in reply.body) == (403, True)


def test_malformed_authorization(store):
    reply = store.raw("GET", "/", headers={"Authorization": "AWS4-HMAC-SHA256 nonsense"}, keys=None)
    assert (reply.status, b"InvalidArgument" in reply.body) == (400, True)


def test_payload_hash(store, s3, bucket):
    body = b"signed body"
    good = hashlib.sha256(body).hexdigest()
    assert store.raw("PUT", f"/{bucket}/good", body=body, payload=good).status == 200
    bad = store.raw("PUT", f"/{bucket}/bad", body=body, payload=hashlib.sha256(b"other").hexdigest())
    assert (bad.status, b"XAmzContentSHA256Mismatch" in bad.body) == (400, True)
    assert [o["Key"] for o in s3.list_objects_v2(Bucket=bucket)["Contents"]] == ["good"]


def test_missing_payload_hash_counts_as_unsigned(store, bucket):
    class NoHash(botocore.auth.SigV4Auth):
        def payload(self, request):
            return "UNSIGNED-PAYLOAD"

    from botocore.awsrequest import AWSRequest
    from botocore.credentials import Credentials

    request = AWSRequest(method="GET", url=f"{store.url}/{bucket}")
    NoHash(Credentials(*ALICE), "s3", "us-east-1").add_auth(request)
    headers = dict(request.headers)
    assert "X-Amz-Content-SHA256" not in headers
    assert store.raw("GET", f"/{bucket}", headers=headers, keys=None).status == 200


def test_unsupported_payload_form(store, bucket):
    reply = store.raw("PUT", f"/{bucket}/k", body=b"x", payload="STREAMING-UNSIGNED-PAYLOAD-TRAILER")
    assert (reply.status, b"XAmzContentSHA256Mismatch" in reply.body) == (400, True)


def chunked_body(store, path, chunks, spoil=False):
    """Signs `chunks` as STREAMING-AWS4-HMAC-SHA256-PAYLOAD; returns headers and framed body."""
    import hmac

    size = sum(len(c) for c in chunks)
    headers = store.signed(
        "PUT", path, headers={"x-amz-decoded-content-length": str(size)}, payload="STREAMING-AWS4-HMAC-SHA256-PAYLOAD"
    )
    authorization = headers["Authorization"]
    seed = authorization.split("Signature=")[1]
    scope = authorization.split("Credential=")[1].split(",")[0].split("/", 1)[1]
    key = ("AWS4" + ALICE[1]).encode()
    for piece in scope.split("/"):
        key = hmac.new(key, piece.encode(), hashlib.sha256).digest()
    framed = b""
    empty = hashlib.sha256(b"").hexdigest()
    for chunk in chunks + [b""]:
        text = "\n".join(
            ["AWS4-HMAC-SHA256-PAYLOAD", headers["X-Amz-Date"], scope, seed, empty, hashlib.sha256(chunk).hexdigest()]
        )
        seed = hmac.new(key, text.encode(), hashlib.sha256).hexdigest()
        sent = chunk.replace(b"a", b"b") if spoil else chunk
        framed += f"{len(chunk):x};chunk-signature={seed}\r\n".encode() + sent + b"\r\n"
    return headers, framed


def test_signed_chunks(store, s3, bucket):
    chunks = [b"a" * 65536, b"bc" * 50000, b"a"]
    headers, framed = chunked_body(store, f"/{bucket}/k", chunks)
    reply = store.raw("PUT", f"/{bucket}/k", headers=headers, body=framed, keys=None)
    assert reply.status == 200, reply.body
    whole = b"".join(chunks)
    assert reply.headers["etag"] == f'"{hashlib.md5(whole).hexdigest()}"'
    assert s3.get_object(Bucket=bucket, Key="k")["Body"].read() == whole


def test_spoiled_chunk(store, s3, bucket):
    headers, framed = chunked_body(store, f"/{bucket}/k", [b"a" * 1000], spoil=True)
    reply = store.raw("PUT", f"/{bucket}/k", headers=headers, body=framed, keys=None)
    assert (reply.status, b"SignatureDoesNotMatch" in reply.body) == (403, True)
    assert s3.list_objects_v2(Bucket=bucket)["KeyCount"] == 0


def test_presigned(store, s3, bucket):
    s3.put_object(Bucket=bucket, Key="a b/ü+", Body=b"data")
    url = store.s3(signature_version="s3v4").generate_presigned_url(
        "get_object", Params={"Bucket": bucket, "Key": "a b/ü+"}, ExpiresIn=100
    )
    assert "X-Amz-Signature" in url
    with urllib.request.urlopen(url) as reply:
        assert reply.read() == b"data"
    with pytest.raises(urllib.error.HTTPError) as error:
        urllib.request.urlopen(url.replace("X-Amz-Expires=100", "X-Amz-Expires=101"))
    assert error.value.code == 403 and b"SignatureDoesNotMatch" in error.value.read()
    store.control("POST", "/clock", {"request_offset": 101})
    with pytest.raises(urllib.error.HTTPError) as error:
        urllib.request.urlopen(url)
    assert error.value.code == 403 and b"AccessDenied" in error.value.read()


def test_presigned_put(store, s3, bucket):
    url = store.s3(signature_version="s3v4").generate_presigned_url(
        "put_object", Params={"Bucket": bucket, "Key": "k"}, ExpiresIn=100
    )
    with urllib.request.urlopen(urllib.request.Request(url, data=b"put", method="PUT")) as reply:
        assert reply.status == 200
    assert s3.get_object(Bucket=bucket, Key="k")["Body"].read() == b"put"


def test_keys_with_every_kind_of_character(s3, bucket):
    keys = ["plain", "a b", "a+b", "a%b", "a%2Fb", "ä/ö", "dir//double", "/leading", "q?x=1&y", "#hash", "~.-_", "*'()!"]
    for key in keys:
        s3.put_object(Bucket=bucket, Key=key, Body=key.encode())
    for key in keys:
        assert s3.get_object(Bucket=bucket, Key=key)["Body"].read() == key.encode()
    assert sorted(o["Key"] for o in s3.list_objects_v2(Bucket=bucket)["Contents"]) == sorted(keys)


def test_curl(store):
    def curl(query):
        return subprocess.run(
            ["curl", "-s", "-H", "x-amz-content-sha256: UNSIGNED-PAYLOAD", "--aws-sigv4", "aws:amz:us-east-1:s3"]
            + ["--user", ":".join(ADMIN), f"{store.url}/admin/user?{query}"],
            capture_output=True,
            check=True,
        ).stdout

    assert b'"user_id":"bob"' in curl("format=json&uid=bob")
    # curl signs the query as it stands; the canonical form is sorted.
    assert b"SignatureDoesNotMatch" in curl("uid=bob&format=json")


def test_date_header_instead_of_x_amz_date(store, bucket):
    """A signature over the Date header alone, as the standard allows."""
    import hmac

    now = datetime.datetime.utcnow()
    stamp = now.strftime("%Y%m%dT%H%M%SZ")
    scope = f"{stamp[:8]}/us-east-1/s3/aws4_request"
    date = now.strftime("%a, %d %b %Y %H:%M:%S GMT")
    host = store.url.split("//")[1]
    canonical = f"GET\n/{bucket}\n\ndate:{date}\nhost:{host}\n\ndate;host\nUNSIGNED-PAYLOAD"
    text = f"AWS4-HMAC-SHA256\n{stamp}\n{scope}\n{hashlib.sha256(canonical.encode()).hexdigest()}"
    key = ("AWS4" + BOB[1]).encode()
    for piece in scope.split("/"):
        key = hmac.new(key, piece.encode(), hashlib.sha256).digest()
    signature = hmac.new(key, text.encode(), hashlib.sha256).hexdigest()
    headers = {
        "Date": date,
        "Host": host,
        "Authorization": f"AWS4-HMAC-SHA256 Credential={BOB[0]}/{scope}, SignedHeaders=date;host, Signature={signature}",
    }
    reply = store.raw("GET", f"/{bucket}", headers=headers, keys=None)
    # Verified, and then refused because the bucket is not Bob's.
    assert (reply.status, b"<Code>AccessDenied</Code>" in reply.body) == (403, True)
