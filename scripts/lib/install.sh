#!/usr/bin/env bash
# install.sh PACKAGE...: installs those of the Debian packages that are missing. Uses sudo only when
# not root, asks nothing, and starts no service that a package brings along.
set -euo pipefail

missing=()
for package in "$@"; do
    status=$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null || true)
    [ "$status" = installed ] || missing+=("$package")
done
[ ${#missing[@]} -gt 0 ] || exit 0

as_root=()
if [ "$(id -u)" -ne 0 ]; then
    if ! command -v sudo >/dev/null; then
        echo "missing packages: ${missing[*]}; install them as root (there is no sudo here)" >&2
        exit 1
    fi
    as_root=(sudo)
fi
# env, because sudo drops the caller's environment.
apt() {
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -q -y -o DPkg::Lock::Timeout=120 "$@"
}

# Packages ask this file, where there is one, whether they may start their service (101: they may not).
policy=/usr/sbin/policy-rc.d
if [ ! -e "$policy" ]; then
    trap '"${as_root[@]}" rm -f "$policy"' EXIT
    printf '#!/bin/sh\nexit 101\n' | "${as_root[@]}" tee "$policy" >/dev/null
    "${as_root[@]}" chmod 755 "$policy"
fi

echo "installing: ${missing[*]}" >&2
apt update >&2
apt install --no-install-recommends "${missing[@]}" >&2
