# Completion of vxrun in bash. The program itself lists what there is; other words are files.
_vxrun() {
    local program=${COMP_WORDS[0]} word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}
    local commands command='' words=''
    commands=$($program --help | sed -n '/^Subcommands:/,$s/^  \([a-z][a-z]*\).*/\1/p')
    for words in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        [[ $'\n'$commands$'\n' == *$'\n'"$words"$'\n'* ]] && command=$words
    done
    case $before in
        --decoder | --against)
            words=$($program --list-decoders | grep -o '^[^ ]*')
            words+=" $($program --list-nodes | grep -o '^codec/[^ ]*')"
            ;;
        --color) words='always auto never' ;;
        *)
            case $word in
                -*) words=$($program $command --help | grep -o '^  [^ ]*' | grep -o -e '--[a-z-]*') ;;
                *) words=$([ "$COMP_CWORD" != 1 ] || echo "$commands") ;;
            esac
            ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
}
complete -o default -F _vxrun vxrun
