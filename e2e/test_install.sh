#!/usr/bin/env bash
# The installed tools (file list, man pages, completion in bash, zsh and fish) in staged
# installs of the build tree (STAGE as a package, prefix /usr; STAGE.local as `make install`,
# prefix /usr/local), and the packages.
# Usage: test_install.sh BUILD STAGE stage|files|man|completion|zsh|fish|found|refused|package|reproducible
set -euo pipefail
src=$(cd "$(dirname "$0")/.." && pwd) space=' '
mkdir -p "$2"  # absolute paths without GNU realpath -m
build=$(cd "$1" && pwd -P) stage=$(cd "$2" && pwd -P) tmp=$(mktemp -d)
ulocal=$stage.local bin=$stage/usr/bin served=0 PATH=$bin:$PATH  # the installed tools first
trap 'kill $(jobs -p) 2>/dev/null || true; rm -rf "$tmp"' EXIT
fail() { printf 'FAIL: %s\n' "$*" >&2; exit 1; }
# Whatever the shells, man and the packaging tools keep goes here, not into the user's home.
export HOME=$tmp/home XDG_CONFIG_HOME=$tmp/home/.config XDG_DATA_HOME=$tmp/home/.local/share \
    XDG_STATE_HOME=$tmp/home/.local/state XDG_CACHE_HOME=$tmp/home/.cache
mkdir "$HOME"
# The package's completion folders: Debian's, or on macOS those that Homebrew's
# bash-completion (1 and 2) and zsh, and macOS's own zsh, read.
bashdir=usr/share/bash-completion/completions zshdir=usr/share/zsh/vendor-completions
[[ $(uname) != Darwin ]] || bashdir=usr/etc/bash_completion.d zshdir=usr/share/zsh/site-functions
# make install's prefix, where the shells look: /usr/local, or on macOS Homebrew's. The completion tables run
# against the package's layout, or on macOS (no packages) against make install's.
lprefix=/usr/local layouts=("$ulocal $lprefix" "$stage /usr")
[[ $(uname) != Darwin ]] || lprefix=$(brew --prefix) layouts=("$ulocal $lprefix")
read -r troot tprefix <<<"${layouts[${#layouts[@]} - 1]}"
# What an install holds, under the prefix /usr; everything of devsim's has its name.
want=$(printf '%s\n' usr/bin/{devsim,devupdate} usr/share/man/man1/{devsim,devupdate}.1.gz \
    $bashdir/{devsim,devupdate} $zshdir/_{devsim,devupdate} \
    usr/share/fish/vendor_completions.d/{devsim,devupdate}.fish usr/share/doc/devsim/examples/example.json \
    usr/share/doc/{devsim,devupdate}/{README.md,changelog.gz,copyright} | LC_ALL=C sort)

# The options a parser takes: those its help text names, plus the spellings devupdate
# takes but does not show, less the one it shows but refuses.
options() {
    { "$bin/$1" --help || true; [[ $1 == devsim ]] || echo " --all --recover-safe="; } |
        grep -oE -- ' --?[a-z][-a-z]*=?' | tr -d ' ' | grep -vx -- --update-all | LC_ALL=C sort -u
}

serve() {  # VAR OPTIONS...: starts devsim on a free port, sets VAR to the port it writes once listening
    local file=$tmp/devsim$((++served)).port pid
    "$bin/devsim" --port=0 --port-file="$file" "${@:2}" >/dev/null 2>"$file.log" &
    pid=$!
    until [[ -s $file ]]; do kill -0 $pid 2>/dev/null || fail "devsim ${*:2} did not start: $(<"$file.log")"; sleep 0.05; done
    printf -v "$1" %s "$(<"$file")"
}
# devsims for the completions, in a folder of its own with a firmware file and a folder to complete: the
# lobby (its built-in fleet, recording what it is sent), odd (names the shell must not take apart, and one
# with a comma), big (10,000 names), mute (never answers). A name run as a command would leave "pwned" behind.
odd_names=('hall panel 1' 'hall:2' "it's \"q\"" '$HOME' '`touch pwned`' 'a;touch pwned' 'b&c' 'star*'
           '#hash' 'back\slash' 'east,wing')
