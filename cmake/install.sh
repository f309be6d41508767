#!/bin/sh
# install.sh BUILD PREFIX: `make install`. Installs BUILD into PREFIX (under DESTDIR, when set)
# only when every folder it would write to can be written: first into a scratch folder, to
# learn where the files go, then for real. Otherwise nothing is installed, and the message
# says what to run instead.
set -eu
build=$1 prefix=$2
trial=$(mktemp -d)
trap 'rm -rf "$trial"' EXIT
DESTDIR=$trial cmake --install "$build" --prefix "$prefix" >/dev/null
blocked=$(find "$trial" ! -type d | while IFS= read -r file; do
    target=${DESTDIR:-}${file#"$trial"} dir=$(dirname "${DESTDIR:-}${file#"$trial"}")
    until [ -e "$dir" ]; do dir=$(dirname "$dir"); done
    if [ -e "$target" ] && [ ! -w "$target" ]; then echo "$target"
    elif [ ! -w "$dir" ]; then echo "$dir"
    fi
done | sort -u)
if [ -n "$blocked" ]; then
    echo "make install: $(id -un) cannot write to $(echo $blocked); nothing was installed." >&2
    echo "Run it as root (sudo make install), or install into a folder of your own:" \
        "make install PREFIX=\$HOME/.local" >&2
    exit 1
fi
cmake --install "$build" --prefix "$prefix"
