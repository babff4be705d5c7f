#!/usr/bin/python3
"""What demo.sh shows, once everything is built: a store, the gateway in front of it, and a round trip over FTP.

Every process and file is made below one temporary folder and gone at the end, however it comes.
"""

import argparse
import contextlib
import ftplib
import hashlib
import json
import secrets
import shutil
import signal
import socket
import string
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import boto3
import botocore.config
import botocore.exceptions

ROOT = Path(__file__).resolve().parent.parent
USER, BUCKET = "alice", "demo-bucket"
LARGE_SIZE = 128 << 20  # bytes at least; below one part


class DemoError(RuntimeError):
    """Something did not work; the text is for people."""


def say(text=""):
    print(text, flush=True)


def wait_for(condition, what, seconds=60.0):
    end = time.monotonic() + seconds
    while not (value := condition()):
        if time.monotonic() > end:
            raise DemoError(f"timed out: {what}")
        time.sleep(0.05)
    return value


def start(command, log, cleanup):
    """A child process that ends with the demo. `log` takes its output."""
    with open(log, "wb") as out:
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=out, stderr=out, start_new_session=True)

    def stop():
        process.terminate()
        try:
            process.wait(20)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()

    cleanup.callback(stop)
    return process


def last_lines(log):
    return "\n".join(log.read_text(errors="replace").splitlines()[-10:])


def start_devstore(options, folder, cleanup):
    """Returns (endpoint, users file)."""

    def key():
        return ["".join(secrets.choice(string.ascii_uppercase + string.digits) for _ in range(20)), secrets.token_urlsafe(30)]

    users, log, port = folder / "users.json", folder / "store.log", folder / "store-port"
    users.touch(mode=0o600)
    users.write_text(json.dumps({"users": [
        {"uid": "admin", "display_name": "Administrator", "keys": [key()], "admin": True},
        {"uid": USER, "display_name": "Alice", "keys": [key()], "admin": False}]}))
    process = start([options.build_dir / "bin" / "zorvan-devstore", "--listen", "127.0.0.1:0", "--users-file", users,
                     "--port-file", port], log, cleanup)

    def ready():
        if process.poll() is not None:
            raise DemoError(f"the store ended:\n{last_lines(log)}")
        return port.exists() and port.read_text().split()

    return f"http://127.0.0.1:{wait_for(ready, 'the store does not answer')[-1].rpartition(':')[2]}", users


def start_rgw(folder, cleanup):
    """Returns (endpoint, users file)."""
    script, home = ROOT / "tests" / "rgw" / "rgw.py", folder / "rgw"
    cleanup.callback(subprocess.run, [sys.executable, str(script), "stop", str(home), "--wipe"], check=False)
    if subprocess.run([sys.executable, str(script), "start", str(home)], check=False).returncode != 0:
        raise DemoError("the RADOS Gateway did not start")
    return json.loads((home / "users.json").read_text())["endpoint"], home / "users.json"


def keys_of(users, uid):
    return next(user["keys"][0] for user in json.loads(users.read_text())["users"] if user["uid"] == uid)


def port_is_free(port):
    with socket.socket() as probe:
        probe.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        try:
            probe.bind(("127.0.0.1", port))
        except OSError:
            return False
    return True


def start_gateway(options, folder, endpoint, users, password, cleanup):
    """Writes the three configuration files and starts the server. Returns (host, port)."""
    access, secret = keys_of(users, "admin")
    digest = subprocess.run(["mkpasswd", "-m", "yescrypt", "-s"], input=password, capture_output=True, text=True,
                            check=True).stdout.strip()
    files = {
        "users": f"{USER}:{digest}\n",
        "ceph.conf": (f"host_name = {endpoint.partition('://')[2]}\nuse_https = no\n"
                      f"ceph_rgw_admin_access_key_id = {access}\nceph_rgw_admin_secret_access_key = {secret}\n"
                      "part_size = 1073741824\n"),
        "server.toml": (f'[server]\nlisten = ["127.0.0.1:{options.port if port_is_free(options.port) else 0}"]\n'
                        f'port_file = "{folder}/port"\n\n[backend]\nname = "ceph"\n'
                        f'module_dir = "{options.build_dir}/lib"\noptions = "{folder}/ceph.conf"\n\n'
                        f'[users]\nfile = "{folder}/users"\n\n[spool]\ndirectory = "{folder}"\n'),
    }
    for name, text in files.items():
        path = folder / name
        path.touch(mode=0o600)
        path.write_text(text)
    log = folder / "server.log"
    process = start([options.build_dir / "bin" / "zorvan-gridftp-server", "--config", folder / "server.toml"], log, cleanup)

    def ready():
        if process.poll() is not None:
            raise DemoError(f"the gateway ended:\n{last_lines(log)}")
        return (folder / "port").exists() and (folder / "port").read_text().split()

    host, port = wait_for(ready, "the gateway does not answer")[:2]
    return host, int(port)


class Progress:
    """A line that shows how far a transfer is; on a terminal only."""

    def __init__(self, title, size):
        self.title, self.size, self.done, self.begun, self.shown = title, size, 0, time.monotonic(), 0.0

    def add(self, block):
        self.done += len(block)
        now = time.monotonic()
        if sys.stdout.isatty() and now - self.shown > 0.1:
            self.shown = now
            print(f"\r\033[K  ... {self.title} {100 * self.done // max(self.size, 1)}%", end="", flush=True)

    def end(self):
        seconds = max(time.monotonic() - self.begun, 1e-6)
        clear = "\r\033[K" if sys.stdout.isatty() else ""
        say(f"{clear}  ok  {self.title}: {self.size:,} bytes in {seconds:.2f} s ({self.size / seconds / 1e6:.0f} MB/s)")


