#!/usr/bin/env bash
# The one script that installs Debian packages:
#   bash scripts/install-deps.sh PACKAGE...          installs those missing (apt-get, as root or through sudo)
#   bash scripts/install-deps.sh --check PACKAGE...  names those missing and exits 1, installs nothing
# Only the README's two commands, scripts/bench.sh, scripts/bench-http.sh and
# .ci/run install; the other scripts check.
set -euo pipefail
check=0
if [ "${1:-}" = --check ]; then
    check=1
    shift
fi
if ! command -v dpkg-query >/dev/null 2>&1; then
    echo "install-deps: no dpkg here; these have to be installed: $*" >&2
    exit 0
fi
missing=()
for package in "$@"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q ' installed$' || missing+=("$package")
done
[ ${#missing[@]} -gt 0 ] || exit 0
if [ "$check" = 1 ]; then
    echo "missing packages: ${missing[*]}" >&2
    echo "install them with: bash scripts/install-deps.sh ${missing[*]}" >&2
    exit 1
fi
echo "installing: ${missing[*]}"
sudo_cmd=()
[ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
"${sudo_cmd[@]}" apt-get update -qq
DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq "${missing[@]}"
