#!/bin/sh
# Installs the Debian packages the build, the tests and the benchmarks need;
# with --peers, also those of the peer comparison (make bench-peers); with
# --fuzz, clang and its fuzzer runtime (make fuzz).
# Idempotent: when everything is present it only checks and exits.
# As root it runs apt-get itself (after one 'apt-get update'); otherwise it
# prints the command to run and fails.
set -eu

packages="g++ make cmake pkg-config qtbase5-dev zlib1g-dev libdw-dev libgtest-dev libbenchmark-dev"
case "${1:-}" in
--peers)
    packages="$packages libabsl-dev libsqlite3-dev libisal-dev libquantlib0-dev"
    # The streaming engine peer runs in Node.js; a machine that has node and
    # npm from elsewhere keeps them.
    command -v node >/dev/null 2>&1 && command -v npm >/dev/null 2>&1 || packages="$packages nodejs npm"
    ;;
--fuzz) packages="$packages clang libclang-rt-14-dev" ;;
esac

missing=""
for p in $packages; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing="$missing $p"
    fi
done

[ -z "$missing" ] && exit 0

echo "install-deps: missing Debian packages:$missing"
if [ "$(id -u)" -ne 0 ]; then
    echo "install-deps: run as root:  apt-get update && apt-get install -y$missing" >&2
    exit 1
fi
export DEBIAN_FRONTEND=noninteractive
apt-get update -q
# shellcheck disable=SC2086
apt-get install -y -q --no-install-recommends $missing
