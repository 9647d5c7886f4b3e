# shellcheck shell=bash
# Makes Debian systems in files: what images for people and for the tests on the booted device have in common. Sourced after
# common.sh and debian-mirror.sh.

# Systems that only Debian decides are kept here.
# shellcheck disable=SC2034  # for those who source this
IMAGE_CACHE="${XDG_CACHE_HOME:-${HOME:-$ROOT/build}/.cache}/vantora-network/device"

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

# publish WORK TARGET: a folder appears complete or not at all.
publish() {
    mkdir -p -- "$(dirname -- "$2")"
    rm -rf -- "$2"
    mv -- "$1" "$2"
}

# foreign_programs_run ARCHITECTURE: has the kernel run its programs through an emulator, which Debian's maintainer scripts
# need while a system is made. Does nothing for this machine's architecture, and where that is set up already.
foreign_programs_run() {
    local registry=/proc/sys/fs/binfmt_misc name header
    # The first twenty bytes of such a program: ELF, little endian, executable or shared, and for which processor.
    case "$1" in
    "$(dpkg --print-architecture)") return ;;
    armhf) name=arm header='\x7f\x45\x4c\x46\x01\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\x28\x00' ;;
    arm64) name=aarch64 header='\x7f\x45\x4c\x46\x02\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\xb7\x00' ;;
    *) die "programs for $1 do not run here" ;;
    esac
    [[ -e "$registry/register" ]] || mount -t binfmt_misc binfmt_misc "$registry"
    [[ ! -e "$registry/qemu-$name" ]] || return 0
    local mask='\xff\xff\xff\xff\xff\xff\xff\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff'
    # F: the interpreter is opened now, so that it is found from inside the system as well; P: it is told argv[0].
    printf '%s' ":qemu-$name:M:0:$header:$mask:/usr/libexec/qemu-binfmt/$name-binfmt-P:PF" >"$registry/register"
}

# debian_root SUITE ARCHITECTURE TAR [MMDEBSTRAP-OPTION]...: makes a root file system of Debian's packages.
debian_root() {
    local suite="$1" architecture="$2" tar="$3" folder
    shift 3
    foreign_programs_run "$architecture"
    folder="$(mktemp -d -- "$(dirname -- "$tar")/apt.XXXXXX")"
    debian_sources "$suite" "$architecture" >"$folder/debian.list"
    debian_apt_options >"$folder/apt.conf"
    # It goes to standard error what it says: our callers print what they have made. What its packages compile of their Python
    # belongs into the system, where they look for it when they go, and not into our folder's path inside of it.
    env -u PYTHONPYCACHEPREFIX \
        mmdebstrap --quiet --mode=root "--architectures=$architecture" --format=tar "--aptopt=$folder/apt.conf" "$@" \
        "$suite" "$tar" "$folder/debian.list" >&2
    rm -rf -- "$folder"
}

# ext4_of FOLDER FILE OFFSET SIZE [MKE2FS-OPTION]...: puts a folder into a file system of SIZE mebibytes, OFFSET mebibytes after the
# beginning of the file, which grows to that. Nothing is left for the first boot to do.
ext4_of() {
    local folder="$1" file="$2" offset="$3" size="$4"
    shift 4
    truncate --size=">$((offset + size))M" -- "$file"
    mke2fs -q -F -t ext4 -E "offset=$((offset << 20)),lazy_itable_init=0,lazy_journal_init=0" "$@" -d "$folder" "$file" "${size}M"
}
