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

# apt_reads ARCHITECTURE LINE: whether apt can fetch the index that a line of a sources.list stands for, and takes it for the one
# that the mirror has signed.
apt_reads() {
    local folder status=0
    folder="$(mktemp -d)"
    mkdir -p -- "$folder/lists/partial" "$folder/archives/partial"
    : >"$folder/status"
    printf '%s\n' "$2" >"$folder/sources.list"
    apt-get -qq --error-on=any -o "Dir::State=$folder" -o "Dir::State::status=$folder/status" -o "Dir::Cache=$folder" \
        -o "Dir::Etc::sourcelist=$folder/sources.list" -o Dir::Etc::sourceparts=/dev/null -o APT::Sandbox::User=root \
        -o "APT::Architecture=$1" -o "APT::Architectures=$1" update >/dev/null 2>&1 || status=1
    rm -rf -- "$folder"
    return "$status"
}

# debian_sources [SUITE [ARCHITECTURE]]: prints sources.list lines for a release (this machine's when none is named) and its
# updates. Whatever format the machine's sources have, apt has read them already; of another release than its own the same mirror has
# packages, too. Without the security suite: its indexes of foreign architectures are not kept by every mirror, and what it
# brings comes with the next point release. The same holds of the updates, of which some mirrors keep an index that is older than
# its signature: where an architecture is named for which that is so, they are left out, and standard error tells.
debian_sources() {
    local own suite architecture="${2:-}" targets
    own="$(debian_suite)"
    suite="${1:-$own}"
    # shellcheck disable=SC2016  # apt's names
    targets="$(apt-get indextargets --no-release-info --format '$(RELEASE) $(REPO_URI)' \
        'Created-By: Packages' 'Component: main' | sort -u)"
    local part uri line
    for part in "" -updates; do
        uri="$(awk -v release="$suite$part" '$1 == release { print $2; exit }' <<<"$targets")"
        [[ -n "$uri" ]] || uri="$(awk -v release="$own$part" '$1 == release { print $2; exit }' <<<"$targets")"
        if [[ -n "$uri" ]]; then
            line="deb $uri $suite$part main"
            if [[ -n "$part" && -n "$architecture" ]] && ! apt_reads "$architecture" "$line"; then
                say "the mirror has no sound index of $suite$part for $architecture: without these" >&2
                continue
            fi
            printf '%s\n' "$line"
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
