# The build that is delivered; sourced after lib.sh and sysroot.sh, not run.

readonly architectures=(amd64 armhf)

# ensure_release_packages: what building for both architectures needs.
ensure_release_packages() {
    ensure_packages "${build_packages[@]}" dpkg-dev file g++-arm-linux-gnueabihf git qemu-user "$@"
    ensure_armhf_sysroot
}

# build_release ARCHITECTURE [FOLDER]: builds the library in build/release-ARCHITECTURE of the folder (this one), with
# Debian's flags and full RELRO. Nothing of the folder's name gets into the libraries.
build_release() {
    local -r architecture=$1 folder=${2:-$PWD}
    local -r build=$folder/build/release-$architecture
    local flags linker_flags toolchain=()
    local -x DEB_HOST_ARCH=$architecture DEB_BUILD_MAINT_OPTIONS=hardening=+bindnow
    flags="$(dpkg-buildflags --get CPPFLAGS) $(cd / && dpkg-buildflags --get CXXFLAGS)"
    flags=${flags//-ffile-prefix-map=\/=./-ffile-prefix-map=$folder=.}
    linker_flags=$(dpkg-buildflags --get LDFLAGS)
    if [[ $architecture == armhf ]]; then
        toolchain=(-DCMAKE_TOOLCHAIN_FILE="$folder/cmake/toolchains/armhf.cmake")
    fi
    quietly "configure-release-$architecture" cmake -S "$folder" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=None \
        -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_LIBDIR="lib/$(dpkg-architecture -f -a "$architecture" -q DEB_HOST_MULTIARCH 2>/dev/null)" \
        -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_SHARED_LINKER_FLAGS="$linker_flags" \
        -DCMAKE_SKIP_RPATH=ON "${toolchain[@]}"
    quietly "build-release-$architecture" cmake --build "$build"
}

# repair_sums PACKAGE: CPack gives the checksums of debug symbols the paths of the folder that it has worked in.
repair_sums() {
    local -r content=$1.content
    dpkg-deb --raw-extract "$1" "$content"
    sed -i 's|  .*-dbgsym/|  |' "$content/DEBIAN/md5sums"
    (cd "$content" && md5sum --check --quiet DEBIAN/md5sums)
    quietly repack dpkg-deb --root-owner-group --build "$content" "$1"
    rm -r "$content"
}

# pack_release ARCHITECTURE FOLDER [SOURCE]: puts the packages of a build of the source folder (this one) into FOLDER.
pack_release() {
    local -r architecture=$1 folder=$2 source=${3:-$PWD}
    local package
    local -x DEB_HOST_ARCH=$architecture SOURCE_DATE_EPOCH
    SOURCE_DATE_EPOCH=$(dpkg-parsechangelog --file "$source/packaging/changelog" --show-field Timestamp)
    if [[ $architecture != $(dpkg --print-architecture) ]]; then
        local -x DPKG_ADMINDIR=$PWD/$armhf_sysroot/dpkg
    fi
    quietly "pack-$architecture" cpack --config "$source/build/release-$architecture/CPackConfig.cmake" -B "$folder/work-$architecture"
    mv "$folder/work-$architecture"/*.*deb "$folder/"
    rm -r "$folder/work-$architecture"
    for package in "$folder"/*_"$architecture".ddeb; do
        repair_sums "$package"
    done
}
