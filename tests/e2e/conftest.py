"""Fixtures of the end-to-end tests: real stores, the real server with the real module, real clients.

A run needs built binaries (--build-dir). Every test runs against both stores; --store picks one, --no-rgw leaves the RADOS
Gateway out. Tests that need no store belong to the dev store's run. After every test the server must have closed what the test opened.
"""

import ftplib
import functools
import itertools
import shutil
import signal
import subprocess
import tempfile
from dataclasses import dataclass
from pathlib import Path
from urllib.parse import quote

import botocore.exceptions
import pytest

from ftp_client import FtpClient
from gateway import Gateway, shared_server
from keyless import KeylessRequests
from multipart import parts_of, uploads_in
from stores import DevStore, RgwStore

ROOT = Path(__file__).resolve().parent.parent.parent
STORES = ("devstore", "rgw")


def pytest_addoption(parser):
    group = parser.getgroup("gateway")
    group.addoption("--build-dir", default=str(ROOT / "build" / "release"), help="where bin/ and lib/ are")
    group.addoption("--devstore-binary", help="a dev store from elsewhere, say from a faster build")
    group.addoption("--store", choices=STORES, help="run against this store alone")
    group.addoption("--sparse-size", type=int, default=1, metavar="GIB", help="of the largest file of zeros (default 1)")
    group.addoption("--no-rgw", action="store_true", help="skip the tests against the RADOS Gateway")


@dataclass
class Binaries:
    server: Path
    devstore: Path
    module_dir: Path

    @property
    def module(self):
        return self.module_dir / "libzorvan_gridftp_server_ceph.so"


def pytest_configure(config):
    def terminated(*_):
        raise KeyboardInterrupt("SIGTERM")

    signal.signal(signal.SIGTERM, terminated)  # so that servers and stores are stopped in that case too
    build = Path(config.getoption("--build-dir")).resolve()
    devstore = Path(config.getoption("--devstore-binary") or build / "bin" / "zorvan-devstore")
    config.binaries = Binaries(build / "bin" / "zorvan-gridftp-server", devstore, build / "lib")
    for path in (config.binaries.server, config.binaries.devstore, config.binaries.module):
        if not path.exists() and not config.option.collectonly and not config.option.help:
            raise pytest.UsageError(f"{path} is missing: build first, or name the build with --build-dir")
    if config.getoption("--store") != "devstore" and not config.getoption("--no-rgw") and not shutil.which("radosgw"):
        raise pytest.UsageError("radosgw is not installed; --no-rgw runs the tests against the dev store alone")


def pytest_generate_tests(metafunc):
    if "store" in metafunc.fixturenames:
        if marker := metafunc.definition.get_closest_marker("devstore_only"):
            assert marker.kwargs.get("reason"), "say why the other store cannot run the test"
            names = ["devstore"]
        else:
            names = list(STORES)
        chosen = metafunc.config.getoption("--store")
        metafunc.parametrize("store", [name for name in names if chosen in (None, name)], indirect=True, scope="session")


def pytest_collection_modifyitems(config, items):
    if config.getoption("--store") == "rgw":
        kept = [item for item in items if "store" in item.fixturenames and not item.get_closest_marker("devstore_only")]
        config.hook.pytest_deselected(items=[item for item in items if item not in kept])
        items[:] = kept


@pytest.fixture(scope="session")
def binaries(request):
    return request.config.binaries


@pytest.fixture(scope="session", autouse=True)
def module_log(tmp_path_factory):
    """Has every server of the run log the requests that the module makes; no test may cause one on an empty key."""
    log = KeylessRequests(tmp_path_factory.mktemp("module") / "requests.log")
    with pytest.MonkeyPatch.context() as patch:
        patch.setenv("ZORVAN_S3_DEBUG", f"INFO,#{log.file}")
        yield log
    log.check_attempts()


@pytest.fixture(scope="session")
def store(request, binaries, module_log):
    if request.param == "rgw" and request.config.getoption("--no-rgw"):
        pytest.skip("--no-rgw")
    folder = Path(tempfile.mkdtemp(prefix=f"zorvan-{request.param}-"))
    running = DevStore(binaries.devstore, folder) if request.param == "devstore" else RgwStore(folder)
    try:
        yield running
        module_log.check_wire(running)
    finally:
        running.stop()
        shutil.rmtree(folder, ignore_errors=True)


@pytest.fixture(scope="session")
def server(store, binaries):
    """The server that most tests share."""
    with shared_server(binaries, store) as gateway:
        yield gateway


