# shellcheck shell=bash
# What the image's scripts share. Sourced, never run.

# shellcheck source=scripts/common.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/../../../scripts/common.sh"
# shellcheck source=scripts/debian-mirror.sh
source scripts/debian-mirror.sh

# shellcheck disable=SC2034  # for those who source this
IMAGE="$ROOT/tests/device/image"
# shellcheck disable=SC2034
CACHE="${XDG_CACHE_HOME:-${HOME:-$ROOT/build}/.cache}/vantora-network/device"

# fingerprint WORD... <FILE-LIST: sixteen hexadecimal digits that change whenever a word, the name of a file, what is in
# it, or whether it is executable changes. Names come from standard input, one a line, relative to the current folder.
fingerprint() {
    {
        printf '%s\n' "$@"
        sort | while IFS= read -r name; do
            printf '%s %s\n' "$name" "$([[ -x "$name" ]] && echo x || echo -)"
            if [[ -L "$name" ]]; then readlink -- "$name"; else sha256sum <"$name"; fi
        done
    } | sha256sum | cut -c1-16
}

# publish WORK TARGET: a folder appears in the cache complete or not at all.
publish() {
    mkdir -p -- "$(dirname -- "$2")"
    rm -rf -- "$2"
    mv -- "$1" "$2"
}
