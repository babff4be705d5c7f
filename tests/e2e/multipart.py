"""What tests of uploads in parts share: an upload that stops half-way, and its restart."""

from waiting import wait_for

PART = 5 << 20  # the smallest that the module takes
BROKEN = (425, 426, 451)


def uploads_in(s3, bucket):
    """The multipart uploads in progress, {key: [upload id]}."""
    found = {}
    for entry in s3.list_multipart_uploads(Bucket=bucket).get("Uploads", []):
        found.setdefault(entry["Key"], []).append(entry["UploadId"])
    return found


def parts_of(s3, bucket, key="file"):
    """The parts that a key's only upload in progress has, {number: record}; none when there is no such upload."""
    ids = uploads_in(s3, bucket).get(key, [])
    assert len(ids) <= 1, ids
    if not ids:
        return {}
    parts = s3.list_parts(Bucket=bucket, Key=key, UploadId=ids[0]).get("Parts", [])
    return {part["PartNumber"]: part for part in parts}


def interrupt(ftp, bucket, content, stored_parts, parts):
    """An upload whose client resets its connection after so many parts were stored."""
    data = ftp.begin_store(f"/{bucket}/file", content[:parts * PART + 1000], len(content))
    wait_for(lambda: len(stored_parts(bucket, "file")) == parts, f"{parts} parts are stored", 60)
    ftp.reset(data)
    assert ftp.read_reply().code in BROKEN


def restart(ftp, bucket, content, offset, announce=True, command="STOR"):
    """Sends what is missing from `offset` on. The last reply."""
    ftp.expect(350, f"REST {offset}")
    return ftp.store(f"/{bucket}/file", memoryview(content)[offset:],
                     allocate=len(content) - offset if announce else None, command=command)
