# bash completion for devupdate                            -*- shell-script -*-

# Prints the names of the devices the service on port $2 reports right now, one
# a line, by running the tool $1 with a plain list request and nothing else: no
# other word of the command line may reach it, since it could reboot or flash.
# A service that is down or silent costs at most a second and prints nothing.
_devupdate_device_names()
{
    local line
    timeout 1 "$1" --port="$2" --list </dev/null 2>/dev/null |
        while IFS= read -r line; do
            # "Found[Mode]:" padded to 17 characters, then name,maker,model,version
            [[ $line == Found\[* ]] || continue
            line=${line:17}
            printf '%s\n' "${line%%,*}"
        done
}

_devupdate()
{
    local cur prev words cword split
    _init_completion -s -n : || return

    if ! $split; then
        COMPREPLY=($(compgen -W '--all -a --list --long-lived --port= --force -f
            --file= --recover-safe --recover-safe= --recover-failsafe --device-mode=
            --device-name= --device-ip= --device-mac= --manufacturer= --model=
            --reboot' -- "$cur"))
        [[ ${COMPREPLY-} == *= ]] && compopt -o nospace
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
            local port=7070 word name quoted typed
            for word in "${words[@]:1}"; do
                [[ $word == --port=* ]] && port=${word#--port=}
            done
            [[ $port =~ ^[0-9]+$ ]] || return
            # What was typed so far, without the backslashes and the opening quote.
            typed=${cur//\\/}
            typed=${typed#[\"\']}
            while IFS= read -r name; do
                [[ $name == "$typed"* ]] || continue
                printf -v quoted %q "$name"
                COMPREPLY+=("$quoted")
            done < <(_devupdate_device_names "$1" "$port")
            __ltrim_colon_completions "$cur"
            ;;
    esac
} &&
    complete -F _devupdate devupdate

# ex: filetype=sh
