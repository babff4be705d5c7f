"""The server that is measured, with its default settings but for what the command line of the harness changes."""

import contextlib
import secrets
import tempfile
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path

from ftp_wire import FtpSession
from processes import child, file_text, run
from stores import BUCKET


@dataclass
class Service:
    """Something that speaks FTP in front of the store.

    `folder` is where the bucket is ("" or "/bench"), `scratch` the folder for what it keeps on local disk, `pids` its
    processes (descendants are found when they are needed), `forget` makes it drop its knowledge of what the bucket holds."""

    name: str
    title: str
    port: int
    user: str
    password: str
    folder: str
    scratch: Path
    pids: list
    lists_with: str = "MLSD"
    forget: Callable[[], None] | None = None

    def session(self):
        return FtpSession(self)

    def _curl(self, key, *options):
        return ["curl", "-sS", "-u", f"{self.user}:{self.password}", *options, f"ftp://127.0.0.1:{self.port}{self.folder}/{key}"]

    def download_command(self, key, target):
        return self._curl(key, "-o", target)

    def upload_command(self, key, source, announce):
        return self._curl(key, *(["-Q", f"+ALLO {source.stat().st_size}"] if announce else []), "-T", source)


@contextlib.contextmanager
def gateway(work, store, options):
    """The server of the build `options.build` in front of a store."""
    folder = Path(tempfile.mkdtemp(prefix="gateway-", dir=work))
    spool = folder / "spool"
    spool.mkdir()
    module, users, config = folder / "ceph.conf", folder / "users", folder / "server.toml"
    password = secrets.token_hex(12)
    module.write_text(f"host_name = {store.host}\nuse_https = no\npart_size = {options.part_size}\n"
                      f"ceph_rgw_admin_access_key_id = {store.admin[0]}\nceph_rgw_admin_secret_access_key = {store.admin[1]}\n")
    users.write_text("alice:" + run("mkpasswd", "--method=sha256crypt", "--rounds=1000", password))
    tuning = "".join(f"{key} = {value}\n" for key, value in
                     (("block_size", options.block_size), ("concurrency", options.concurrency)) if value)
    config.write_text(f'[server]\nlisten = ["127.0.0.1:0"]\nport_file = "{folder}/server.port"\n{tuning}'
                      f'[backend]\nname = "ceph"\nmodule_dir = "{options.build}/lib"\noptions = "{module}"\n'
                      f'[users]\nfile = "{users}"\n[spool]\ndirectory = "{spool}"\n')
    for path in (module, users, config):
        path.chmod(0o600)
    binary, log = options.build / "bin/zorvan-gridftp-server", folder / "server.log"
    with child([binary, "--config", config], log) as process:
        port = int(file_text(folder / "server.port", process, log).split()[1])
        title = run(binary, "--version").strip()
        yield Service("gateway", title, port, "alice", password, f"/{BUCKET}", spool, [process.pid])
