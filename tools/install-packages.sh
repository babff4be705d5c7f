#!/bin/bash
# Install everything that building, testing and checking this repository takes (Debian 12).
set -eu
. "$(dirname "$0")/packages.sh"
ensure_packages build demo test rgw lint
