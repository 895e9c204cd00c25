# shellcheck shell=bash
# The package tools are replaced by stand-ins that record how they are run.
# shellcheck source=outside.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/outside.sh"

mkdir "$own/bin"
cat >"$own/bin/dpkg-query" <<END
#!/bin/sh
shift 2
for package; do
    grep -q -x "\$package" "$own/absent" || printf '%s installed ' "\$package"
done
END
cat >"$own/bin/apt-get" <<END
#!/bin/sh
echo "\$*" >>"$own/calls"
case \$1 in
update) exit "\$(cat "$own/update-status")" ;;
install)
    [ "\$(cat "$own/install-status")" -eq 0 ] || exit 100
    : >"$own/absent"
    ;;
esac
END
cat >"$own/bin/debconf-set-selections" <<END
#!/bin/sh
cat >>"$own/calls"
END
chmod +x "$own/bin"/*
# attempt ABSENT UPDATE INSTALL [GROUP]...: install-deps with these packages absent and these exit statuses of apt-get.
attempt() {
    : >"$own/absent"
    for package in $1; do echo "$package" >>"$own/absent"; done
    echo "$2" >"$own/update-status"
    echo "$3" >"$own/install-status"
    : >"$own/calls"
    run env PATH="$own/bin:$PATH" scripts/install-deps "${@:4}"
    calls=$(<"$own/calls")
}
update="update -q -o APT::Update::Error-Mode=any"
install="install -q -y --no-install-recommends --no-remove"

attempt "" 0 0
assert_equal "all there: no output, no call" "0   " "$status $stdout $stderr $calls"
attempt "cmake strace" 0 0
assert_equal "two missing" "0 install-deps: installing cmake strace  $update
$install cmake strace" "$status $stdout $stderr $calls"
attempt postfix 0 0
assert_equal "postfix is preseeded" "0 install-deps: installing postfix  postfix postfix/main_mailer_type select No configuration
$update
$install postfix" "$status $stdout $stderr $calls"
attempt g++ 100 0
assert_equal "registry out of reach" \
    "1 install-deps: installing g++ install-deps: cannot reach the package registry (apt-get update failed) $update" \
    "$status $stdout $stderr $calls"
attempt g++ 0 100
assert_equal "package that cannot be had" "1 install-deps: installing g++ install-deps: cannot install g++ $update
$install g++" "$status $stdout $stderr $calls"

# What each group asks for on a machine that has none of it.
nothing_is_installed() {
    printf '#!/bin/sh\n' >"$own/bin/dpkg-query"
}
nothing_is_installed
# asked_for GROUP...: the packages that apt-get is asked to install for these groups.
asked_for() {
    attempt "" 0 0 "$@"
    sed -n "s/^$install //p" <<<"$calls"
}
sorted() { printf '%s\n' "$@" | sort | xargs; }
build=(cmake g++ libboost-dev libboost-program-options-dev libc-ares-dev libspf2-dev libssl-dev ninja-build nlohmann-json3-dev)
assert_equal "demo" "$(sorted "${build[@]}" iproute2 postfix util-linux)" "$(asked_for demo)"
assert_equal "package" "$(sorted "${build[@]}" dpkg-dev file lintian)" "$(asked_for package)"
assert_equal "documentation" "doxygen man-db mandoc python3-rich" "$(asked_for documentation)"
assert_equal "two groups" "$(sorted "${build[@]}" dpkg-dev doxygen file lintian man-db mandoc python3-rich)" \
    "$(asked_for documentation package)"
all=$(asked_for)
for group in test lint fuzz bench compatibility; do
    packages=$(asked_for "$group")
    [[ -n $packages ]] || fail "$group asks for nothing"
    for package in $packages; do
        [[ " $all " = *" $package "* ]] || fail "$package of $group is not among those of all groups"
    done
done
attempt "" 0 0 demo nonsense
assert_equal "a group that does not exist" \
    "2  install-deps: no group is called nonsense (see the head of this script) " "$status $stdout $stderr $calls"