def round_trip(ftp, s3, sources):
    """Uploads, lists and downloads the files, and compares each with the store's own copy. Announces the large one's size."""
    for path, announce in sources:
        size, name = path.stat().st_size, f"{BUCKET}/files/{path.name}"
        content = path.read_bytes()
        ftp.voidcmd("TYPE I")
        if announce:
            ftp.sendcmd(f"ALLO {size}")
        progress = Progress(f"upload {path.name}", size)
        with open(path, "rb") as stream:
            ftp.storbinary(f"STOR {name}", stream, 1 << 20, progress.add)
        progress.end()

        digest, progress = hashlib.sha256(), Progress(f"download {path.name}", size)

        def take(block, digest=digest, progress=progress):
            digest.update(block)
            progress.add(block)

        ftp.retrbinary(f"RETR {name}", take, 1 << 20)
        progress.end()
        direct = hashlib.sha256()
        for block in s3.get_object(Bucket=BUCKET, Key=f"files/{path.name}")["Body"].iter_chunks(1 << 20):
            direct.update(block)
        wanted = hashlib.sha256(content).hexdigest()
        if digest.hexdigest() != wanted:
            raise DemoError(f"{path.name} came back different")
        if direct.hexdigest() != wanted:
            raise DemoError(f"the store holds something else than {path.name}")
        say(f"  ok  the same SHA-256 on disk, through FTP and straight from the store: {wanted[:16]}...")
    say("  ok  the listing over FTP:")
    lines = []
    ftp.dir(f"{BUCKET}/files", lines.append)
    for line in lines:
        say(f"        {line}")
    facts = {name: int(fact["size"]) for name, fact in ftp.mlsd(f"{BUCKET}/files") if fact["type"] == "file"}
    if facts != {path.name: path.stat().st_size for path, _ in sources}:
        raise DemoError(f"the listing shows {facts}")


def how_to_connect(host, port, password):
    return f"""
The gateway listens on {host}, port {port}. User {USER}, password {password}.

  lftp -u {USER},{password} -e 'set ftp:ssl-allow no; ls {BUCKET}/files' ftp://{host}:{port}
  curl -u {USER}:{password} ftp://{host}:{port}/{BUCKET}/files/
  curl -u {USER}:{password} -T LICENSE ftp://{host}:{port}/{BUCKET}/files/
  python3 -c 'from ftplib import FTP; f = FTP(); f.connect("{host}", {port}); f.login("{USER}", "{password}"); f.dir("{BUCKET}")'
"""


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--store", choices=("devstore", "rgw"), default="devstore")
    parser.add_argument("--build-dir", type=Path, default=ROOT / "build" / "release")
    parser.add_argument("--port", type=int, default=2811)
    parser.add_argument("--once", action="store_true")
    options = parser.parse_args()
    options.build_dir = options.build_dir.resolve()

    def interrupted(*_):
        raise KeyboardInterrupt

    signal.signal(signal.SIGTERM, interrupted)
    with contextlib.ExitStack() as cleanup:
        folder = Path(tempfile.mkdtemp(prefix="zorvan-demo-"))
        cleanup.callback(shutil.rmtree, folder, ignore_errors=True)
        endpoint, users = start_rgw(folder, cleanup) if options.store == "rgw" else start_devstore(options, folder, cleanup)
        say(f"  ok  store: {'Ceph RADOS Gateway' if options.store == 'rgw' else 'zorvan-devstore'} at {endpoint}")
        access, secret = keys_of(users, USER)
        s3 = boto3.client("s3", endpoint_url=endpoint, aws_access_key_id=access, aws_secret_access_key=secret,
                          region_name="us-east-1", config=botocore.config.Config(s3={"addressing_style": "path"}))
        s3.create_bucket(Bucket=BUCKET)
        say(f"  ok  user {USER}, bucket {BUCKET}")
        password = secrets.token_urlsafe(9)
        host, port = start_gateway(options, folder, endpoint, users, password, cleanup)
        say(f"  ok  gateway at {host}, port {port}")
        large = folder / "large.bin"
        piece = (options.build_dir / "lib" / "libzorvan_gridftp_server.so").read_bytes()
        with open(large, "wb") as stream:
            while stream.tell() < LARGE_SIZE:
                stream.write(piece)
        with ftplib.FTP(timeout=120) as ftp:
            ftp.connect(host, port)
            ftp.login(USER, password)
            round_trip(ftp, s3, [(ROOT / "README.md", False), (large, True)])
        large.unlink()
        if options.once:
            say("demo passed")
            return 0
        say(how_to_connect(host, port, password))
        say("Ctrl-C ends the demo.")
        with contextlib.suppress(KeyboardInterrupt):
            signal.pause()
        say("\nstopping")
    say("demo ended, everything is cleaned up")
    return 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        say("\ndemo interrupted, everything is cleaned up")
        sys.exit(130)
    except (DemoError, ftplib.Error, OSError, EOFError, botocore.exceptions.BotoCoreError,
            botocore.exceptions.ClientError) as error:
        say(f"demo failed: {error}")
        sys.exit(1)
