# bash completion of nipcctl(1)

_nipcctl() {
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]} command=${COMP_WORDS[1]} words=
    COMPREPLY=()
    if [ "$COMP_CWORD" -eq 1 ]; then
        mapfile -t COMPREPLY < <(compgen -W "list call listen serve id lint bench doctor --help --version" -- "$cur")
        return
    fi
    case $prev in
        -u | --uuid)
            words=$(nipcctl list 2>/dev/null | awk 'NR > 1 { print $1 }')
            mapfile -t COMPREPLY < <(compgen -W "$words" -- "$cur")
            return
            ;;
        -f | --file)
            mapfile -t COMPREPLY < <(compgen -f -- "$cur")
            return
            ;;
        --repeat | --timeout | --count | --for | --reply | --reply-file | --exec)
            return
            ;;
    esac
    case $command in
        list) words="--json" ;;
        call) words="--uuid --file --async --repeat --timeout --wait --hex --json --verbose" ;;
        listen) words="--uuid --count --for --hex --json --verbose" ;;
        serve) words="--uuid --reply --reply-file --exec --verbose" ;;
        id) words="--json" ;;
        bench) words="--count --uuid --json" ;;
        doctor) words="--uuid --json" ;;
    esac
    if [ "$command" = lint ] && [[ $cur != -* ]]; then
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
    else
        mapfile -t COMPREPLY < <(compgen -W "$words --help" -- "$cur")
    fi
}
complete -o filenames -F _nipcctl nipcctl
