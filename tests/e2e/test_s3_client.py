"""The S3 client by itself against each store: the program of its unit tests runs the cases that need a real one."""

import os
import subprocess


def test_the_s3_client_agrees_with_the_store(store, pytestconfig):
    program = pytestconfig.binaries.server.with_name("zorvan_s3_tests")
    access, secret = store.users["alice"][0]
    admin_access, admin_secret = store.users["admin"][0]
    environment = dict(os.environ, S3_TEST_ENDPOINT=store.endpoint, S3_TEST_ACCESS_KEY=access, S3_TEST_SECRET_KEY=secret,
                       S3_TEST_ADMIN_ACCESS_KEY=admin_access, S3_TEST_ADMIN_SECRET_KEY=admin_secret, S3_TEST_USER="alice")
    done = subprocess.run([str(program), "--gtest_filter=LiveStore.*"], env=environment, stdin=subprocess.DEVNULL,
                          capture_output=True, text=True, timeout=170, check=False)
    assert done.returncode == 0, done.stdout + done.stderr
    assert "[  SKIPPED ]" not in done.stdout
    assert "[  PASSED  ] 0 tests" not in done.stdout
