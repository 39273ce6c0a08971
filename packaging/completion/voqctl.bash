# Completion of voqctl for bash. Commands and options are those that `voqctl ... --help` lists, names of registers those
# that `voqctl project names` prints for the description behind --project.

_voqctl_help() {  # a sed script for the help, then the command line's command
    local script=$1
    shift
    voqctl "$@" --help 2>/dev/null | sed -nE "$script"
}

_voqctl() {
    local word current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} project="" i
    local -a command=()
    for ((i = 1; i < COMP_CWORD; ++i)); do
        word=${COMP_WORDS[i]}
        if [[ ${#command[@]} -eq 0 || (${command[0]} == project && ${#command[@]} -eq 1) ]]; then
            [[ $word == -* ]] || command+=("$word")
        fi
        [[ $word != --project ]] || project=${COMP_WORDS[i + 1]}
    done
    COMPREPLY=()
    case $previous in
        --link) COMPREPLY=($(compgen -W "ethernet serial can" -- "$current")); return ;;
        --fifo) COMPREPLY=($(compgen -W "mek gui" -- "$current")); return ;;
        -*) # What takes a value is named with its kind; it may be a file, which readline completes.
            [[ -z $(_voqctl_help "s/^  (-o,)?$previous [A-Z]+.*/value/p" "${command[@]}") ]] || return ;;
    esac
    if [[ $current == -* ]]; then
        word=$(_voqctl_help 's/^  (-.,)?(--[a-z-]+).*/\2/p' "${command[@]}")
        COMPREPLY=($(compgen -W "$word" -- "$current"))
    elif [[ ${#command[@]} -eq 0 || ${command[*]} == project ]]; then
        word=$(_voqctl_help '/^Subcommands:/,$ s/^  ([a-z]+) .*/\1/p' "${command[@]}")
        COMPREPLY=($(compgen -W "$word" -- "$current"))
    elif [[ $project && " read write change pulse watch explain " == *" ${command[0]} "* ]]; then
        COMPREPLY=($(compgen -W "$(voqctl project names "$project" 2>/dev/null)" -- "$current"))
    fi
}

complete -o default -F _voqctl voqctl
