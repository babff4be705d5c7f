"""What people put in front of a store instead: an FTP server on a FUSE mount. Needs root, /dev/fuse and Debian's packages
(`packages_bench` in tools/packages.sh)."""

import contextlib
import os
import secrets
import shutil
import signal
import subprocess
import tempfile
from pathlib import Path

from gateway import Service
from processes import BenchError, child, free_port, listens, run, wait_for
from stores import BUCKET

NEEDS = {"s3fs": "s3fs", "rclone": "rclone", "vsftpd": "vsftpd", "pyftpdlib": "python3-pyftpdlib"}
USER = "alice"


@contextlib.contextmanager
def _mounted(command, folder, log):
    """A FUSE program in the foreground, and its mount; yields its process id."""
    with child(command, log) as process:
        def ready():
            if process.poll() is not None:
                raise BenchError(f"{command[0]} ended:\n{log.read_text(errors='replace')[-2000:]}")
            return os.path.ismount(folder)
        wait_for(ready, f"{command[0]} does not mount")
        try:
            yield process.pid
        finally:
            for options in (["-u"], ["-u", "-z"]):
                if subprocess.run(["fusermount3", *options, folder], capture_output=True, check=False).returncode == 0:
                    break


def _s3fs(folder, scratch, store):
    """As its manual recommends for a store that is not Amazon's; its temporary files are counted in `scratch`."""
    keys = folder / "s3fs.keys"
    keys.touch(mode=0o600)
    keys.write_text(":".join(store.user))
    return ["s3fs", BUCKET, folder / "mount", "-f", "-o", f"passwd_file={keys},url={store.endpoint},use_path_request_style,"
            f"tmpdir={scratch}"]


def _rclone(folder, scratch, store):
    """Writes go to the store at once when a file is closed; times come from the listing, without a request for each name."""
    config = folder / "rclone.conf"
    config.touch(mode=0o600)
    config.write_text(f"[store]\ntype = s3\nprovider = Ceph\naccess_key_id = {store.user[0]}\nsecret_access_key = {store.user[1]}\n"
                      f"endpoint = {store.endpoint}\nlist_version = 2\n")
    return ["rclone", "mount", f"store:{BUCKET}", folder / "mount", "--config", config, "--cache-dir", scratch,
            "--vfs-cache-mode", "writes", "--vfs-write-back", "0s", "--use-server-modtime"]


def _vsftpd(folder, port, _password):
    """Anonymous sessions of the launching user: no chroot, no privilege separation that would cost it anything."""
    config = folder / "vsftpd.conf"
    empty = folder / "empty"
    empty.mkdir()
    settings = {"listen": "YES", "listen_ipv6": "NO", "listen_address": "127.0.0.1", "listen_port": port, "background": "NO",
                "anonymous_enable": "YES", "local_enable": "NO", "write_enable": "YES",
                "anon_upload_enable": "YES", "anon_mkdir_write_enable": "YES", "anon_other_write_enable": "YES",
                "anon_world_readable_only": "NO", "anon_root": folder / "mount",
                "run_as_launching_user": "YES", "ftp_username": "root", "nopriv_user": "root", "secure_chroot_dir": empty,
                "seccomp_sandbox": "NO", "xferlog_enable": "NO", "idle_session_timeout": 3600, "data_connection_timeout": 3600}
    config.write_text("".join(f"{key}={value}\n" for key, value in settings.items()))
    return ["vsftpd", config], "anonymous", "x", "LIST"


def _pyftpdlib(folder, port, password):
    return ["/usr/bin/python3", "-m", "pyftpdlib", "-i", "127.0.0.1", "-p", port, "-w", "-d", folder / "mount", "-u", USER,
            "-P", password], USER, password, "MLSD"


MOUNTS = {"s3fs": _s3fs, "rclone": _rclone}
SERVERS = {"vsftpd": _vsftpd, "pyftpdlib": _pyftpdlib}
PEERS = tuple(f"{mount}-{server}" for mount in MOUNTS for server in SERVERS)


def _versions(name):
    return ", ".join(f"{package} {run('dpkg-query', '-W', '-f', '${Version}', package)}"
                     for package in (NEEDS[part] for part in name.split("-")))


@contextlib.contextmanager
def peer(name, work, store):
    """A peer in front of a store, as a Service."""
    mount, server = name.split("-")
    if not shutil.which(mount):
        raise BenchError(f"{mount} is not installed (packages_bench in tools/packages.sh)")
    if not os.access("/dev/fuse", os.W_OK):
        raise BenchError("no access to /dev/fuse: the peers cannot be mounted here")
    title = _versions(name)
    folder = Path(tempfile.mkdtemp(prefix=f"{name}-", dir=work))
    scratch = folder / "scratch"
    for path in (folder / "mount", scratch):
        path.mkdir()
    with _mounted(MOUNTS[mount](folder, scratch, store), folder / "mount", folder / f"{mount}.log") as mount_pid:
        port = free_port()
        command, user, password, verb = SERVERS[server](folder, port, secrets.token_hex(12))
        log = folder / f"{server}.log"
        with child(command, log) as process:
            def ready():
                if process.poll() is not None:
                    raise BenchError(f"{server} ended:\n{log.read_text(errors='replace')[-2000:]}")
                return listens(port)
            wait_for(ready, f"{server} does not listen")
            yield Service(name, title, port, user, password, "", scratch, [mount_pid, process.pid], verb,
                          (lambda: os.kill(mount_pid, signal.SIGHUP)) if mount == "rclone" else None)
