#!/bin/bash
# Show the gateway at work on this machine. See --help.
set -u
cd "$(dirname "$0")" || exit 1
. tools/packages.sh
. tools/steps.sh

usage() {
  cat <<'TEXT'
usage: ./demo.sh [--once] [--store devstore|rgw] [--port N] [--build-dir DIR]

Installs what is missing (Debian 12, root or sudo), builds, starts an object store and the gateway on the loopback interface,
makes a user and a bucket, uploads a small and a large file over FTP, lists and downloads them, compares the checksums with
what the store itself holds, prints how to connect, and keeps running until Ctrl-C. Everything it made is removed at the end.

  --once            end after the round trip, with "demo passed" and status 0 when everything was right
  --store devstore  the small store of this repository (default)
  --store rgw       a real Ceph RADOS Gateway from Debian's packages
  --port N          for the FTP control connection (default 2811, or any free one when that is taken)
  --build-dir DIR   use the programs of this build; build nothing
TEXT
}

store=devstore build_dir='' arguments=()
while [ $# -gt 0 ]; do
  case $1 in
    --once) arguments+=(--once) ;;
    --store) store=${2:?--store needs a name}; shift ;;
    --port) arguments+=(--port "${2:?--port needs a number}"); shift ;;
    --build-dir) build_dir=${2:?--build-dir needs a folder}; shift ;;
    --help|-h) usage; exit 0 ;;
    *) echo "demo.sh: unknown option '$1'" >&2; usage >&2; exit 2 ;;
  esac
  shift
done
case $store in
  devstore) groups=(build demo) ;;
  rgw) groups=(build demo rgw) ;;
  *) echo "demo.sh: no store '$store'" >&2; exit 2 ;;
esac

ensure_packages "${groups[@]}" || { echo "demo failed: packages are missing"; exit 1; }
if [ -z "$build_dir" ]; then
  build_dir=build/release
  step build/results/demo-build.log "build" configure_and_build release "$(nproc)" \
    zorvan-gridftp-server zorvan_gridftp_server_ceph zorvan-devstore || { echo "demo failed: the build"; exit 1; }
fi
exec /usr/bin/python3 tools/demo.py --store "$store" --build-dir "$build_dir" "${arguments[@]}"
