# shellcheck shell=bash
# Completion of vantora-simctl, see vantora-sim(1), for bash.

_vantora_simctl() {
    local commands="show add remove signal key join leave kill hang release start radio set cable"
    local neighbours="vantora-network vantora-settingsd systemd wpa_supplicant hostapd"
    local current="${COMP_WORDS[COMP_CWORD]}" previous="${COMP_WORDS[COMP_CWORD - 1]}"
    local command="" index words="" position=0
    COMPREPLY=()

    for ((index = 1; index < COMP_CWORD; index++)); do
        case "${COMP_WORDS[index]}" in
        --control | --bssid | --band | --channel | --signal | --security | --passphrase | --address) ((index++)) ;;
        -*) ;;
        *)
            [[ -n "$command" ]] && ((position++))
            [[ -n "$command" ]] || command="${COMP_WORDS[index]}"
            ;;
        esac
    done

    case "$previous" in
    --control)
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        compopt -o filenames 2>/dev/null
        return
        ;;
    --band) words="2.4 5" ;;
    --security) words="open wep wpa2 wpa2-wpa3 wpa3 enterprise" ;;
    --bssid | --channel | --signal | --passphrase | --address) return ;;
    *)
        if [[ "$current" == -* ]]; then
            words="--help"
            case "$command" in
            "") words+=" --control" ;;
            show) words+=" --json" ;;
            add) words+=" --hex --bssid --band --channel --signal --security --passphrase --hidden --address --no-dhcp" ;;
            radio) words+=" --hard" ;;
            cable) words+=" --address" ;;
            esac
        elif [[ -z "$command" ]]; then
            words="$commands"
        elif ((position == 0)); then
            case "$command" in
            kill | hang | release | start) words="$neighbours" ;;
            radio) words="block unblock" ;;
            cable) words="plug unplug" ;;
            set) words="network.enabled network.mode network.frequency device.deviceName" ;;
            esac
        fi
        ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}

complete -F _vantora_simctl vantora-simctl
