#!/usr/bin/env bash
# The installed tools (file list, man pages, bash completion) in a staged install of the
# build tree, and the packages. Usage: test_install.sh BUILD STAGE stage|files|man|completion|package|reproducible
set -euo pipefail
build=$(realpath "$1") stage=$(realpath -m "$2") tmp=$(mktemp -d)
bin=$stage/usr/bin
trap 'kill $(jobs -p) 2>/dev/null || true; rm -rf "$tmp"' EXIT
fail() { printf 'FAIL: %s\n' "$*" >&2; exit 1; }
# What an install holds, under the prefix /usr; everything of devsim's has its name.
want=$(printf '%s\n' usr/bin/{devsim,devupdate} usr/share/man/man1/{devsim,devupdate}.1.gz \
    usr/share/{bash-completion/completions/{devsim,devupdate},zsh/vendor-completions/_{devsim,devupdate}} \
    usr/share/fish/vendor_completions.d/{devsim,devupdate}.fish usr/share/doc/devsim/examples/example.json \
    usr/share/doc/{devsim,devupdate}/{README.md,changelog.gz,copyright} | LC_ALL=C sort)

# The options a parser takes: those its help text names, plus the spellings devupdate
# takes but does not show, less the one it shows but refuses.
options() {
    { "$bin/$1" --help || true; [[ $1 == devsim ]] || echo " --all --recover-safe="; } |
        grep -oE -- ' --?[a-z][-a-z]*=?' | tr -d ' ' | grep -vx -- --update-all | LC_ALL=C sort -u
}

case $3 in
stage)
    rm -rf "$stage"
    DESTDIR=$stage cmake --install "$build" --prefix /usr >/dev/null ;;
