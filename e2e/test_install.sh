#!/usr/bin/env bash
# The installed tools: file list, man pages and bash completion, checked in a
# staged install (DESTDIR) of the build tree.
# Usage: test_install.sh BUILD_DIR STAGE_DIR stage|files|man|completion
set -euo pipefail
build=$(realpath "$1") stage=$(realpath -m "$2")
bin=$stage/usr/bin
tmp=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null || true; rm -rf "$tmp"' EXIT
fail() { printf 'FAIL: %s\n' "$*" >&2; exit 1; }
# What an install holds, under the prefix /usr; everything of devsim's has its name.
want=$(printf '%s\n' usr/bin/{devsim,devupdate} usr/share/man/man1/{devsim,devupdate}.1.gz \
    usr/share/{bash-completion/completions/{devsim,devupdate},zsh/vendor-completions/_{devsim,devupdate}} \
    usr/share/fish/vendor_completions.d/{devsim,devupdate}.fish usr/share/doc/devsim/examples/example.json \
    usr/share/doc/{devsim,devupdate}/{README.md,changelog.gz,copyright} | LC_ALL=C sort)

# The options each parser takes: those its help text names, plus the spellings it
# takes but does not show (and without the one it shows but refuses).
options() {
    if [[ $1 == devupdate ]]; then
        { "$bin/devupdate" --help || true; }
        printf '%s\n' --all --recover-safe=
    else
        "$bin/devsim" --help
    fi | grep -oE -- '(^| )--?[a-z][-a-z]*=?' | tr -d ' ' | grep -vx -- --update-all | LC_ALL=C sort -u
}

case $3 in
stage)
    rm -rf "$stage"
    DESTDIR=$stage cmake --install "$build" --prefix /usr >/dev/null ;;
files)
    got=$(cd "$stage" && find . ! -type d -printf '%P\n' | LC_ALL=C sort)
    [[ $got == "$want" ]] || fail "installed files:"$'\n'"$(diff <(echo "$want") <(echo "$got"))"
    # No arguments is a missing action; an unknown one, such as --help, gets the usage text.
    out=$("$bin/devupdate") && fail "no arguments: exit 0" || (($? == 1)) || fail "no arguments: not 1"
    [[ $out == "Error: One of either --list, --file, --recover-safe or --recover-failsafe must be specified" ]] ||
        fail "no arguments: $out"
    out=$("$bin/devupdate" --help) && fail "--help: exit 0" || (($? == 1)) || fail "--help: not 1"
    [[ $out == "Usage: $bin/devupdate [options]"$'\n\n'Options:* ]] || fail "--help: $out" ;;
man)
    for page in devupdate devsim; do
        src=$stage/usr/share/man/man1/$page.1.gz
        lint=$(mandoc -T lint -W warning "$src" 2>&1; zcat "$src" | groff -man -ww -z 2>&1
               man --warnings -l "$src" 2>&1 >/dev/null)
        [[ -z $lint ]] || fail "$page.1 lint:"$'\n'"$lint"
        text=$(mandoc -T ascii -O width=1000 "$src" | sed 's/.\x08//g')
        for option in $(options $page); do
            [[ $option == *= ]] && w= || w=w
            grep -qF$w -- "$option" <<<"$text" || fail "$page.1 does not describe $option"
        done
    done ;;
completion)
    source /usr/share/bash-completion/bash_completion
    source "$stage/usr/share/bash-completion/completions/devupdate"
    compopt() { [[ $* != "-o nospace" ]] || nospace=" (nospace)"; }
    # Completes the line as bash does (words split at blanks, "=" and ":") and
    # prints the replies, which must be all the completion printed.
    complete_line() {
        COMP_LINE=$1 COMP_POINT=${#1} COMPREPLY=() nospace=
        read -ra COMP_WORDS < <(sed 's/[=:]/ & /g' <<<"$1")
        COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
        _devupdate devupdate "${COMP_WORDS[-1]}" "${COMP_WORDS[-2]}" >"$tmp/noise" 2>&1
        [[ ! -s $tmp/noise ]] || fail "completion printed $(cat "$tmp/noise")"
        echo "${COMPREPLY[*]}$nospace"
    }
    serve() {  # NAME OPTIONS...: a devsim whose first line lands in $tmp/NAME
        "$bin/devsim" --port=0 "${@:2}" >"$tmp/$1" 2>"$tmp/$1.log" &
    }
    port() {
        for _ in {1..100}; do [[ -s $tmp/$1 ]] && break || sleep 0.05; done
        [[ -s $tmp/$1 ]] || fail "devsim $1 did not start: $(cat "$tmp/$1.log")"
        sed 's/.*://' "$tmp/$1"
    }
    PATH=$bin:$PATH
    cd "$tmp" && touch fw.bin && mkdir frames
    printf '[{"name": "hall panel 1"}, {"name": "hall:2"}]' >odd.json
    serve lobby --record=frames/lobby && serve odd --fleet=odd.json && serve mute --mute-after=0
    lobby=$(port lobby); odd=$(port odd); mute=$(port mute)
    check() {
        start=${EPOCHREALTIME/./}
        got=$(complete_line "$1")
        (( ${EPOCHREALTIME/./} - start < 2000000 )) || fail "'$1' took 2 s or more"
        [[ $got == "$2" ]] || fail "'$1' completed to '$got', not '$2'"
    }
    [[ $(complete_line "devupdate -" | tr ' ' '\n' | LC_ALL=C sort) == "$(options devupdate)" ]] ||
        fail "the options completed are not the parser's"
    while IFS='|' read -r line want; do check "$line" "$want"; done <<EOF
devupdate --li|--list
devupdate --device-mo|--device-mode= (nospace)
devupdate --recover-s|--recover-safe --recover-safe=
devupdate --update|
devupdate --device-mode=|normal failsafe safe
devupdate --device-mode=f|failsafe
devupdate --device-mac=aa:bb|
devupdate --device-mac=aa:bb --reb|--reboot
devupdate --file=fw|fw.bin
devupdate --recover-safe=fram|frames
devupdate --port=$lobby --device-name=lob|lobby-panel-01 lobby-panel-02
devupdate --port=$lobby --reboot --file=fw.bin --device-mode=safe -a --device-name=|lobby-panel-01 lobby-panel-02 warehouse-gw-01 warehouse-gw-02 dock-controller-03 yard-gw-07
devupdate --port=$odd --device-name=hall|hall\ panel\ 1 hall:2
devupdate --port=$odd --device-name=hall:|2
devupdate --port=$mute --device-name=|
devupdate --port=1 --device-name=|
devupdate --port=x$lobby --device-name=|
EOF
    [[ ! -s frames/lobby ]] || fail "the completion sent $(cat frames/lobby)" ;;
package)
    for deb in "$build"/{devupdate,devsim}_*.deb; do
        name=$(dpkg-deb --field "$deb" Package)
        got=$(dpkg-deb --contents "$deb" | grep -v '/$' | sed 's/.* \.\///' | LC_ALL=C sort)
        [[ $got == "$(grep $([[ $name == devsim ]] || echo -v) devsim <<<"$want")" ]] || fail "$deb holds:"$'\n'"$got"
        dpkg-deb --field "$deb" Depends | grep -q libjsoncpp || fail "$deb: no dependencies found"
    done
    lintian --fail-on error "$build"/{devupdate,devsim}_*.deb ;;
esac
