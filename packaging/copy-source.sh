#!/usr/bin/env bash
# copy-source.sh SOURCE DEST: copies the source tree into DEST (made afresh) for a package
# build, so that dpkg-buildpackage writes its files next to DEST and not next to SOURCE. In a
# git checkout: the tracked files and the new ones git does not ignore; a tracked file missing
# from the tree stops it. Elsewhere (an unpacked source package): all but the build folders.
set -euo pipefail
src=$1 dest=$2
rm -rf "$dest" && mkdir -p "$dest"
if [[ $(git -C "$src" rev-parse --show-toplevel 2>/dev/null) == "$(cd "$src" && pwd -P)" ]]; then
    missing=$(git -C "$src" ls-files --deleted)
    if [[ -n $missing ]]; then
        printf 'copy-source.sh: tracked in git but missing from %s (restore or git rm them):\n%s\n' \
            "$src" "$missing" >&2
        exit 1
    fi
    (cd "$src" && git ls-files -z --cached --others --exclude-standard | tar cf - --null -T -) | tar xf - -C "$dest"
else
    (cd "$src" && tar cf - --exclude='./build*' --exclude='./obj-*' .) | tar xf - -C "$dest"
fi
