# The build that is delivered; sourced after lib.sh and sysroot.sh, not run.

readonly architectures=(amd64 armhf)

# The libraries, as their files are called without "lib" and ".so.1", and where they lie in a build.
readonly released_libraries=(haldencpputils haldencpputils-xml haldencpputils-hdf5 logger/haldencpplogger)

# released LIBRARY: its file below the folder of a build.
released() {
    case $1 in
    */*) echo "${1%/*}/lib${1##*/}.so.1" ;;
    *) echo "lib$1.so.1" ;;
    esac
}

# ensure_release_packages: what building for both architectures needs.
ensure_release_packages() {
    ensure_packages "${build_packages[@]}" debhelper doxygen doxygen-awesome-css dpkg-dev file \
        g++-arm-linux-gnueabihf git libcli11-dev prometheus-cpp-dev python3 qemu-user "$@"
    ensure_armhf_sysroot
}

# in_release ARCHITECTURE FOLDER TARGET...: runs the rules of the packages there.
in_release() {
    local -r architecture=$1 folder=$2
    shift 2
    (cd "$folder" && DEB_RULES_REQUIRES_ROOT=no DEB_BUILD_OPTIONS="parallel=$(nproc)" \
        dpkg-architecture -f -a "$architecture" -c debian/rules "$@" 2>&1)
}

# build_release ARCHITECTURE [FOLDER]: builds both builds of the library in build/release-ARCHITECTURE of the folder (this
# one), as the packages have them. Nothing of the folder's name gets into the libraries.
build_release() {
    local -r architecture=$1 folder=${2:-$PWD}
    quietly "clean-release-$architecture" in_release "$architecture" "$folder" clean
    quietly "build-release-$architecture" in_release "$architecture" "$folder" build
}

# pack_release ARCHITECTURE FOLDER [SOURCE]: puts the packages of that build of the source folder (this one) into FOLDER.
pack_release() {
    local -r architecture=$1 source=${3:-$PWD}
    local -x PACKAGES=$2
    local target=binary
    if [[ $architecture != $(dpkg --print-architecture) ]]; then
        target=binary-arch
    fi
    quietly "pack-$architecture" in_release "$architecture" "$source" "$target"
    quietly "clean-release-$architecture" in_release "$architecture" "$source" clean
}
