# shellcheck shell=bash
# What every script here starts with. Sourced, never run.

set -euo pipefail

# The root of the source tree; every script works from there.
ROOT="$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)"
cd -- "$ROOT"

# Debian's own tools and nothing else: another Python, compiler or CMake package tree in front of them on PATH (conda,
# pyenv, /usr/local) would be found by CMake and by "python3" and give a build that nobody else can repeat.
export PATH=/usr/sbin:/usr/bin:/sbin:/bin
unset PYTHONPATH PYTHONHOME
export PYTHONNOUSERSITE=1
PYTHON=/usr/bin/python3
export PYTHON
# What Python compiles is kept with everything else that is built, not among the sources; also where somebody has asked for
# none to be kept: twenty processes of a test run would each compile all tests anew.
unset PYTHONDONTWRITEBYTECODE
export PYTHONPYCACHEPREFIX="$ROOT/build/pycache"

# What is packed, and who reaches the buses of a simulated device, is not to depend on the habits of who runs this: systemd
# starts services with this mask, too.
umask 022

# How many processes to run at once.
JOBS="${VANTORA_JOBS:-$(nproc)}"
export JOBS

# die MESSAGE: one line on standard error, then the end.
die() {
    printf '%s: %s\n' "${0##*/}" "$1" >&2
    exit "${2:-1}"
}

# say MESSAGE: what happens now, marked so that it stands out between the output of tools.
say() {
    printf -- '-- %s\n' "$1"
}

# usage: prints the comment block at the top of the running script, which is its help text.
usage() {
    sed -n '2,/^$/{/^#/!d;s/^# \{0,1\}//;p}' "$0"
}

# temporary_files_go: whatever is started from here on has its temporary files in a folder that goes with this script, however it
# ends. What is killed cannot tidy up after itself, and tests kill.
temporary_files_go() {
    # Once is enough.
    [[ "${TMPDIR:-}" != "${temporary_files:-none}" ]] || return 0
    # A short name: sockets below it have addresses of 107 bytes at most. Others may pass through, as apt's own user has to.
    temporary_files="$(mktemp -d -- "${TMPDIR:-/tmp}/vt-XXXXXX")"
    chmod 711 -- "$temporary_files"
    export TMPDIR="$temporary_files"
    # The kernel's overlays leave folders that their owner may not look into.
    trap 'chmod -R u+rwX -- "$temporary_files" 2>/dev/null; rm -rf -- "$temporary_files"' EXIT
}

# list_packages FILE...: the package names in such files, without comments.
list_packages() {
    sed -e 's/#.*//' -e 's/[[:space:]]//g' -e '/^$/d' -- "$@"
}
