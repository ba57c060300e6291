# shellcheck shell=bash
# What ./demo and ./test share: the packages of packages.txt and the build of one preset.

# Where Debian keeps depmod, mkfs.ubifs and others that no user has in the path.
PATH=$PATH:/usr/sbin:/sbin

as_root() {
    if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi
}

# A mirror that is changing at the moment fails us; the lists at hand mostly do.
update_lists() {
    as_root apt-get update -qq || echo "apt-get update failed, going on with the lists at hand" >&2
}

# Installs what is missing; nothing is asked or touched when nothing is. Other packages may provide one: Node.js from
# its makers has npm, and refuses Debian's.
install_packages() {
    local missing=() package provided
    provided=$(dpkg-query -W -f '${db:Status-Status} ${Provides}\n' | sed -n 's/^installed //p' | tr -d ' ' | tr , '\n')
    while read -r package; do
        dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q '^install ok installed' ||
            grep -qxF "$package" <<<"$provided" || missing+=("$package")
    done < <(grep -v '^#' packages.txt)
    [ ${#missing[@]} -eq 0 ] && return
    echo "installing ${missing[*]}"
    update_lists
    as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

# build PRESET [TARGET...]: configures once, then builds all or those targets; prints only what went wrong.
build() {
    local preset=$1 log=build/$1.log
    shift
    mkdir -p build
    echo "building $preset"
    if ! { [ -f "build/$preset/build.ninja" ] || cmake --preset "$preset"; } >"$log" 2>&1 ||
        ! cmake --build --preset "$preset" --target "${@:-all}" >>"$log" 2>&1; then
        cat "$log"
        return 1
    fi
}
