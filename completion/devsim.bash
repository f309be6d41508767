# bash completion for devsim                               -*- shell-script -*-

_devsim()
{
    local cur prev words cword split
    _init_completion -s || return

    if ! $split; then
        COMPREPLY=($(compgen -W '--port= --fleet= --generate-fleet= --tick-ms=
            --progress-steps= --record= --close-after= --garbage-after=
            --mute-after= --oversize-after= --not-object-after= --deep-after=
            --drop-after= --pause-reading-ms= --binary --help' -- "$cur"))
        [[ ${COMPREPLY-} == *= ]] && compopt -o nospace
        return
    fi

    case $prev in
        --fleet)
            _filedir json
            ;;
        --record)
            _filedir
            ;;
    esac
} &&
    complete -F _devsim devsim

# ex: filetype=sh