services() {  # SHELL
    mkdir "$tmp/clock" "$tmp/work" && cd "$tmp/work" && touch fw.bin && mkdir frames
    python3 -c 'import json, sys; print(json.dumps([{"name": n} for n in sys.argv[1:]]))' "${odd_names[@]}" >odd.json
    serve lobby --record=frames/lobby && serve odd --fleet=odd.json && serve mute --mute-after=0
    serve big --generate-fleet=10000 --tick-ms=0
    # The watchdog's second is over at once while clock/expired exists (rows against the
    # silent service), never otherwise: no row depends on how fast the tool lists.
    printf '#!/bin/sh\n[ -e "${0%%/*}/expired" ] && exit 0\nexec %s 86400\n' "$(command -v sleep)" >"$tmp/clock/sleep"
    chmod +x "$tmp/clock/sleep"
    PATH=$tmp/clock:$PATH
    # The table: lines for SHELL (b bash, z zsh, f fish) | what zsh leaves on the line | the names offered as
    # their user reads them back, sorted, "|" between ("*N": N names). A list line with a comma inside a field
    # offers no name: there is no telling which field holds it.
    odd_list=$(printf '%s\n' "${odd_names[@]}" | grep -v , | LC_ALL=C sort | paste -sd'|' -)
    sed -n "s/^[a-z]*$1[a-z]*|//p" >table <<EOF
bzf|devupdate --li|devupdate --list${space}|--list
b|devupdate -||$(options devupdate | paste -sd'|')
b|devupdate --device-mo||--device-mode=
b|devupdate --recover-s||--recover-safe|--recover-safe=
bzf|devupdate --device-mode=|devupdate --device-mode=|failsafe|normal|safe
b|devupdate --device-mac=aa:bb --reb||--reboot
bzf|devupdate --file=fw|devupdate --file=fw.bin${space}|fw.bin
bz|devupdate --recover-safe=fram|devupdate --recover-safe=frames/|frames
bz|devsim --fleet=|devsim --fleet=|frames|odd.json
b|devupdate --port=$lobby --device-name=||dock-controller-03|lobby-panel-01|lobby-panel-02|warehouse-gw-01|warehouse-gw-02|yard-gw-07
bzf|devupdate --port=$lobby --reboot --file=fw.bin --device-mode=safe -a --device-name=w|devupdate --port=$lobby --reboot --file=fw.bin --device-mode=safe -a --device-name=warehouse-gw-0|warehouse-gw-01|warehouse-gw-02
bzf|devupdate --port=$odd --device-name=|devupdate --port=$odd --device-name=|$odd_list
b|devupdate --port=$odd --device-name=hall||hall panel 1|hall:2
b|devupdate --port=$odd --device-name=hall:||2
b|devupdate --port=$odd --device-name=\\\$||\$HOME
bzf|devupdate --port=$odd --device-name=east|devupdate --port=$odd --device-name=east|
z|devupdate --port=$odd --device-name=a|devupdate --port=$odd --device-name=a\;touch\ pwned${space}|a;touch pwned
b|devupdate --port=$big --device-name=||*10000
bzf|devupdate --port=$big --device-name=node-0999|devupdate --port=$big --device-name=node-0999|$(printf 'node-0999%s\n' {0..9} | paste -sd'|')
bzf|devupdate --port=$mute --device-name=|devupdate --port=$mute --device-name=|
bzf|devupdate --port=1 --device-name=|devupdate --port=1 --device-name=|
EOF
}
clock() {  # LINE: sets the watchdog's clock for a line of the table
    if [[ $1 == *"--port=${mute-} "* ]]; then : >"$tmp/clock/expired"; else rm -f "$tmp/clock/expired"; fi
}

