# shellcheck shell=bash
# Completion of vantora-wifi(1) for bash.

# Offers the networks that are known now and begin like this, quoted as the shell needs it.
_vantora_wifi_networks() {
    local name begin="${1//\\/}"
    begin="${begin#[\"\']}"
    while IFS= read -r name; do
        [[ "$name" != "$begin"* ]] || COMPREPLY+=("$(printf '%q' "$name")")
    done < <(vantora-wifi --timeout 2 scan --names 2>/dev/null)
}

_vantora_wifi() {
    local commands="status on off mode band ssid scan connect disconnect monitor"
    local current="${COMP_WORDS[COMP_CWORD]}" previous="${COMP_WORDS[COMP_CWORD - 1]}"
    local command="" index words="" ended=false named=false
    COMPREPLY=()

    # The first word that is neither an option nor the value of one.
    for ((index = 1; index < COMP_CWORD; index++)); do
        case "${COMP_WORDS[index]}" in
        --timeout | --passphrase-file) ((index++)) ;;
        --) ended=true ;;
        -*) ;;
        *)
            if [[ -z "$command" ]]; then
                command="${COMP_WORDS[index]}"
            else
                named=true
            fi
            ;;
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
        status) words+=" --watch" ;;
        scan) words+=" --watch --names" ;;
        connect) words+=" --passphrase-file --passphrase-stdin --open --force --hidden" ;;
        esac
    else
        case "$command" in
        "") words="$commands" ;;
        mode) [[ "$previous" != mode ]] || words="host client" ;;
        band) [[ "$previous" != band ]] || words="2.4 5" ;;
        connect)
            "$named" || _vantora_wifi_networks "$current"
            return
            ;;
        esac
    fi
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}

complete -F _vantora_wifi vantora-wifi
