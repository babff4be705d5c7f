# The Debian 12 packages that this repository needs, by what they are for, and a function that installs what is missing.
# To be sourced by bash scripts: `ensure_packages build test`. Nothing else is ever downloaded.
# shellcheck shell=bash

packages_build=(
  g++ cmake ninja-build pkg-config ccache lld git
  libcurl4-openssl-dev libssl-dev libpugixml-dev libjansson-dev
  libboost1.81-dev libtomlplusplus-dev libcli11-dev libspdlog-dev libfmt-dev
  libcrypt-dev
  libgtest-dev libgmock-dev
)
packages_demo=(python3 python3-boto3 whois curl)
packages_test=(python3 python3-pytest python3-pytest-timeout python3-pytest-xdist python3-boto3 lftp curl whois binutils util-linux)
packages_rgw=(radosgw ceph-mon ceph-osd)
# What bench/bench.py needs beside demo and rgw when it is to measure peers as well.
packages_bench=(s3fs rclone vsftpd python3-pyftpdlib fuse3 git)
packages_lint=(clang-19 clang-tidy-19 clang-format-19 libclang-rt-19-dev)

# What tools/coverage.sh needs beside build.
packages_coverage=(gcovr)

# ensure_packages GROUP...: installs what is missing of the groups; needs root or sudo only when something is missing.
# Prints what it installs; status 1, and the end of apt's output, when that fails.
ensure_packages() {
  local group name log missing=() as_root=()
  for group in "$@"; do
    local -n list="packages_$group"
    for name in "${list[@]}"; do
      [ "$(dpkg-query -W -f '${db:Status-Status}' "$name" 2>/dev/null)" = installed ] || missing+=("$name")
    done
  done
  [ ${#missing[@]} -gt 0 ] || return 0
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || { echo "missing: ${missing[*]} (run as root, or install sudo)" >&2; return 1; }
    as_root=(sudo)
  fi
  echo "installing: ${missing[*]}"
  log=$(mktemp)
  # A repository of somebody else's that is down must not stop us: what counts is whether the install works.
  "${as_root[@]}" apt-get -o DPkg::Lock::Timeout=300 update -qq >"$log" 2>&1 || true
  if ! "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=300 install -y -qq \
      --no-install-recommends "${missing[@]}" >>"$log" 2>&1 </dev/null; then
    tail -n 20 "$log" >&2
    rm -f "$log"
    return 1
  fi
  rm -f "$log"
}
