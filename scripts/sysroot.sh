# The sysroot of the 32-bit ARM target; sourced after lib.sh, not run.

readonly armhf_sysroot=build/sysroot-armhf

# What the sysroot holds besides the compiler's C++ library, with all that it depends on; the build machine's own packages
# of these names are not touched.
readonly armhf_packages=(libc6-dev libboost-dev libspdlog-dev libcli11-dev libgtest-dev libgmock-dev libxml2-dev libhdf5-dev
    libsystemd-dev prometheus-cpp-dev)

# armhf_apt COMMAND...: apt-get with the machine's sources, for armhf, on a package state of its own.
armhf_apt() {
    apt-get --config-file "$armhf_sysroot/apt/apt.conf" --quiet=2 --yes --no-install-recommends "$@"
}

# Writes the configuration of armhf_apt. Commands after "#clear" undo what the machine's configuration asks for.
configure_armhf_apt() {
    local -r apt=$PWD/$armhf_sysroot/apt
    mkdir -p "$apt/state/lists/partial" "$apt/cache/archives/partial"
    : >"$apt/status"
    {
        printf '#clear %s;\n' APT::Architectures APT::Update DPkg
        printf '%s "%s";\n' \
            Dir::State "$apt/state" Dir::State::status "$apt/status" Dir::Cache "$apt/cache" \
            Dir::Cache::pkgcache pkgcache.bin Dir::Cache::srcpkgcache srcpkgcache.bin \
            APT::Architecture armhf APT::Architectures:: armhf APT::Sandbox::User root \
            Acquire::Languages none Acquire::Retries 3 Debug::NoLocking true
        # No index but that of the binary packages.
        apt-get indextargets --format '$(TARGET_OF)::$(CREATED_BY)' | sort --unique |
            awk '$0 != "deb::Packages" { printf "Acquire::IndexTargets::%s::DefaultEnabled \"false\";\n", $0 }'
    } >"$apt/apt.conf"
}

# Fetches the indexes, once more after a while where one is in the middle of an update. One that still cannot be fetched is
# no failure: whether the others suffice shows when the packages are fetched.
update_armhf_apt() {
    armhf_apt update && return
    sleep 20
    armhf_apt update || step "An index is missing; going on with the others"
}

# A database for dpkg-shlibdeps, in which the packages' libraries lie where the sysroot has them.
register_armhf_packages() {
    local -r database=$PWD/$armhf_sysroot/dpkg
    local package name file
    mkdir -p "$database/info" "$database/updates"
    printf '1\n' >"$database/info/format"
    for package in "$armhf_sysroot"/apt/cache/archives/*.deb; do
        name=$(dpkg-deb --field "$package" Package)
        if [[ $(dpkg-deb --field "$package" Multi-Arch) == same ]]; then
            name+=:armhf
        fi
        dpkg-deb --control "$package" "$database/control"
        dpkg-deb --fsys-tarfile "$package" | tar --list | sed "s|^\.|$PWD/$armhf_sysroot/root|; s|/$||" \
            >"$database/info/$name.list"
        for file in symbols shlibs; do
            mv "$database/control/$file" "$database/info/$name.$file" 2>/dev/null || true
        done
        sed '1a Status: install ok installed' "$database/control/control" >>"$database/status"
        echo >>"$database/status"
        rm -r "$database/control"
    done
}

# The libraries and headers alone: everything else would only get between the emulated programs and the machine's files.
unpack_armhf_packages() {
    local package link target
    for package in "$armhf_sysroot"/apt/cache/archives/*.deb; do
        dpkg-deb --extract "$package" "$armhf_sysroot/all"
    done
    mkdir -p "$armhf_sysroot/root/usr/share"
    # Since Debian 13 all of it lies in /usr/lib.
    if [[ -d $armhf_sysroot/all/lib ]]; then
        mv "$armhf_sysroot/all/lib" "$armhf_sysroot/root/"
    else
        ln --symbolic usr/lib "$armhf_sysroot/root/lib"
    fi
    mv "$armhf_sysroot"/all/usr/{lib,include} "$armhf_sysroot/root/usr/"
    mv "$armhf_sysroot"/all/usr/share/{cmake,pkgconfig} "$armhf_sysroot/root/usr/share/" 2>/dev/null || true
    # A program that prometheus-cpp's CMake package insists on; nothing runs it.
    install -D "$armhf_sysroot/all/usr/bin/civetweb" "$armhf_sysroot/root/usr/bin/civetweb"
    rm -r "$armhf_sysroot/all"

    # Absolute links would lead out of the sysroot.
    while IFS= read -r -d '' link; do
        target=$(readlink "$link")
        ln --symbolic --force --no-dereference --relative "$armhf_sysroot/root$target" "$link"
    done < <(find "$armhf_sysroot/root" -type l -lname '/*' -print0)
}

# Makes build/sysroot-armhf/root, unless it is there and of the same packages.
ensure_armhf_sysroot() {
    local -r stamp=$armhf_sysroot/packages
    local -ar packages=("libstdc++-$(arm-linux-gnueabihf-g++ -dumpversion)-dev" "${armhf_packages[@]}")
    if [[ $(cat "$stamp" 2>/dev/null) == "${packages[*]}" ]]; then
        step "The armhf sysroot is there"
        return
    fi
    step "Making the armhf sysroot, of ${packages[*]}"
    rm -rf "$armhf_sysroot"
    configure_armhf_apt
    update_armhf_apt
    armhf_apt install --download-only "${packages[@]}" >/dev/null || fail "the armhf packages cannot be fetched"
    register_armhf_packages
    unpack_armhf_packages
    printf '%s\n' "${packages[*]}" >"$stamp"
    rm -r "$armhf_sysroot/apt"
}
