"""The check of every run for requests on an empty key must see one."""

import pytest

from keyless import KeylessRequests

GOOD = """s3:  INFO: zorvan_l_s3_rmdir_thread: REST: op=0x10 S3_delete_bucket(bucket=mine) try=0
s3:  INFO: zorvan_l_s3_mkdir_thread: REST: op=0x20 S3_create_bucket(bucket=mine) try=0
s3:  INFO: zorvan_l_s3_stat_thread: REST: op=0x30 S3_head_object(bucket=mine, key=) try=0
s3:  INFO: zorvan_l_s3_delete_thread: REST: op=0x40 S3_delete_object(bucket=mine, key=a, b) try=1
s3:  INFO: zorvan_l_s3_recv_multipart_thread: REST: op=0x50 S3_upload_part(id=x, part=1) try=0
"""


class SeenOnBuckets:
    name = "devstore"

    def __init__(self, method, bucket="mine", parameters=()):
        self.seen = [{"method": method, "bucket": bucket, "parameters": list(parameters), "agent": "zorvan-s3/1", "count": 1},
                     {"method": "DELETE", "bucket": "somebody-else's", "parameters": ["uploadId"], "agent": "Boto3", "count": 1}]

    def requests_on_buckets(self):
        return self.seen


@pytest.fixture
def requests(tmp_path):
    found = KeylessRequests(tmp_path / "log")
    found.file.write_text(GOOD)
    return found


def test_good_requests_pass(requests):
    requests.check_attempts()
    for seen in (SeenOnBuckets("DELETE"), SeenOnBuckets("PUT"), SeenOnBuckets("GET", "other", ["delimiter", "prefix"]),
                 SeenOnBuckets("GET", "other", ["uploads"])):
        requests.check_wire(seen)


@pytest.mark.parametrize("request_text", [
    "S3_delete_object(bucket=mine, key=)", "S3_put_object(bucket=mine, key=)", "S3_get_object(bucket=mine, key=(null))",
    "S3_copy_object(from_bucket=mine, from_key=, to_bucket=mine, to_key=a)",
    "S3_copy_object(from_bucket=mine, from_key=a, to_bucket=mine, to_key=)"])
def test_an_empty_key_is_seen(requests, request_text):
    with requests.file.open("a") as log:
        log.write(f"s3:  INFO: some_thread: REST: op=0x60 {request_text} try=0\n")
    with pytest.raises(AssertionError):
        requests.check_attempts()


@pytest.mark.parametrize("seen", [
    SeenOnBuckets("DELETE", "another"), SeenOnBuckets("PUT", "another"), SeenOnBuckets("DELETE", "mine", ["uploadId"]),
    SeenOnBuckets("POST", "mine", ["uploads"]), SeenOnBuckets("PUT", "mine", ["partNumber", "uploadId"]), SeenOnBuckets("GET")],
    ids=lambda seen: f"{seen.seen[0]['method']} {seen.seen[0]['bucket']} {seen.seen[0]['parameters']}")
def test_a_request_on_the_wire_is_seen(requests, seen):
    with pytest.raises(AssertionError):
        requests.check_wire(seen)


def test_an_empty_log_proves_nothing(tmp_path):
    with pytest.raises(AssertionError, match="empty"):
        KeylessRequests(tmp_path / "none").check_wire(SeenOnBuckets("GET", "other", ["delimiter"]))
