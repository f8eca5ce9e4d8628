# bash completion for orvex_tool
_orvex_tool() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} command='' word words=''
    COMPREPLY=()
    case $previous in
        --bus | --identifier | --user-agent | --set | --from | --to | --query-id | --interval) return ;;
        -o) compopt -o default && return ;;
    esac
    # The command is the first word that is neither an option nor an option's value.
    local i skip=false
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        if $skip; then skip=false; continue; fi
        case $word in
            --bus | --identifier | --user-agent) skip=true ;;
            -*) ;;
            *) command=$word && break ;;
        esac
    done
    case $command in
        '') words=$(orvex_tool --help 2>/dev/null | sed -n '/^Subcommands:/,$s/^  \([a-z-]*\) .*/\1/p')
            words+=' --bus --identifier --user-agent --json --help --version' ;;
        search | zkw | more | card | lookup | flight) words='--set --help' ;;
        status) words='--watch --interval --help' ;;
        counters) words='--prometheus --help' ;;
        feedback) words='--pending --help' ;;
        completions | defaults | listen | explain | privacy | erase)
            [[ $previous == "$command" ]] &&
                words=$(orvex_tool "$command" --help 2>/dev/null | sed -n '/^Subcommands:/,$s/^  \([a-z-]*\) .*/\1/p') ;;
        run-activity) words='com.kelvar.orvexd.flusher.background com.kelvar.orvexd.dp.flush' ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}
complete -F _orvex_tool orvex_tool
