"""A request on an object whose key is empty is, on the wire, a request on its bucket: a delete would remove the bucket. These
are the checks, over a whole run, that the gateway sends none but HEADs.

Two witnesses: the module's own log of requests, which shows bucket and key of each, and what the dev store saw on buckets.
"""

import re

AGENT = "zorvan-s3/"

_REQUEST = re.compile(r"REST: (?:op=\S+ )?([A-Z0-9]+_\w+)\((.*)\) try=\d+$", re.MULTILINE)
# Requests that have no key: on a bucket, on uploads that are told by their id, on the whole service.
_WITHOUT_KEY = {"S3_create_bucket", "S3_delete_bucket", "S3_list_bucket", "S3_list_service", "RG_get_user_info"}


class KeylessRequests:
    def __init__(self, file):
        self.file = file

    def requests(self):
        """(call, {name: value}) of every request that the module announced."""
        text = self.file.read_text(errors="surrogateescape") if self.file.exists() else ""
        for call, arguments in _REQUEST.findall(text):
            names = re.findall(r"(?:^|, )(\w+)=(.*?)(?=, \w+=|$)", arguments)
            yield call, dict(names)

    def check_attempts(self):
        """No request of the module but a HEAD has an empty key."""
        for call, names in self.requests():
            if call in _WITHOUT_KEY or call == "S3_head_object":
                continue
            for name in ("key", "from_key", "to_key"):
                assert names.get(name, "set") not in ("", "(null)"), (call, names)

    def check_wire(self, store):
        """What the dev store saw on buckets is what was meant for them."""
        if store.name != "devstore":
            return
        meant = {call: set() for call in _WITHOUT_KEY}
        for call, names in self.requests():
            meant.setdefault(call, set()).add(names.get("bucket"))
        for entry in store.requests_on_buckets():
            if not entry["agent"].startswith(AGENT):
                continue
            assert any(meant.values()), "the module's log is empty"
            parameters, bucket = set(entry["parameters"]), entry["bucket"]
            if entry["method"] == "GET":
                assert parameters & {"delimiter", "uploads"}, entry
            elif entry["method"] == "PUT":
                assert not parameters and bucket in meant["S3_create_bucket"], entry
            else:
                assert entry["method"] == "DELETE" and not parameters and bucket in meant["S3_delete_bucket"], entry
