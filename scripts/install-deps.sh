#!/usr/bin/env bash
# Installs the Debian packages listed in scripts/debian-packages.txt that are
# missing. As root it runs apt-get; otherwise it prints the command to run.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"

missing=()
while read -r pkg; do
    case "$pkg" in ''|'#'*) continue ;; esac
    status=$(dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null || true)
    [ "$status" = "install ok installed" ] || missing+=("$pkg")
done < "$here/debian-packages.txt"

if [ ${#missing[@]} -eq 0 ]; then
    exit 0
fi
if [ "$(id -u)" -eq 0 ]; then
    echo "Installing: ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt-get install -y -qq --no-install-recommends "${missing[@]}"
else
    echo "These Debian packages are missing; install them with:" >&2
    echo "  sudo apt-get install -y ${missing[*]}" >&2
    exit 1
fi
