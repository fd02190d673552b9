# What has to be on the machine, by Debian package. Sourced by ./run and ./test.

run_packages=(g++ cmake ninja-build bubblewrap libsnappy-dev
              android-liblog-dev android-libcutils-dev android-libbase-dev)
test_packages=("${run_packages[@]}" libgtest-dev libbenchmark-dev clang libc++-dev libc++abi-dev python3)

# install_missing PACKAGE...: installs those that are not there; does nothing when all are. Status 1,
# with one line on standard error, when that is not possible.
install_missing() {
    local package missing=() root=()
    if ! command -v dpkg-query >/dev/null; then
        echo "no Debian packages on this system: make sure of $*" >&2
        return 0
    fi
    for package in "$@"; do
        case $(dpkg-query -W -f '${Status}' "$package" 2>/dev/null) in
            *" installed") ;;
            *) missing+=("$package") ;;
        esac
    done
    [ ${#missing[@]} -gt 0 ] || return 0

    echo "Installing ${missing[*]}" >&2
    if [ "$(id -u)" != 0 ]; then
        command -v sudo >/dev/null || { echo "missing packages, and no sudo to install them: ${missing[*]}" >&2; return 1; }
        root=(sudo)
    fi
    # The package lists of a fresh machine are empty or old.
    { "${root[@]}" apt-get update -qq &&
      "${root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=300 install -y -qq --no-install-recommends "${missing[@]}"; } >&2 ||
        { echo "could not install: ${missing[*]}" >&2; return 1; }
}
