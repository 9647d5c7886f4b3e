# shellcheck shell=bash
# Where mmdebstrap gets Debian's packages from: where this machine's own apt does. Sourced after common.sh.

# debian_sources: prints sources.list lines for bookworm and bookworm-updates. Whatever format the machine's sources
# have, apt has read them already. Without the security suite: its indexes of foreign architectures are not kept by
# every mirror, and what it brings comes to bookworm with the next point release.
debian_sources() {
    local targets
    # shellcheck disable=SC2016  # apt's names
    targets="$(apt-get indextargets --no-release-info --format '$(RELEASE) $(REPO_URI)' \
        'Created-By: Packages' 'Component: main' | sort -u)"
    local release uri
    for release in bookworm bookworm-updates; do
        uri="$(awk -v release="$release" '$1 == release { print $2; exit }' <<<"$targets")"
        if [[ -n "$uri" ]]; then
            printf 'deb %s %s main\n' "$uri" "$release"
        elif [[ "$release" == bookworm ]]; then
            die "apt has no sources of Debian 12 (bookworm) here: packages for a device are made of those"
        fi
    done
}

# debian_apt_options: prints this machine's way to fetch (proxies, time-outs, what it thinks of old indexes) as lines of
# an apt.conf.
debian_apt_options() {
    apt-config dump --no-empty |
        grep -E '^Acquire::(http|https|ftp|Check-|Retries|Queue|ForceIPv|Max-|Min-|Allow)' || true
}
