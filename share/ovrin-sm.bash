# bash completion for ovrin-sm: commands, each command's options (read from its --help, so they
# never fall behind the tool), type names (from `ovrin-sm types`) and files.
_ovrin_sm() {
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
    local tool=${COMP_WORDS[0]}
    local commands="types manifest decode encode trace demo compat help"
    if ((COMP_CWORD == 1)); then
        mapfile -t COMPREPLY < <(compgen -W "$commands --help --version" -- "$cur")
        return
    fi
    local command=${COMP_WORDS[1]}
    case $prev in
        --library | --trace) mapfile -t COMPREPLY < <(compgen -f -- "$cur"); return ;;
        --count | --corrupt | --memory-every | --clients | --think | --idle | --max-frame | --out-limit) return ;;
        --group) mapfile -t COMPREPLY < <(compgen -g -- "$cur"); return ;;
        --faults) # a comma-separated list: the names after the last comma
            local done=${cur%"${cur##*,}"}
            mapfile -t COMPREPLY < <(compgen -P "$done" -W "kill damage truncate oversize stall silent stranger all" -- "${cur##*,}")
            return ;;
    esac
    if [[ $cur == -* ]]; then
        local options
        options=$("$tool" "$command" --help 2>/dev/null | grep -oE '^ +(-[a-z], )?--[a-z-]+' | grep -oE -- '--[a-z-]+')
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$cur")
        return
    fi
    # The operand's place, options left out: decode, encode and types take a TYPE first.
    local i operands=0
    for ((i = 2; i < COMP_CWORD; ++i)); do
        [[ ${COMP_WORDS[i]} == -* || ${COMP_WORDS[i - 1]} == --library || ${COMP_WORDS[i - 1]} == --trace ]] || ((++operands))
    done
    case $command in
        help) ((operands == 0)) && mapfile -t COMPREPLY < <(compgen -W "$commands" -- "$cur") ;;
        decode | encode | types)
            if ((operands == 0)); then
                mapfile -t COMPREPLY < <(compgen -W "$("$tool" types 2>/dev/null | awk 'NR > 1 { print $2 }')" -- "$cur")
            elif [[ $command != types ]]; then
                mapfile -t COMPREPLY < <(compgen -f -- "$cur")
            fi
            ;;
        manifest | trace | compat) mapfile -t COMPREPLY < <(compgen -f -- "$cur") ;;
    esac
}
complete -o filenames -F _ovrin_sm ovrin-sm