files)
    got=$(cd "$stage" && find . ! -type d -printf '%P\n' | LC_ALL=C sort)
    [[ $got == "$want" ]] || fail "installed files:"$'\n'"$(diff <(echo "$want") <(echo "$got"))"
    # The installed READMEs are for package users: no build commands, no source-tree paths.
    for doc in "$stage"/usr/share/doc/*/README.md; do
        ! grep -nE 'make (demo|build|test|install|package)|cmake|build/|fleets/|docs/' "$doc" || fail "$doc talks about the source tree"
    done
    # No arguments is a missing action; an unknown one, such as --help, gets the usage text.
    status() { "$bin/devupdate" "$@" >"$tmp/out" || echo $?; }
    [[ $(status) == 1 && $(<"$tmp/out") == "Error: One of either --list, --file, --recover-safe or \
--recover-failsafe must be specified" ]] ||
        fail "no arguments: $(<"$tmp/out")"
    [[ $(status --help) == 1 && $(<"$tmp/out") == "Usage: $bin/devupdate [options]"$'\n\n'Options:* ]] ||
        fail "--help: $(<"$tmp/out")" ;;
man)
    for page in devupdate devsim; do
        src=$stage/usr/share/man/man1/$page.1.gz
        lint=$(mandoc -T lint -W warning "$src" 2>&1; zcat "$src" | groff -man -ww -z 2>&1
               man --warnings -l "$src" 2>&1 >/dev/null)
        [[ -z $lint ]] || fail "$page.1 lint:"$'\n'"$lint"
        text=$(mandoc -T ascii -O width=1000 "$src" | sed 's/.\x08//g')
        opts=$(options $page) && [[ $opts == *--port=* ]] || fail "no options from $page --help"
        for option in $opts; do
            [[ $option == *= ]] && w= || w=w
            grep -qF$w -- "$option" <<<"$text" || fail "$page.1 does not describe $option"
        done
    done
    # devsim's rehearsal, run line by line as printed (on a free port), ends with status 0.
    example=$(sed -n '/^EXAMPLES/,/^SEE ALSO/p' <<<"$text" | sed -n '/ devsim --port=7071 &$/,/ kill %1$/p')
    [[ $example == *devupdate* ]] || fail "devsim.1: no rehearsal in EXAMPLES"
    "$bin/devsim" --port=0 --tick-ms=0 >"$tmp/listening" 2>/dev/null &
    for _ in {1..100}; do [[ $(cat "$tmp/listening" 2>&1) =~ :([0-9]+)$ ]] && break || sleep 0.05; done
    port=${BASH_REMATCH[1]?devsim did not start}
    (cd "$tmp" && PATH=$bin:$PATH && while read -r line; do
        [[ $line == devsim\ * || $line == kill\ * ]] || eval "${line//7071/$port}" >/dev/null || exit
     done <<<"$example") || fail "devsim.1's rehearsal ended with status $?" ;;
completion)
    source /usr/share/bash-completion/bash_completion
    source "$stage/usr/share/bash-completion/completions/devupdate"
    source "$stage/usr/share/bash-completion/completions/devsim"
    compopt() { [[ $* != "-o nospace" ]] || nospace=" (nospace)"; }
    check() {  # LINE WANT: completes LINE as bash does (words split at blanks, "=" and ":")
        COMP_LINE=$1 COMP_POINT=${#1} COMPREPLY=() nospace= start=${EPOCHREALTIME/./}
        read -ra COMP_WORDS < <(sed 's/[=:]/ & /g' <<<"$1")
        COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
        "_${COMP_WORDS[0]}" "${COMP_WORDS[0]}" "${COMP_WORDS[-1]}" "${COMP_WORDS[-2]}" >"$tmp/noise" 2>&1 || true
        (( ${EPOCHREALTIME/./} - start < 2000000 )) || fail "'$1' took 2 s or more"
        [[ ! -s $tmp/noise ]] || fail "'$1' printed $(<"$tmp/noise")"
        got=$(printf '%s\n' "${COMPREPLY[@]}" | LC_ALL=C sort | paste -sd' ')$nospace
        [[ $got == "$2" ]] || fail "'$1' completed to '$got', not '$2'"
    }
    serve() {  # VAR OPTIONS...: starts devsim and sets VAR to its port
        "$bin/devsim" --port=0 "${@:2}" >"$tmp/$1" 2>"$tmp/$1.log" &
        for _ in {1..100}; do [[ $(cat "$tmp/$1" 2>&1) =~ :([0-9]+)$ ]] && break || sleep 0.05; done
        printf -v "$1" %s "${BASH_REMATCH[1]?devsim did not start: $(<"$tmp/$1.log")}"
    }
    PATH=$bin:$PATH
    cd "$tmp" && touch fw.bin && mkdir frames
    printf '[{"name": "hall panel 1"}, {"name": "hall:2"}]' >odd.json
    serve lobby --record=frames/lobby && serve odd --fleet=odd.json && serve mute --mute-after=0
    while IFS='|' read -r line want; do check "$line" "$want"; done <<EOF
devupdate -|$(options devupdate | paste -sd' ')
devupdate --li|--list
devupdate --device-mo|--device-mode= (nospace)
devupdate --recover-s|--recover-safe --recover-safe=
devupdate --device-mode=|failsafe normal safe
devupdate --device-mac=aa:bb --reb|--reboot
devupdate --file=fw|fw.bin
devupdate --recover-safe=fram|frames
devsim --fleet=|frames odd.json
devupdate --port=$lobby --device-name=lob|lobby-panel-01 lobby-panel-02
devupdate --port=$lobby --reboot --file=fw.bin --device-mode=safe -a --device-name=|dock-controller-03 lobby-panel-01 lobby-panel-02 warehouse-gw-01 warehouse-gw-02 yard-gw-07
devupdate --port=$odd --device-name=hall|hall:2 hall\ panel\ 1
devupdate --port=$odd --device-name=hall:|2
devupdate --port=$mute --device-name=|
devupdate --port=1 --device-name=|
EOF
    [[ ! -s frames/lobby ]] || fail "the completion sent $(cat frames/lobby)" ;;
package)
    for deb in "$build"/{devupdate,devsim}_*.deb; do
        name=$(dpkg-deb --field "$deb" Package)
        got=$(dpkg-deb --contents "$deb" | grep -v '/$' | sed 's/.* \.\///' | LC_ALL=C sort)
        [[ $got == "$(grep $([[ $name == devsim ]] || echo -v) devsim <<<"$want")" ]] || fail "$deb holds:"$'\n'"$got"
        dpkg-deb --field "$deb" Depends | grep -q libjsoncpp || fail "$deb: no dependencies found"
    done
    # Not a tag at all, not even an informational or pedantic one, warnings fail.
    tags=$(lintian -I --pedantic --fail-on error,warning "$build"/{devupdate,devsim}_*.deb 2>&1 |
           grep -v '^running with root' || true)
    [[ -z $tags ]] || fail "lintian:"$'\n'"$tags"
    # hardening-check cannot find control-flow protection where the C library's start
    # files lack it (Debian 12's do): no program linked with them can carry the mark.
    crti=$(gcc -print-file-name=crti.o 2>/dev/null || true)
    readelf -n "$crti" 2>/dev/null | grep -q 'x86 feature: IBT, SHSTK' || nocf=--nocfprotection
    for deb in "$build"/{devupdate,devsim}_*.deb; do
        rm -rf "$tmp/x" && dpkg-deb -x "$deb" "$tmp/x"
        hardening-check ${nocf-} "$tmp"/x/usr/bin/* >"$tmp/hardening" || fail "$(<"$tmp/hardening")"
    done ;;
reproducible)
    # The same sources built again in another folder give the same packages, byte for byte.
    src=$(cd "$(dirname "$0")/.." && pwd)
    export SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH:-$(git -C "$src" log -1 --format=%ct)}
    mkdir "$tmp/copy"
    (cd "$src" && git ls-files -z --cached --others --exclude-standard | xargs -0 tar cf - 2>/dev/null) |
        tar xf - -C "$tmp/copy"
    cmake -S "$tmp/copy" -B "$tmp/copy/build" -DBUILD_TESTING=OFF >"$tmp/log" 2>&1 &&
        cmake --build "$tmp/copy/build" -j "${JOBS:-2}" --target package >>"$tmp/log" 2>&1 ||
        fail "the second build failed:"$'\n'"$(tail -20 "$tmp/log")"
    for deb in "$build"/{devupdate,devsim}_*.deb; do
        cmp "$deb" "$tmp/copy/build/${deb##*/}" || fail "${deb##*/} differs when built in $tmp/copy"
    done
    echo "reproducible: $(cd "$build" && ls {devupdate,devsim}_*.deb | paste -sd' ') built twice, identical" ;;
esac
