"""Archive classes and restores, on a clock that the tests set."""

import datetime

import pytest
from test_objects import refused

DAY = 24 * 3600
HOUR = 3600


def restore(s3, key="k", days=2):
    reply = s3.restore_object(
        Bucket="bucket", Key=key, RestoreRequest={"Days": days, "GlacierJobParameters": {"Tier": "Standard"}}
    )
    return reply["ResponseMetadata"]["HTTPStatusCode"]


@pytest.fixture
def archive(make_store):
    store = make_store("--restore", str(HOUR))
    s3 = store.s3()
    s3.create_bucket(Bucket="bucket")
    for key, name in (("k", "GLACIER"), ("deep", "DEEP_ARCHIVE"), ("instant", "GLACIER_IR"), ("plain", "STANDARD")):
        s3.put_object(Bucket="bucket", Key=key, Body=b"frozen", StorageClass=name)
    return store, s3


def test_off_as_on_the_gateway(s3, bucket):
    s3.put_object(Bucket=bucket, Key="k", Body=b"x", StorageClass="GLACIER")
    head = s3.head_object(Bucket=bucket, Key="k")
    assert (head["StorageClass"], "Restore" in head) == ("GLACIER", False)
    assert s3.get_object(Bucket=bucket, Key="k")["Body"].read() == b"x"
    assert s3.list_objects_v2(Bucket=bucket)["Contents"][0]["StorageClass"] == "GLACIER"
    wanted = {"Bucket": bucket, "Key": "k", "RestoreRequest": {"Days": 1}}
    assert refused(s3.restore_object, **wanted) == ("NotImplemented", 501)


@pytest.mark.parametrize("key", ["k", "deep"])
def test_archived_objects_cannot_be_read(archive, key):
    store, s3 = archive
    assert refused(s3.get_object, Bucket="bucket", Key=key) == ("InvalidObjectState", 403)
    source = {"Bucket": "bucket", "Key": key}
    assert refused(s3.copy_object, Bucket="bucket", Key="copy", CopySource=source) == ("InvalidObjectState", 403)
    head = s3.head_object(Bucket="bucket", Key=key)
    assert (head["ContentLength"], "Restore" in head) == (6, False)


def test_other_classes_can(archive):
    store, s3 = archive
    for key in ("instant", "plain"):
        assert s3.get_object(Bucket="bucket", Key=key)["Body"].read() == b"frozen"
        assert refused(lambda: restore(s3, key)) == ("InvalidObjectState", 403)


def test_life_of_a_restore(archive):
    store, s3 = archive
    assert restore(s3) == 202
    assert s3.head_object(Bucket="bucket", Key="k")["Restore"] == 'ongoing-request="true"'
    assert refused(s3.get_object, Bucket="bucket", Key="k") == ("InvalidObjectState", 403)
    assert refused(lambda: restore(s3)) == ("RestoreAlreadyInProgress", 409)
    store.control("POST", "/clock", {"offset": HOUR})
    state = s3.head_object(Bucket="bucket", Key="k")["Restore"]
    assert state.startswith('ongoing-request="false", expiry-date="')
    expiry = datetime.datetime.strptime(state.split('"')[3], "%a, %d %b %Y %H:%M:%S GMT")
    ahead = expiry - datetime.datetime.utcnow()
    assert datetime.timedelta(days=2) < ahead < datetime.timedelta(days=3, hours=2)
    assert (expiry.hour, expiry.minute, expiry.second) == (0, 0, 0)
    assert s3.get_object(Bucket="bucket", Key="k")["Body"].read() == b"frozen"
    # Asked again while the copy is there: the period changes.
    assert restore(s3, days=9) == 200
    later = s3.head_object(Bucket="bucket", Key="k")["Restore"].split('"')[3]
    assert datetime.datetime.strptime(later, "%a, %d %b %Y %H:%M:%S GMT") - expiry == datetime.timedelta(days=7)
    store.control("POST", "/clock", {"offset": 12 * DAY})
    assert "Restore" not in s3.head_object(Bucket="bucket", Key="k")
    assert refused(s3.get_object, Bucket="bucket", Key="k") == ("InvalidObjectState", 403)
    assert restore(s3) == 202


def test_refusals(archive):
    store, s3 = archive
    assert refused(lambda: restore(s3, "none")) == ("NoSuchKey", 404)
    for body in (b"", b"<Other/>", b"<RestoreRequest><Days>0</Days></RestoreRequest>", b"<RestoreRequest/>"):
        reply = store.raw("POST", "/bucket/k?restore", body=body)
        assert (reply.status, b"MalformedXML" in reply.body) == (400, True)


def test_intelligent_tiering(archive):
    store, s3 = archive
    s3.put_object(Bucket="bucket", Key="tier", Body=b"x", StorageClass="INTELLIGENT_TIERING")
    assert s3.get_object(Bucket="bucket", Key="tier")["Body"].read() == b"x"
    store.control("POST", "/archive", {"bucket": "bucket", "key": "tier", "status": "DEEP_ARCHIVE_ACCESS"})
    assert s3.head_object(Bucket="bucket", Key="tier")["ArchiveStatus"] == "DEEP_ARCHIVE_ACCESS"
    assert refused(s3.get_object, Bucket="bucket", Key="tier") == ("InvalidObjectState", 403)
    # Such an object is moved back for good: no days.
    assert refused(lambda: restore(s3, "tier")) == ("MalformedXML", 400)
    reply = store.raw("POST", "/bucket/tier?restore", body=b"<RestoreRequest/>")
    assert reply.status == 202
    assert s3.head_object(Bucket="bucket", Key="tier")["Restore"] == 'ongoing-request="true"'
    store.control("POST", "/clock", {"offset": HOUR})
    assert s3.get_object(Bucket="bucket", Key="tier")["Body"].read() == b"x"
    head = s3.head_object(Bucket="bucket", Key="tier")
    assert ("Restore" in head, "ArchiveStatus" in head) == (False, False)
