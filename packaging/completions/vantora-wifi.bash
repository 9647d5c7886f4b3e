# shellcheck shell=bash
# Completion of vantora-wifi(1) for bash.

_vantora_wifi() {
    local commands="status on off mode band ssid scan connect disconnect monitor"
    local current="${COMP_WORDS[COMP_CWORD]}" previous="${COMP_WORDS[COMP_CWORD - 1]}"
    local command="" index words="" ended=false
    COMPREPLY=()

    # The first word that is neither an option nor the value of one.
    for ((index = 1; index < COMP_CWORD; index++)); do
        case "${COMP_WORDS[index]}" in
        --timeout | --passphrase-file) ((index++)) ;;
        --) ended=true ;;
        -*) ;;
        *) [[ -n "$command" ]] || command="${COMP_WORDS[index]}" ;;
        esac
    done

    case "$previous" in
    --timeout) return ;;
    --passphrase-file)
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        compopt -o filenames 2>/dev/null
        return
        ;;
    esac

    if [[ "$current" == -* ]] && ! "$ended"; then
        words="--json --timeout --help"
        case "$command" in
        "") words+=" --version" ;;
        connect) words+=" --passphrase-file --passphrase-stdin --open" ;;
        esac
    else
        case "$command" in
        "") words="$commands" ;;
        mode) [[ "$previous" != mode ]] || words="host client" ;;
        band) [[ "$previous" != band ]] || words="2.4 5" ;;
        esac
    fi
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}

complete -F _vantora_wifi vantora-wifi
