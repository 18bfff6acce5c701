# Shared set-up of scripts/test and scripts/demo: Debian packages, configure, build.
# Sourced, not run.

MORVANE_ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
MORVANE_JOBS=${MORVANE_JOBS:-$(nproc 2>/dev/null || echo 2)}

# What the build, the tests and the benchmarks need, by Debian package name.
MORVANE_PACKAGES=(
    build-essential cmake ninja-build pkg-config
    qt6-base-dev libcurl4-openssl-dev nlohmann-json3-dev libicu-dev libnl-route-3-dev
    # sd-bus and sd_notify for the programs that run without Qt (provider, helper)
    libsystemd-dev
    libgtest-dev libgmock-dev libbenchmark-dev
    python3 openssl dbus
    # the DNS switch's namespace tests: veth pairs, and systemd-resolved unpacked (never
    # installed) from its package, whose version must match the installed systemd
    iproute2 apt systemd
    # the tray's SVG icons; a private X server and a real notification daemon for the
    # desktop tests of the user interface
    libqt6svg6 xvfb dunst
    # peers the benchmarks measure against
    libspdlog-dev libgmp-dev libknot-dev libldns-dev
    # the DNS forwarder's benchmark: the load generator and dnsmasq (dnsmasq-base: the program
    # without a service that would start on installation). unbound is not installed, since its
    # package starts a resolver that may take over the machine's DNS: the benchmark unpacks it
    # with apt-get download and dpkg-deb -x, and needs only the libraries it links.
    dnsperf dnsmasq-base libevent-2.1-7 libnghttp2-14 libprotobuf-c1 libpython3.11
    # fuzzing and sanitizer runtimes
    clang libclang-rt-14-dev
    # the Debian package: its build (icons rendered from SVG), lintian, and the checks of the
    # installed package (desktop entry, polkit DTD, and polkitd, which the package depends on)
    dpkg-dev debhelper lintian librsvg2-bin desktop-file-utils libxml2-utils polkitd
)

say() { printf '==> %s\n' "$*"; }

# Installs whatever of MORVANE_PACKAGES is missing; does nothing when all are there.
ensure_packages() {
    local missing=() pkg
    for pkg in "${MORVANE_PACKAGES[@]}"; do
        dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed' \
            || missing+=("$pkg")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    say "installing ${missing[*]}"
    local sudo=()
    [ "$(id -u)" -ne 0 ] && sudo=(sudo)
    export DEBIAN_FRONTEND=noninteractive
    "${sudo[@]}" apt-get update -qq >/dev/null
    "${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

# configure_build <build dir> [extra cmake arguments...]
# Developers and CI build with warnings as errors; packagers do not (the option's default).
configure_build() {
    local dir=$1; shift
    cmake -S "$MORVANE_ROOT" -B "$dir" -G Ninja -Wno-dev -DMORVANE_WERROR=ON "$@" >/dev/null
}

# build <build dir> [targets...]
build() {
    local dir=$1; shift
    local targets=()
    for t in "$@"; do targets+=(--target "$t"); done
    cmake --build "$dir" -j "$MORVANE_JOBS" "${targets[@]}"
}
