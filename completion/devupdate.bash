# bash completion for devupdate                            -*- shell-script -*-
# Written for bash 3.2 and bash-completion 1.3 (macOS) as well as bash 4+ and
# bash-completion 2.

# Prints the names of the devices the service on port $2 reports right now that
# begin with $3, one a line and backslash-quoted, by running the tool $1 with a plain
# list request and nothing else: no other word of the command line may reach it,
# since it could reboot or flash. A service that is down or silent costs at most a
# second and prints nothing. The watchdog stands in for timeout(1), which macOS lacks.
_devupdate_device_names()
{
    (
        command "$1" --port="$2" --list </dev/null 2>/dev/null &
        tool=$!
        (
            trap 'kill $! 2>/dev/null; exit 0' TERM
            sleep 1 &
            wait $!
            kill "$tool"
        ) >/dev/null 2>&1 &
        wait "$tool"
        kill $! 2>/dev/null
    ) 2>/dev/null |
        # "Found[Mode]:" padded to 17 characters, then name,maker,model,version, unquoted:
        # a line with more fields has a comma in one of them, no telling which, and is skipped.
        PREFIX=$3 awk 'substr($0, 1, 6) == "Found[" && split(substr($0, 18), field, ",") == 4 {
                if (field[1] != "" && index(field[1], ENVIRON["PREFIX"]) == 1) print field[1]
            }' |
        sed 's/[^[:alnum:]_./:@%+=,-]/\\&/g'
}

_devupdate()
{
    local cur prev words cword split=false
    # Not _init_completion: bash-completion 1.3, the one for macOS's bash 3.2, lacks it.
    _get_comp_words_by_ref -n =: cur prev words cword
    _split_longopt && split=true

    if ! $split; then
        COMPREPLY=($(compgen -W '--all -a --list --long-lived --port= --force -f
            --file= --recover-safe --recover-safe= --recover-failsafe --device-mode=
            --device-name= --device-ip= --device-mac= --manufacturer= --model=
            --reboot' -- "$cur"))
        # compopt came with bash 4; bash 3.2 adds the space.
        [[ ${COMPREPLY-} == *= ]] && type compopt >/dev/null 2>&1 && compopt -o nospace
        return
    fi

    case $prev in
        --device-mode)
            COMPREPLY=($(compgen -W 'normal failsafe safe' -- "$cur"))
            ;;
        --file | --recover-safe)
            _filedir
            ;;
        --device-name)
            local port=7070 word typed IFS=$'\n' noglob=$-
            for word in "${words[@]:1}"; do
                [[ $word == --port=* ]] && port=${word#--port=}
            done
            [[ $port =~ ^[0-9]+$ ]] || return
            # What was typed so far, without the backslashes and the opening quote.
            typed=${cur//\\/}
            typed=${typed#[\"\']}
            # One name a line, already quoted: split at newlines only, never globbed.
            set -f
            COMPREPLY=($(_devupdate_device_names "$1" "$port" "$typed"))
            [[ $noglob == *f* ]] || set +f
            __ltrim_colon_completions "$cur"
            ;;
    esac
} &&
    complete -F _devupdate devupdate

# ex: filetype=sh