@pytest.fixture
def fresh_server(store, binaries):
    """Makes servers of a test's own; keyword arguments as Gateway takes them."""
    made = []

    def make(**options):
        folder = Path(tempfile.mkdtemp(prefix="zorvan-server-"))
        made.append(Gateway(binaries, store, folder, **options))
        return made[-1]

    yield make
    for gateway in made:
        if gateway.process.poll() is None:
            gateway.stop()
        shutil.rmtree(gateway.folder, ignore_errors=True)


@pytest.fixture(autouse=True)
def nothing_left_behind(request):
    """After each test on the shared server: no session, no data connection, no spool file."""
    server = request.getfixturevalue("server") if "server" in request.fixturenames else None
    yield
    if server:
        assert server.process.poll() is None, f"the server died:\n{server.log_text()[-4000:]}"
        server.wait_idle()


@pytest.fixture
def connect(server):
    """Makes control connections that are closed at the end of the test."""
    made = []

    def make(host=None):
        made.append(FtpClient(server.host, server.port))
        if host:
            made[-1].expect(220, f"HOST {host}")
        return made[-1]

    yield make
    for client in made:
        client.close()


@pytest.fixture
def login(server, connect):
    """Makes logged-in control connections in binary mode."""

    def make(user="alice", host=None):
        client = connect(host)
        reply = client.login(user, server.passwords[user])
        assert reply.code == 230, reply.lines
        client.expect(200, "TYPE I")
        return client

    return make


@pytest.fixture
def ftp(login):
    """Alice's control connection."""
    return login()


@pytest.fixture(scope="session")
def s3(store):
    """Alice's own S3 client: the judge of what is stored."""
    return store.client("alice")


@pytest.fixture(scope="session")
def new_bucket(store):
    """Makes buckets with names never used before."""
    numbers = itertools.count()

    def make(owner="alice", name=None):
        name = name or f"{owner}-bucket-{next(numbers)}"
        store.client(owner).create_bucket(Bucket=name)
        return name

    return make


@pytest.fixture
def bucket(new_bucket):
    """An empty bucket of Alice's."""
    return new_bucket()


@pytest.fixture
def stored(s3):
    """The bytes of an object, or None when there is none."""

    def read(bucket, key):
        try:
            return s3.get_object(Bucket=bucket, Key=key)["Body"].read()
        except botocore.exceptions.ClientError as error:
            assert error.response["Error"]["Code"] in ("NoSuchKey", "404"), error
            return None

    return read


@pytest.fixture
def uploads(s3):
    """The multipart uploads in progress of a bucket, {key: [upload id]}."""
    return functools.partial(uploads_in, s3)


@pytest.fixture
def stored_parts(s3):
    """The numbers of the parts that a key's only upload in progress has; none when there is no such upload."""
    return lambda bucket, key: list(parts_of(s3, bucket, key))


# -- programs that people use ---------------------------------------------------------------------------------------------
@pytest.fixture
def curl(server):
    """Runs curl against a path; returns the finished process."""

    def run(path, *options, user="alice", password=None, **settings):
        password = password or server.passwords[user]
        url = f"ftp://{server.host}:{server.port}/{quote(path.lstrip('/'), safe='/')}"
        return subprocess.run(["curl", "-sS", "--max-time", "60", "-u", f"{user}:{password}", *map(str, options), url],
                              capture_output=True, timeout=90, check=False, **settings)

    return run


@pytest.fixture
def lftp(server, tmp_path):
    """Runs lftp commands in tmp_path; returns what it printed, and fails when lftp does."""

    def run(*commands, check=True, settings=()):
        fixed = ["set ftp:ssl-allow no", "set net:max-retries 1", "set net:timeout 30", "set cmd:fail-exit yes", *settings,
                 f"open -u alice,{server.passwords['alice']} ftp://{server.host}:{server.port}"]
        script = tmp_path / ".lftp-script"
        script.write_text("\n".join([*fixed, *commands]) + "\n")
        done = subprocess.run(["lftp", "--norc", "-f", str(script)], cwd=tmp_path, capture_output=True, timeout=120,
                              check=False, env={"HOME": str(tmp_path), "PATH": "/usr/bin:/bin", "LC_ALL": "C.UTF-8"})
        assert not check or done.returncode == 0, done.stderr.decode()
        return done

    return run


@pytest.fixture
def pyftp(server):
    """A logged-in client of Python's own."""
    with ftplib.FTP() as client:
        client.connect(server.host, server.port, timeout=60)
        client.login("alice", server.passwords["alice"])
        yield client


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    """Shows what the server logged while a failing test ran."""
    outcome = yield
    report = outcome.get_result()
    server = getattr(item, "funcargs", {}).get("server")
    if report.failed and server and server.log_file.exists():
        text = server.log_text()
        report.sections.append(("server log", "\n".join(text.splitlines()[-40:])))
