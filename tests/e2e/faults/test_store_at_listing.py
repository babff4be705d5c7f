"""The store fails while a directory is listed: what was listed never passes for the whole."""

from concurrent.futures import ThreadPoolExecutor

import pytest

from refusals import all_refusals, asked
from waiting import wait_for

pytestmark = pytest.mark.devstore_only(reason="the faults are scripted in the dev store")

NAMES = [f"f{number:04}" for number in range(2 * 1000 + 100)]


@pytest.fixture(scope="session")
def long_bucket(new_bucket, s3):
    """A bucket whose listing takes three pages."""
    name = new_bucket()
    with ThreadPoolExecutor(16) as pool:
        list(pool.map(lambda key: s3.put_object(Bucket=name, Key=key, Body=b""), NAMES))
    return name


def pattern(bucket):
    return f"^/{bucket}/?$"


def page_query(page):
    """What only the request for that page has in its query, the first being 0."""
    return f"marker=f{page - 1}999" if page else ""


@all_refusals()
def test_refusal(ftp, store, faults, bucket, refusal):
    faults(refusal.action, method="GET", path=pattern(bucket))
    store.forget_requests()
    if refusal.status == 404 and refusal.kind != "xml":
        # Without the store's own word "nothing there" is no error of a listing; the bucket, asked for next, is there.
        assert ftp.listing("NLST", f"/{bucket}") == []
        return
    replies, content = ftp.fetch(f"NLST /{bucket}")
    assert content is None
    refusal.check(replies[-1], 550)
    assert asked(store, "GET", f"/{bucket}") + asked(store, "GET", f"/{bucket}/") == (2 if refusal.retried else 1)


@all_refusals(["xml"])
@pytest.mark.parametrize("page", [1, 2])
def test_later_page_is_refused(ftp, faults, long_bucket, refusal, page):
    """The entries of the first pages have gone out; the last reply says that there should have been more."""
    faults(refusal.action, method="GET", path=pattern(long_bucket), query=page_query(page))
    replies, content = ftp.fetch(f"NLST /{long_bucket}")
    assert replies[0].code == 150
    refusal.check(replies[-1], 550)
    assert content.decode().split() == NAMES[:page * 1000]


def test_all_pages(ftp, long_bucket):
    assert ftp.listing("NLST", f"/{long_bucket}") == NAMES


@pytest.mark.parametrize("reset", [False, True], ids=["FIN", "RST"])
@pytest.mark.parametrize("action", [{"cut_before_reply": True}, {"cut_reply_after": 0}, {"cut_reply_after": 50000}], ids=str)
@pytest.mark.parametrize("page", [0, 1, 2])
def test_cut_once(ftp, faults, long_bucket, action, reset, page):
    faults({**action, "reset": reset}, count=1, method="GET", path=pattern(long_bucket),
           query=page_query(page))
    assert ftp.listing("NLST", f"/{long_bucket}") == NAMES


@pytest.mark.parametrize("action", [
    {"cut_reply_after": 50000}, {"truncate_xml": True}, {"short_body": 20}, {"status": 200, "body": ""},
    {"status": 200, "body": "<html><body>Welcome</body></html>"}, {"status": 200, "body": "{}"},
    {"status": 200, "body": "<Error><Code>InternalError</Code><Message>Said by the store</Message></Error>"},
    {"redirect": "http://127.0.0.1:1/"},
    {"status": 301, "body": "<Error><Code>PermanentRedirect</Code></Error>", "headers": {"x-amz-bucket-region": "eu-west-1"}}],
    ids=str)
@pytest.mark.parametrize("page", [0, 1])
def test_lies(ftp, faults, long_bucket, action, page):
    faults(action, method="GET", path=pattern(long_bucket), query=page_query(page))
    replies, content = ftp.fetch(f"NLST /{long_bucket}")
    assert replies[-1].code in (451, 550), replies
    assert (content or b"").decode().split() == NAMES[:page * 1000]


def test_listing_that_never_ends(ftp, faults, bucket):
    """Each page says that there is more, and names the same place to go on from."""
    faults({"status": 200, "body": "<?xml version='1.0'?><ListBucketResult><IsTruncated>true</IsTruncated><NextMarker>a</NextMarker>"
            "<Contents><Key>a</Key><Size>1</Size><LastModified>2020-01-01T00:00:00.000Z</LastModified></Contents></ListBucketResult>"},
           method="GET", path=pattern(bucket))
    replies, content = ftp.fetch(f"NLST /{bucket}")
    assert replies[-1].code in (451, 550), replies
    assert set(content.split()) <= {b"a"} and len(content.split()) < 10


