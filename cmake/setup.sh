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

# Installs what is missing; nothing is asked or touched when nothing is.
install_packages() {
    local missing=() package
    while read -r package; do
        dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q '^install ok installed' || missing+=("$package")
    done < <(grep -v '^#' packages.txt)
    [ ${#missing[@]} -eq 0 ] && return
    echo "installing ${missing[*]}"
    update_lists
    as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

# build PRESET: configures once, then builds; prints only what went wrong.
build() {
    local log
    mkdir -p build
    log=build/$1.log
    if ! { [ -f "build/$1/build.ninja" ] || cmake --preset "$1"; } >"$log" 2>&1 ||
        ! cmake --build --preset "$1" >>"$log" 2>&1; then
        cat "$log"
        return 1
    fi
}
