# bash completion for devsim                               -*- shell-script -*-

_devsim()
{
    local cur prev words cword split=false
    # Not _init_completion: bash-completion 1.3, the one for macOS's bash 3.2, lacks it.
    _get_comp_words_by_ref -n = cur prev words cword
    _split_longopt && split=true

    if ! $split; then
        COMPREPLY=($(compgen -W '--port= --port-file= --fleet= --generate-fleet= --tick-ms=
            --progress-steps= --record= --max-clients= --max-unwritten= --max-message=
            --close-after= --garbage-after=
            --mute-after= --oversize-after= --not-object-after= --deep-after=
            --drop-after= --reset-after= --pause-reading-ms= --binary --help' -- "$cur"))
        # compopt came with bash 4; bash 3.2 adds the space.
        [[ ${COMPREPLY-} == *= ]] && type compopt >/dev/null 2>&1 && compopt -o nospace
        return
    fi

    case $prev in
        --fleet)
            _filedir json
            ;;
        --record | --port-file)
            _filedir
            ;;
    esac
} &&
    complete -F _devsim devsim

# ex: filetype=sh
