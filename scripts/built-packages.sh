# shellcheck shell=bash
# Keeps those who read the packages in build/packages and the one who replaces them apart. Sourced after common.sh.

# with_packages ARCHITECTURE COMMAND...: runs it while nobody replaces the packages of the architecture, after whoever is at it
# has ended. Names that are matched in there have to be matched by the command, and not before it.
with_packages() {
    _with_packages_locked --shared "$@"
}

# alone_with_packages ARCHITECTURE COMMAND...: runs it while nobody else reads or replaces the packages of the architecture.
alone_with_packages() {
    _with_packages_locked --exclusive "$@"
}

_with_packages_locked() {
    local how="$1" lock="build/package-work/$2.lock"
    shift 2
    mkdir -p -- build/package-work
    # An ordinary user may read what root has built.
    [[ -e "$lock" ]] || : >"$lock"
    {
        flock "$how" 8
        "$@"
    } 8<"$lock"
}
