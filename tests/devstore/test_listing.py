"""Listings of objects, both versions: order, roll-up, paging, odd keys."""

import pytest


@pytest.fixture
def tree(s3, bucket):
    keys = ["a", "b/", "b/1", "b/2", "b/c/3", "b0", "c", "d/x", "e"]
    for key in keys:
        s3.put_object(Bucket=bucket, Key=key, Body=b"x")
    return bucket


def keys(page):
    return [o["Key"] for o in page.get("Contents", [])]


def prefixes(page):
    return [p["Prefix"] for p in page.get("CommonPrefixes", [])]


@pytest.mark.parametrize("call", ["list_objects", "list_objects_v2"])
def test_delimiter(s3, tree, call):
    page = getattr(s3, call)(Bucket=tree, Delimiter="/")
    assert (keys(page), prefixes(page)) == (["a", "b0", "c", "e"], ["b/", "d/"])
    page = getattr(s3, call)(Bucket=tree, Delimiter="/", Prefix="b/")
    assert (keys(page), prefixes(page)) == (["b/", "b/1", "b/2"], ["b/c/"])
    page = getattr(s3, call)(Bucket=tree, Prefix="b")
    assert keys(page) == ["b/", "b/1", "b/2", "b/c/3", "b0"]
    page = getattr(s3, call)(Bucket=tree, Prefix="zz")
    assert (keys(page), prefixes(page), page["IsTruncated"]) == ([], [], False)


def test_prefixes_come_before_keys(store, tree):
    text = store.raw("GET", f"/{tree}?delimiter=%2F").body
    assert 0 < text.index(b"<CommonPrefixes>") < text.index(b"<Contents>")
    assert b"<ETag>&quot;9dd4e461268c8034f5c8564e155c67a6&quot;</ETag>" in text


@pytest.mark.parametrize("limit", [1, 2, 3, 4, 5, 6, 100])
@pytest.mark.parametrize("call", ["list_objects", "list_objects_v2"])
def test_pages_with_delimiter(s3, tree, call, limit):
    pages = s3.get_paginator(call).paginate(Bucket=tree, Delimiter="/", PaginationConfig={"PageSize": limit})
    seen_keys, seen_prefixes, count = [], [], 0
    for page in pages:
        seen_keys += keys(page)
        seen_prefixes += prefixes(page)
        assert len(keys(page)) + len(prefixes(page)) <= limit
        count += 1
    assert (seen_keys, seen_prefixes) == (["a", "b0", "c", "e"], ["b/", "d/"])
    assert count == -(-6 // limit)


def test_v1_marker(s3, tree):
    page = s3.list_objects(Bucket=tree, MaxKeys=3)
    assert (page["IsTruncated"], page["NextMarker"], keys(page)) == (True, "b/1", ["a", "b/", "b/1"])
    page = s3.list_objects(Bucket=tree, Marker="b/1", MaxKeys=100)
    assert (page["IsTruncated"], "NextMarker" in page) == (False, False)
    assert keys(page) == ["b/2", "b/c/3", "b0", "c", "d/x", "e"]
    # A marker between keys, and one that is a rolled-up prefix.
    assert keys(s3.list_objects(Bucket=tree, Marker="b/x"))[0] == "b0"
    page = s3.list_objects(Bucket=tree, Marker="b/", Delimiter="/")
    assert (keys(page), prefixes(page)) == (["b0", "c", "e"], ["d/"])


def test_v2_start_after_and_counts(s3, tree):
    page = s3.list_objects_v2(Bucket=tree, StartAfter="c", FetchOwner=True)
    assert (keys(page), page["KeyCount"], page["StartAfter"]) == (["d/x", "e"], 2, "c")
    assert page["Contents"][0]["Owner"]["ID"] == "alice"
    assert "Owner" not in s3.list_objects_v2(Bucket=tree)["Contents"][0]


def test_no_keys_wanted(s3, tree):
    page = s3.list_objects_v2(Bucket=tree, MaxKeys=0)
    assert (keys(page), page["IsTruncated"]) == ([], False)


def test_bad_arguments(store, tree):
    for query in ("max-keys=many", "encoding-type=utf"):
        reply = store.raw("GET", f"/{tree}?{query}")
        assert (reply.status, b"InvalidArgument" in reply.body) == (400, True)


def test_thousand_keys_are_a_page(store, bucket):
    import concurrent.futures

    names = [f"{n:05}" for n in range(2345)]
    s3 = store.s3()
    with concurrent.futures.ThreadPoolExecutor(8) as pool:
        list(pool.map(lambda name: store.control("PUT", f"/sparse/{bucket}/{name}?size=1"), names))
    sizes, seen = [], []
    for page in s3.get_paginator("list_objects_v2").paginate(Bucket=bucket, PaginationConfig={"PageSize": 5000}):
        sizes.append(len(keys(page)))
        seen += keys(page)
    assert (sizes, seen) == ([1000, 1000, 345], names)


def test_keys_that_xml_cannot_carry(s3, bucket):
    odd = ["bell\x07", "tab\t", "amp&<>", "%2F", "plus+ blank", "ünï"]
    for key in odd:
        s3.put_object(Bucket=bucket, Key=key, Body=b"x")
    # boto3 asks for encoding-type=url by itself.
    seen = []
    for page in s3.get_paginator("list_objects").paginate(Bucket=bucket, PaginationConfig={"PageSize": 1}):
        seen += keys(page)
    assert seen == sorted(odd, key=lambda k: k.encode())


def test_encoded_prefixes(s3, bucket):
    s3.put_object(Bucket=bucket, Key="dir \x01/k", Body=b"x")
    page = s3.list_objects_v2(Bucket=bucket, Delimiter="/", EncodingType="url")
    assert page["CommonPrefixes"] == [{"Prefix": "dir%20%01/"}]
    assert page["EncodingType"] == "url"
