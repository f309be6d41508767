#!/bin/sh
# home.sh before|after LISTING: lists the user's home (the names two levels down, three in
# ~/.local, where ~/.config/fish or ~/.local/share/fish would appear) into LISTING before the
# tests, and after them fails, naming what changed, when the listing differs.
set -eu
list() {
    { find "$HOME" -mindepth 1 -maxdepth 2; [ ! -d "$HOME/.local" ] || find "$HOME/.local" -mindepth 2 -maxdepth 2; } |
        LC_ALL=C sort
}
case $1 in
before) list >"$2" ;;
after)
    list >"$2.after"
    if ! cmp -s "$2" "$2.after"; then
        echo "the tests changed $HOME (< before, > after):" >&2
        diff "$2" "$2.after" >&2 || true
        exit 1
    fi ;;
esac