# Each shell finds the completions as it does for its user: from its default folders, taken under ROOT (a
# staged install) instead of /. Each reads the table's lines and prints what it completed, as compare wants.
complete_bash() {  # ROOT PREFIX: bash-completion's loader, with its default folders (XDG_DATA_DIRS unset, as
    # at a login; those of the commands on PATH) and the folder it loads whole at start, under ROOT. On macOS
    # that one is Homebrew's, taken to be PREFIX.
    local brew lib loader cmd found compat=/etc/bash_completion.d
    brew=$(brew --prefix 2>/dev/null || true)  # Homebrew's bash-completion 2, or 1 for macOS's bash 3.2
    for lib in /usr/share/bash-completion/bash_completion "$brew"/{share/bash-completion,etc}/bash_completion ''; do
        [[ -f $lib ]] && break
    done
    [[ $(uname) != Darwin ]] || compat=$2/etc/bash_completion.d
    XDG_DATA_DIRS=$1/usr/local/share:$1/usr/share BASH_COMPLETION_COMPAT_DIR=$1$compat PATH=$1$2/bin:$PATH
    source "${lib:?no bash-completion found}"
    # On the first Tab for a command, bash runs the default completion: bash-completion's loader.
    loader=$(complete -p -D 2>/dev/null | sed -n 's/.* -F \([^ ]*\).*/\1/p')
    for cmd in devupdate devsim; do
        complete -p $cmd &>/dev/null || ${loader:-false} $cmd &>/dev/null || true
        found=$(shopt -s extdebug && declare -F _$cmd || true)
        [[ ${found#* * } == "$1"/* ]] || fail "bash found no completion for $cmd under $1 (${found:-none})"
    done
    compopt() { [[ $* != "-o nospace" ]] || nospace=y; }
    while IFS='|' read -r line _ names; do  # words split as bash splits them: at blanks, "=" and ":"
        COMP_LINE=$line COMP_POINT=${#line} COMPREPLY=() nospace=
        read -ra COMP_WORDS < <(sed 's/[=:]/ & /g' <<<"$line")
        COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
        clock "$line"
        "_${COMP_WORDS[0]}" "${COMP_WORDS[0]}" "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}" 2>&1 || true
        got=$(for reply in "${COMPREPLY[@]}"; do eval "printf '%s\n' $reply"; done | LC_ALL=C sort | paste -sd'|' -)
        [[ $names == '*'* ]] && got="*${#COMPREPLY[@]}"
        echo "$line|$got"
        # A lone name is inserted with a blank after it, unless it is an option that takes a value.
        [[ ${#COMPREPLY[@]} != 1 || $nospace == "$([[ $COMPREPLY == *= ]] && echo y)" ]] ||
            fail "'$line': inserted ${nospace:+without}${nospace:-with} a blank after it"
    done
}
complete_zsh() {  # ROOT: Tab in a real interactive zsh, its default $fpath under ROOT, then compinit
    cut -d'|' -f1 | zsh -f "$src/e2e/complete.zsh" "$1" "$tmp/clock/expired" "--port=${mute-} "
}
complete_fish() {  # ROOT: fish's own search path (XDG_DATA_DIRS unset, as at a login) under ROOT
    local line word option
    while IFS='|' read -r line _; do  # fish lists each candidate with the option it completes
        word=${line##* } && option=${word%"${word##*=}"} && clock "$line"
        echo "$line|$(env -u XDG_DATA_DIRS fish -c 'set fish_complete_path $argv[1]$fish_complete_path
                complete -C $argv[2]' "$1" "$line" 2>&1 | cut -f1 | cut -c$((${#option} + 1))- |
            LC_ALL=C sort | paste -sd'|' -)"
    done
}
# After the shell completed the table's lines into got (each line, "|", what the table's COLUMNS after the
# first hold; whatever else it prints fails it): that it matches, nothing was sent to the lobby, no name was run.
compare() {  # COLUMNS
    diff <(cut -d'|' -f"$1" table) got >&2 || fail "completed otherwise (above: < the table, > the shell)"
    [[ ! -s frames/lobby ]] || fail "the completion sent $(cat frames/lobby)"
    [[ ! -e pwned ]] || fail "a device name was run as a command"
}

# Runs the commands a reader copies from DOC (a page's EXAMPLES or a README's code) in the order printed, in a
# folder of its own: the devupdate, devsim and printf lines as typed (build/ paths as installed, /srv/fw/ as here,
# no comments or "|| ..."), each devsim on a free port that later lines use (the built-in fleet before any). The
# other lines' exit statuses must be STATUSES. --long-lived lines never end and are skipped; without timeout(1)
# (macOS) lines run bare.
run_doc() {  # DOC STATUSES
    local line port= status statuses=
    mkdir "$tmp/${1//\//_}.run" && cd "$tmp/${1//\//_}.run" && ln -s "$src/devsim" devsim
    printf 'DEVFW1 manufacturer=acme model=x100 version=2.1.0\n' >x100-2.1.0.bin && : >fw.bin
    while read -r line; do
        line=$(sed -E 's/  #.*| \|\| .*| ?&$//; s#build/(cli|devsim)/|/srv/fw/| ?--port=[0-9]+##g' <<<"$line")
        command -v timeout >/dev/null || line=${line#timeout [0-9]* }
        case $line in
        devsim | devsim\ -*) serve port ${line#devsim} --tick-ms=0 ;;
        *--long-lived*) ;;
        devupdate\ * | timeout\ * | printf\ *)
            [[ -n $port ]] || serve port --tick-ms=0
            status=0 && (eval "${line/devupdate /devupdate --port=$port }") &>/dev/null </dev/null || status=$?
            statuses+="${statuses:+ }$status" ;;
        esac
    done < <([[ $1 == *.md ]] && awk '/^```/ { code = !code; next } code' "$src/$1" || cat "$tmp/$1")
    [[ $statuses == "$2" ]] || fail "$1's commands ended with '$statuses', not '$2'"
}

case $3 in
stage)
    rm -rf "$stage" "$ulocal"
    DESTDIR=$stage cmake --install "$build" --prefix /usr >/dev/null
    DESTDIR=$ulocal cmake --install "$build" --prefix "$lprefix" >/dev/null ;;
files)
    got=$(cd "$stage" && find . ! -type d | sed 's|^\./||' | LC_ALL=C sort)
    [[ $got == "$want" ]] || fail "installed files:"$'\n'"$(diff <(echo "$want") <(echo "$got"))"
    # The installed READMEs are for package users: no build commands, no source-tree paths.
    ! grep -nE 'make (demo|build|test|install|package)|cmake|build/|fleets/|docs/' "$stage"/usr/share/doc/*/README.md ||
        fail "an installed README talks about the source tree (above)" ;;
man)
    for page in devupdate devsim; do
        gz=$stage/usr/share/man/man1/$page.1.gz
        # man-db's man lints too where it is the man (not on macOS, whose man has no --warnings).
        lint=$(mandoc -T lint -W warning "$gz" 2>&1; gzip -dc "$gz" | groff -man -ww -z 2>&1
               [[ $(uname) == Darwin ]] || man --warnings -l "$gz" 2>&1 >/dev/null)
        [[ -z $lint ]] || fail "$page.1 lint:"$'\n'"$lint"
        text=$(mandoc -T ascii -O width=1000 "$gz" | sed "s/.$(printf '\b')//g")
        opts=$(options $page) && [[ $opts == *--port=* ]] || fail "no options from $page --help"
        for option in $opts; do  # as a word, unless a value follows it
            grep -qF"$([[ $option == *= ]] || echo w)" -- "$option" <<<"$text" ||
                fail "$page.1 does not describe $option"
        done
        awk '/^[A-Z]/ { on = $0 == "EXAMPLES" } on' <<<"$text" >"$tmp/$page.1"
    done
    run_doc devupdate.1 '0 0 0 0 0 0'
    run_doc devsim.1 '0 0'
    run_doc README.md '0 0 0 0 0 1'
    run_doc devsim/README.md '0 0' ;;
completion)
    services b
    complete_bash "$troot" "$tprefix" <table >got
    compare 1,3-
    # macOS has bash 3.2 and bash-completion 1.3, and no timeout(1): none of what came later (associative arrays,
    # case conversion, mapfile, readarray, coproc, ;;& and ;&, |& and &>>, negative indices, $EPOCH*, wait -n,
    # compopt unchecked, _init_completion, timeout) may appear outside comments; this bash cannot run 3.2 to prove it.
    later='(declare|local|typeset) -[a-zA-Z]*A|\$\{[A-Za-z_][A-Za-z0-9_]*(\[[^]]*\])?(,|\^)|;;&|;&|\|&|&>>'
    later+='|(^|[^-[:alnum:]_])((mapfile|readarray|coproc)([^-[:alnum:]_]|$)|timeout[[:space:]])'
    later+='|\[-[0-9]+\]|EPOCH(REALTIME|SECONDS)|wait -n|compopt|_init_completion'
    ! grep -nHE -- "$later" "$stage/$bashdir"/* | grep -vE '^[^:]*:[0-9]+:[[:space:]]*#|type compopt' ||
        fail "the bash completions use what bash 3.2 lacks (above)" ;;
zsh)
    services z
    complete_zsh "$troot" <table >got
    compare 1- ;;
fish)
    services f
    complete_fish "$troot" <table >got
    compare 1,3- ;;
found)
    # A new shell of each kind finds both tools' completions in each layout.
    for layout in "${layouts[@]}"; do
        read -r root prefix <<<"$layout"
        mkdir -p "$tmp/$prefix" && cd "$tmp/$prefix"
        for shell in bash zsh fish; do
            sed -n "s/^[a-z]*${shell:0:1}[a-z]*|//p" >table <<EOF
bzf|devupdate --li|devupdate --list${space}|--list
b|devsim --po|devsim --port|--port-file=|--port=
zf|devsim --po|devsim --port|--port|--port-file
EOF
            (complete_$shell "$root" "$prefix") <table >got
            [[ $shell == zsh ]] && compare 1- || compare 1,3-
        done
    done ;;
refused)
    # `make install` where one folder cannot be written to (read-only to root too, in a mount namespace of its
    # own): nothing is installed, and the message says what to run.
    mkdir -p "$tmp/root/usr/local/share/man" && chmod a-w "$tmp/root/usr/local/share/man"
    run=(env DESTDIR="$tmp/root" sh "$src/cmake/install.sh" "$build" /usr/local)
    [[ $(id -u) != 0 ]] ||
        run=(unshare -m sh -c 'mount --bind "$0" "$0" && mount -o remount,bind,ro "$0" && exec "$@"' \
            "$tmp/root/usr/local/share/man" "${run[@]}")
    ! "${run[@]}" >"$tmp/out" 2>&1 || fail "installed into a read-only folder"
    grep -q 'cannot write to .*/usr/local/share/man; nothing was installed' "$tmp/out" &&
        grep -qF 'sudo make install' "$tmp/out" || fail "make install said: $(<"$tmp/out")"
    [[ -z $(find "$tmp/root" ! -type d) ]] || fail "installed in part: $(find "$tmp/root" ! -type d)"
    chmod -R u+w "$tmp/root" ;;
package)
    # hardening-check cannot find control-flow protection where the C library's start
    # files lack it (Debian 12's do): no program linked with them can carry the mark.
    crti=$(gcc -print-file-name=crti.o 2>/dev/null || true)
    readelf -n "$crti" 2>/dev/null | grep -q 'x86 feature: IBT, SHSTK' || nocf=--nocfprotection
    for deb in "$build"/{devupdate,devsim}_*.deb; do
        name=$(dpkg-deb --field "$deb" Package)
        got=$(dpkg-deb --contents "$deb" | grep -v '/$' | sed 's/.* \.\///' | LC_ALL=C sort)
        [[ $got == "$(grep $([[ $name == devsim ]] || echo -v) devsim <<<"$want")" ]] || fail "$deb holds:"$'\n'"$got"
        dpkg-deb --field "$deb" Depends | grep -q libjsoncpp || fail "$deb: no dependencies found"
        dpkg-deb -x "$deb" "$tmp/$name"
        hardening-check ${nocf-} "$tmp/$name"/usr/bin/* >"$tmp/hardening" || fail "$(<"$tmp/hardening")"
    done
    # Not a tag at all, not even an informational or pedantic one, on the source package, the
    # binary packages and their debug symbols: warnings fail.
    tags=$(lintian -I --pedantic --fail-on error,warning "$build"/deb/devupdate_*.changes 2>&1 |
           grep -v '^running with root' || true)
    [[ -z $tags ]] || fail "lintian:"$'\n'"$tags" ;;
reproducible)
    # The same sources packaged again in another folder, without the tests (which do not
    # change the programs), give the same packages, byte for byte.
    # A tracked file missing from the tree stops the copy, named.
    git init -q "$tmp/gap" && touch "$tmp/gap/"{kept,lost} && git -C "$tmp/gap" add kept lost && rm "$tmp/gap/lost"
    ! bash "$src/packaging/copy-source.sh" "$tmp/gap" "$tmp/gap.copy" 2>"$tmp/gap.err" && grep -qx lost "$tmp/gap.err" ||
        fail "a tracked file missing from the tree did not stop the copy: $(<"$tmp/gap.err")"
    bash "$src/packaging/copy-source.sh" "$src" "$tmp/other/devupdate"
    (cd "$tmp/other/devupdate" && DEB_BUILD_OPTIONS="nocheck parallel=${JOBS:-2}" dpkg-buildpackage -us -uc -b) \
        >"$tmp/log" 2>&1 || fail "the second build failed:"$'\n'"$(tail -20 "$tmp/log")"
    for deb in "$build"/deb/*.deb; do
        cmp "$deb" "$tmp/other/${deb##*/}" || fail "${deb##*/} differs when built in $tmp/other"
    done
    echo "reproducible: $(cd "$build/deb" && ls ./*.deb | cut -c3- | paste -sd' ') built twice, identical" ;;
esac
