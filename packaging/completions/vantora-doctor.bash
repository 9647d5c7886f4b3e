# shellcheck shell=bash
# Completion of vantora-doctor(1) for bash.

_vantora_doctor() {
    local current="${COMP_WORDS[COMP_CWORD]}" previous="${COMP_WORDS[COMP_CWORD - 1]}"
    COMPREPLY=()
    if [[ "$previous" == --report ]]; then
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        compopt -o filenames 2>/dev/null
    elif [[ "$current" == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "--fix --json --report --help --version" -- "$current")
    elif ((COMP_CWORD == 1)); then
        mapfile -t COMPREPLY < <(compgen -W "key" -- "$current")
    fi
}

complete -F _vantora_doctor vantora-doctor
