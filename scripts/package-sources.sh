# shellcheck shell=bash
# What Debian packages are made of, of which commit, and which version that is. Sourced after common.sh.

# What packages are made of.
PACKAGE_SOURCES=(CMakeLists.txt client cmake doctor docs/dbus-api.md docs/world.schema.json packaging platform simulator src
    supplicant-names support)

# package_commit: prints the last commit that changed any of it, or the way in which packages are made of it.
package_commit() {
    git log -1 --format=%H -- "${PACKAGE_SOURCES[@]}" scripts/package scripts/package-sources.sh scripts/sysroot
}

# package_version COMMIT: prints the version of what is made of COMMIT: the project's, how many commits led there, and
# which it is: 1.0.0+259.g0192397. It is greater than that of every commit before, as dpkg and apt compare, and less than
# the project's next one. A clone without its history cannot count, and has the project's version alone.
package_version() {
    local project
    project="$(git show "$1:CMakeLists.txt" | sed -n 's/^ *VERSION \([0-9][0-9.]*\)$/\1/p')"
    if [[ "$(git rev-parse --is-shallow-repository)" == true ]]; then
        echo "$project"
    else
        # Always as many digits, whatever git finds sufficient in this clone.
        echo "$project+$(git rev-list --count "$1").g${1:0:10}"
    fi
}
