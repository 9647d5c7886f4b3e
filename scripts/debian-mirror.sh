# shellcheck shell=bash
# Where mmdebstrap gets Debian's packages from: where this machine's own apt does. Sourced after common.sh.

# debian_suite: prints the name of the release that this machine runs.
debian_suite() {
    local suite
    suite="$(. /etc/os-release && echo "${VERSION_CODENAME:-}")"
    case "$suite" in
    bookworm | trixie) echo "$suite" ;;
    *) die "this is neither Debian 12 (bookworm) nor Debian 13 (trixie): packages for a device are made on those" ;;
    esac
}

# debian_sources [SUITE]: prints sources.list lines for a release (this machine's when none is named) and its updates. Whatever
# format the machine's sources have, apt has read them already; of another release than its own the same mirror has packages,
# too. Without the security suite: its indexes of foreign architectures are not kept by every mirror, and what it brings
# comes with the next point release.
debian_sources() {
    local own suite targets
    own="$(debian_suite)"
    suite="${1:-$own}"
    # shellcheck disable=SC2016  # apt's names
    targets="$(apt-get indextargets --no-release-info --format '$(RELEASE) $(REPO_URI)' \
        'Created-By: Packages' 'Component: main' | sort -u)"
    local part uri
    for part in "" -updates; do
        uri="$(awk -v release="$suite$part" '$1 == release { print $2; exit }' <<<"$targets")"
        [[ -n "$uri" ]] || uri="$(awk -v release="$own$part" '$1 == release { print $2; exit }' <<<"$targets")"
        if [[ -n "$uri" ]]; then
            printf 'deb %s %s main\n' "$uri" "$suite$part"
        elif [[ -z "$part" ]]; then
            die "apt has no sources of Debian ($suite) here: packages for a device are made of those"
        fi
    done
}

# debian_apt_options: prints this machine's way to fetch (proxies, time-outs, what it thinks of old indexes) as lines of
# an apt.conf.
debian_apt_options() {
    apt-config dump --no-empty |
        grep -E '^Acquire::(http|https|ftp|Check-|Retries|Queue|ForceIPv|Max-|Min-|Allow)' || true
}
