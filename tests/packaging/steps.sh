# shellcheck shell=sh
# Sourced by the tests of the packages: steps, and what they compare.

step() {
    echo "-- $*"
}

# same WHAT EXPECTED SEEN
same() {
    [ "$2" = "$3" ] || {
        printf 'FAILED: %s\nexpected:\n%s\nseen:\n%s\n' "$@"
        exit 1
    }
}

# run WHAT COMMAND...: the command succeeds; its output is shown when it does not.
run() {
    what=$1
    shift
    "$@" >/run/sandbox/output 2>&1 || {
        status=$?
        printf 'FAILED: %s: status %s\n' "$what" $status
        cat /run/sandbox/output
        exit 1
    }
}

# next_version PACKAGE SUFFIX: unpacks a package into /run/sandbox/next, with SUFFIX at the end of every version.
next_version() {
    rm -rf /run/sandbox/next
    dpkg-deb --raw-extract "$1" /run/sandbox/next
    sed -i -e "s/^Version: .*/&$2/" -e "s/^\(Depends: .*(= [^)]*\))/\1$2)/" /run/sandbox/next/DEBIAN/control
}
