# bash completion of udtlab. Commands and options are read from its own --help, so they are always those of
# the installed program.
_udtlab()
{
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]} command= word
    COMPREPLY=()
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"
    do
        [[ $word == -* ]] || { command=$word; break; }
    done

    if [[ $prev == --mode ]]
    then
        COMPREPLY=($(compgen -W "default low-latency" -- "$cur"))
    elif [[ $cur == -* ]]
    then
        COMPREPLY=($(compgen -W "$("${COMP_WORDS[0]}" $command --help 2>/dev/null |
            sed -n 's/^ *\(-[a-zA-Z],\)\{0,1\}\(--[a-z][a-z0-9-]*\).*/\2/p')" -- "$cur"))
    elif [[ -z $command ]]
    then
        COMPREPLY=($(compgen -W "$("${COMP_WORDS[0]}" --help 2>/dev/null |
            sed -n '/^Subcommands:/,$ s/^  \([a-z][a-z0-9-]*\) .*/\1/p')" -- "$cur"))
    fi
}
# What the function has no answer for is a file.
complete -o default -o bashdefault -F _udtlab udtlab
