# The Debian packages that the project needs, and functions to install them. ./run and ./test source
# this file.

run_packages=(g++ cmake ninja-build bubblewrap libsnappy-dev libarchive-dev nlohmann-json3-dev
              android-liblog-dev android-libcutils-dev android-libbase-dev)
test_packages=("${run_packages[@]}" libgtest-dev libbenchmark-dev clang libc++-dev libc++abi-dev python3)
# Packages that only single steps of ./test need.
lint_packages=(clang-tidy cppcheck mandoc man-db zsh)
page_packages=(chromium)
fuzz_packages=(libclang-rt-dev)
build_packages_packages=(dpkg-dev)
packages_packages=("${build_packages_packages[@]}" lintian debootstrap)
arm64_packages=(g++-aarch64-linux-gnu qemu-user)
arm64_root_packages=(libsnappy-dev libarchive-dev nlohmann-json3-dev android-liblog-dev android-libcutils-dev android-libbase-dev libgtest-dev)

# install_missing PACKAGE...: installs the packages that are missing. Returns 1 and prints one line on
# standard error if that fails. On a system without dpkg it only prints the list.
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
    # The package lists of a new machine are empty or old.
    { "${root[@]}" apt-get update -qq &&
      "${root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=300 install -y -qq --no-install-recommends "${missing[@]}"; } >&2 ||
        { echo "could not install: ${missing[*]}" >&2; return 1; }
}

# make_arm64_root DIR PACKAGE...: unpacks arm64 packages and their dependencies into the folder DIR,
# unless DIR already has them. Does not need root, and does not change the installed packages and the
# package lists of the machine. Returns 1 and prints one line on standard error if that fails.
make_arm64_root() {
    local root=$1 apt=$PWD/$1.apt deb options
    shift
    [ "$(cat "$root/packages" 2>/dev/null)" != "$*" ] || return 0
    rm -rf "$root" "$apt"
    mkdir -p "$root" "$apt"/{lists,archives}/partial || return 1
    : >"$apt/status"
    options=(-qq -o APT::Architecture=arm64 -o APT::Architectures=arm64 -o APT::Install-Recommends=0
             -o APT::Sandbox::User= -o Dir::State="$apt" -o Dir::State::status="$apt/status"
             -o Dir::Cache="$apt" -o Debug::NoLocking=1)
    echo "Unpacking $* for arm64 into $root" >&2
    { apt-get "${options[@]}" update && apt-get "${options[@]}" install -y --download-only "$@" &&
      for deb in "$apt"/archives/*.deb; do dpkg-deb -x "$deb" "$root" || return 1; done; } >&2 ||
        { echo "could not get the arm64 packages (they come from Debian's own package servers)" >&2; return 1; }
    rm -rf "$apt"
    # Snappy's CMake files contain absolute paths. Let them point below DIR.
    sed -i "s#\"/usr#\"$PWD/$root/usr#" "$root"/usr/lib/*/cmake/Snappy/*.cmake || return 1
    echo "$*" >"$root/packages"
}
