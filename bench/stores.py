"""The stores that can be measured: a one-node Ceph RADOS Gateway, or the small store of this repository.

A development store shows whether the harness works; only numbers from a real one mean anything.
"""

import contextlib
import json
import secrets
import sys
from pathlib import Path

import boto3
import botocore.config
from processes import child, file_text, run

RGW_SCRIPT = Path(__file__).resolve().parent.parent / "tests" / "rgw" / "rgw.py"
BUCKET = "bench"


class Store:
    """Where the store answers (`host` is HOST:PORT), who may use it ([access key, secret key]), which processes it is."""

    def __init__(self, title, endpoint, admin, user, pids):
        self.title, self.endpoint, self.admin, self.user, self.pids = title, endpoint, admin, user, pids
        self.host = endpoint.partition("//")[2]
        self.boto = boto3.client(
            "s3", endpoint_url=endpoint, aws_access_key_id=user[0], aws_secret_access_key=user[1], region_name="us-east-1",
            config=botocore.config.Config(s3={"addressing_style": "path"}))
        self.boto.create_bucket(Bucket=BUCKET)

    def curl(self, key, *options):
        """A command that makes a signed request straight to the store; the body is not hashed, as in the gateway."""
        return ["curl", "-sS", "--fail", "--aws-sigv4", "aws:amz:us-east-1:s3", "--user", ":".join(self.user),
                "-H", "x-amz-content-sha256: UNSIGNED-PAYLOAD", *options, f"{self.endpoint}/{BUCKET}/{key}"]

    def remove_all(self, prefix):
        """Deletes every object whose key begins with `prefix`. Not a measured operation."""
        while keys := self.boto.list_objects_v2(Bucket=BUCKET, Prefix=prefix).get("Contents"):
            self.boto.delete_objects(Bucket=BUCKET, Delete={"Objects": [{"Key": entry["Key"]} for entry in keys], "Quiet": True})


@contextlib.contextmanager
def rados_gateway(work, objectstore, capacity_gib):
    folder = work / "rgw"
    try:
        run(sys.executable, RGW_SCRIPT, "start", folder, "--objectstore", objectstore, "--capacity", capacity_gib, "--quiet")
        told = json.loads((folder / "users.json").read_text())
        keys = {user["uid"]: user["keys"][0] for user in told["users"]}
        pids = [int(path.read_text()) for path in folder.glob("run/*.pid")]
        version = run("radosgw", "--version").split("(")[0].strip()
        yield Store(f"RADOS Gateway, {version}, {objectstore}", told["endpoint"], keys["admin"], keys["alice"], pids)
    finally:
        run(sys.executable, RGW_SCRIPT, "stop", folder, "--wipe")


@contextlib.contextmanager
def dev_store(work, build):
    port_file, log = work / "store.port", work / "store.log"
    admin, user = ([name, secrets.token_hex(20)] for name in ("ADMIN", "ALICE"))
    command = [build / "bin/zorvan-devstore", "--listen", "127.0.0.1:0", "--port-file", port_file, "--admin-key", admin[0],
               "--admin-secret", admin[1], "--user", "alice:" + ":".join(user)]
    with child(command, log) as process:
        port = file_text(port_file, process, log).split()[-1].rpartition(":")[2]
        yield Store("development store", f"http://127.0.0.1:{port}", admin, user, [process.pid])
