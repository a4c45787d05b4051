# bash completion for ltrctl: options, and the command words from `ltrctl help`, so
# that it follows the commands of the ltrctl it completes for.
_ltrctl() {
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
    COMPREPLY=()
    case $prev in
    -s | --socket | -f | --file)
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
        return
        ;;
    -i | --instance)
        mapfile -t COMPREPLY < <(compgen -W "$(ls /run/qz "${XDG_RUNTIME_DIR:-/nonexistent}/qz" 2>/dev/null)" -- "$cur")
        return
        ;;
    -t | --timeout) return ;;
    esac
    if [[ $cur == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "--socket --instance --file --keep-going --timeout
            --json --help --version" -- "$cur")
        return
    fi
    local i words=() neg=0
    for ((i = 1; i < COMP_CWORD; i++)); do
        case ${COMP_WORDS[i]} in
        -s | --socket | -i | --instance | -f | --file | -t | --timeout) ((i++)) ;;
        -*) ;;
        *) words+=("${COMP_WORDS[i]}") ;;
        esac
    done
    if [[ ${words[0]:-} == no ]]; then
        neg=1
        words=("${words[@]:1}")
    fi
    local line cmd next=() cw n=${#words[@]} k ok
    ((neg == 0 && n == 0)) && next+=(no)
    # Help rows: two blanks, the command in 50 columns ("[no] " when it has a no
    # form), then what it does.
    while IFS= read -r line; do
        [[ $line == "  "[!\ ]* ]] || continue
        cmd=${line:2:50}
        if [[ $cmd == "[no] "* ]]; then
            cmd=${cmd#"[no] "}
        elif ((neg)); then
            continue
        fi
        read -ra cw <<<"$cmd"
        ((${#cw[@]} > n)) || continue
        ok=1
        for ((k = 0; k < n; k++)); do [[ ${cw[k]} == "${words[k]}" ]] || ok=0; done
        ((ok)) || continue
        case ${cw[n]} in
        "<category>") next+=(error event info packet all scdlib dcdlib alllib) ;;
        "<"*) ;;
        *) [[ " ${next[*]} " == *" ${cw[n]} "* ]] || next+=("${cw[n]}") ;;
        esac
    done < <("${COMP_WORDS[0]}" help 2>/dev/null)
    mapfile -t COMPREPLY < <(compgen -W "${next[*]}" -- "$cur")
}
complete -F _ltrctl ltrctl