def test_redirect_inside_the_store(ftp, faults, store, bucket, s3):
    s3.put_object(Bucket=bucket, Key="file", Body=b"x")
    faults({"redirect": f"{store.endpoint}/{bucket}?delimiter=/"}, count=1, method="GET", path=pattern(bucket))
    assert ftp.listing("NLST", f"/{bucket}") == ["file"]


@pytest.mark.parametrize("status", [404, 403, 500])
def test_the_directory_itself_is_refused(ftp, faults, bucket, s3, status):
    """A directory's own object is asked for first; only its absence is no error."""
    s3.put_object(Bucket=bucket, Key="dir/file", Body=b"x")
    faults({"status": status}, method="HEAD", path="/dir/$")
    replies, content = ftp.fetch(f"NLST /{bucket}/dir")
    if status == 404:
        assert replies[-1].code == 226 and content == b"file\r\n"
    else:
        assert replies[-1].code == 550 and content is None


# -- the root: a user who may not list buckets can still use those that are known ------------------------------------------
@all_refusals(["xml", "html"])
def test_buckets_cannot_be_listed(ftp, faults, bucket, store, refusal):
    faults(refusal.action, method="GET", path="^/$")
    store.forget_requests()
    assert ftp.listing("NLST", "/") == []
    assert asked(store, "GET", "/") == (2 if refusal.retried else 1)
    assert ftp.listing("NLST", f"/{bucket}") == []


@pytest.mark.parametrize("action", [{"truncate_xml": True}, {"cut_reply_after": 30}, {"status": 200, "body": "{}"}], ids=str)
def test_list_of_buckets_is_broken(ftp, faults, action):
    faults(action, method="GET", path="^/$")
    assert ftp.listing("NLST", "/") == []


def test_bucket_is_listed_twice(ftp, faults, bucket):
    name = f"<Bucket><Name>{bucket}</Name><CreationDate>2020-01-01T00:00:00.000Z</CreationDate></Bucket>"
    faults({"status": 200, "body": f"<ListAllMyBucketsResult><Owner><ID>alice</ID></Owner><Buckets>{name}{name}</Buckets>"
            "</ListAllMyBucketsResult>"}, method="GET", path="^/$")
    assert ftp.listing("NLST", "/") == [bucket]


# -- one object ------------------------------------------------------------------------------------------------------------
@all_refusals(["empty"])
@pytest.mark.parametrize("command", ["SIZE", "MDTM", "MLST", "CWD"])
def test_object_cannot_be_looked_at(ftp, faults, bucket, s3, refusal, command):
    """Every request about the object is refused: nothing is said of it, but what is wrong."""
    s3.put_object(Bucket=bucket, Key="file", Body=b"x")
    faults(refusal.action, path=f"^/{bucket}")
    refusal.check(ftp.command(f"{command} /{bucket}/file"), 550)


@pytest.mark.parametrize("command, expected", [("SIZE", 213), ("MDTM", 213), ("MLST", 250)])
def test_one_refusal_is_retried(ftp, bucket, s3, faults, command, expected):
    s3.put_object(Bucket=bucket, Key="file", Body=b"x")
    faults({"status": 503}, count=1, path="/file$")
    assert ftp.command(f"{command} /{bucket}/file").code == expected


def test_clocks_apart(ftp, store, bucket):
    store.skew(-3600)
    try:
        replies, content = ftp.fetch(f"NLST /{bucket}")
        assert content is None and replies[0].code == 550
    finally:
        store.skew(0)


def test_others_go_on_while_one_waits(login, bucket, s3, store, faults):
    s3.put_object(Bucket=bucket, Key="file", Body=b"x")
    waiting, other = login(), login()
    store.forget_requests()
    faults({"stall_reply_after": 10}, count=1, method="GET", path=pattern(bucket))
    data = waiting.open_data()
    waiting.send(f"NLST /{bucket}")
    wait_for(store.requests, "the listing is under way")
    assert other.retrieve(f"/{bucket}/file") == b"x"
    store.clear_faults()
    assert waiting.read_reply().code == 150
    assert waiting.read_all(data) == b"file\r\n"
    assert waiting.read_reply().code == 226
