# Shared by the scripts of this folder. Expects bash with "set -euo pipefail".
#
# Everywhere in this tree, a file with .sh at the end of its name is sourced; one that is run has no such end.

# What every build of the library needs.
readonly build_packages=(cmake g++ libboost-dev libhdf5-dev libspdlog-dev libxml2-dev ninja-build)

# step TEXT: one line of progress.
step() {
    printf -- '-- %s\n' "$*"
}

# fail TEXT: ends the script with one line on stderr.
fail() {
    printf -- '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

# know WORD... -- ARGUMENT...: ends the script where an argument is --help, which prints the comment at its head, or matches
# none of the words, which are patterns.
know() {
    local -a words=()
    local word argument known
    while [[ $1 != -- ]]; do
        words+=("$1")
        shift
    done
    shift
    for argument in "$@"; do
        if [[ $argument == --help ]]; then
            sed -n '2,/^[^#]/ { s/^# \{0,1\}//p }' "${BASH_SOURCE[-1]}"
            exit 0
        fi
    done
    for argument in "$@"; do
        known=false
        for word in "${words[@]}"; do
            # shellcheck disable=SC2053 # a pattern
            [[ $argument != $word ]] || known=true
        done
        $known || fail "unknown argument: $argument; see --help"
    done
}

# know_ctest ARGUMENT...: as know, for what is handed on to ctest, which takes any word and does not tell.
know_ctest() {
    while (($# > 0)); do
        case $1 in
        -R | -E | -L | -LE | -I | --timeout | --repeat) shift ;;
        -N | -V | -VV | --rerun-failed | --stop-on-failure) ;;
        *) fail "unknown argument: $1; see --help" ;;
        esac
        shift || fail "an option needs a value; see --help"
    done
}

# missing_packages PKG...: prints those that are not installed. The architecture is the machine's own.
missing_packages() {
    local package
    for package in "$@"; do
        if [[ $(dpkg-query --show --showformat='${db:Status-Status}' "$package" 2>/dev/null) != installed ]]; then
            printf '%s\n' "$package"
        fi
    done
}

# as_root COMMAND...: runs it as root without asking for a password, or fails.
as_root() {
    if ((EUID == 0)); then
        "$@"
    else
        sudo -n "$@"
    fi
}

# ensure_packages PKG...: installs the Debian packages that are missing. Where nothing is, this is one quick look.
ensure_packages() {
    local missing
    if ! command -v dpkg-query >/dev/null; then
        step "No dpkg-query here, so nothing is checked; needed are (by their Debian names): $*"
        return
    fi
    mapfile -t missing < <(missing_packages "$@")
    if ((${#missing[@]} == 0)); then
        step "All needed packages are installed"
        return
    fi

    local -r command="apt-get install --yes --no-install-recommends ${missing[*]}"
    step "Installing ${missing[*]}"
    as_root true 2>/dev/null || fail "packages are missing and there is no way to become root; run: sudo $command"
    as_root apt-get update --quiet=2 || fail "the package lists cannot be updated; run: sudo apt-get update && sudo $command"
    as_root env DEBIAN_FRONTEND=noninteractive apt-get install --quiet=2 --yes --no-install-recommends \
        "${missing[@]}" >/dev/null || fail "the installation failed; run: sudo $command"
}

# test_programs BUILD FOLDER: those that the build files name, for in the folders lie also those of former ones. The folder
# is a pattern of sed's.
test_programs() {
    sed -n "s|^build \(tests/$2/[^ /]*Test\): CXX_EXECUTABLE_LINKER.*|$1/\1|p" "$1/build.ninja"
}

# refuse_skips PRESET [TEST]...: fails where a test was skipped that is not among those named, by grep's patterns, whether
# ctest tells or the program of several tests.
refuse_skips() {
    local -r preset=$1
    shift
    local unexpected
    unexpected=$(sed -n -e 's/.* - \(.*\) (\(Skipped\|Not Run\|Disabled\))$/\1/p' \
        -e 's/^\[  SKIPPED \] \(.*\) ([0-9]* ms)$/\1/p' \
        "build/log/tests-$preset.log" "build/$preset/Testing/Temporary/LastTest.log" |
        grep --line-regexp --invert-match --file=<(printf '%s\n' "$@") || true)
    [[ -z $unexpected ]] || fail "skipped without need: $unexpected"
}

# quietly NAME COMMAND...: runs it with its output in build/log/NAME.log, of which a failure shows the end.
quietly() {
    local -r log=build/log/$1.log
    shift
    mkdir -p build/log
    "$@" >"$log" 2>&1 || {
        tail -n 60 "$log" >&2
        fail "failed: $* (all output in $log)"
    }
}
