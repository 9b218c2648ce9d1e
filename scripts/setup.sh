# Sourced by the commands beside it: which packages the project needs, and how a step is run quietly.

readonly project=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
readonly logs=$project/build/log
mkdir -p "$logs"

[ -w "${HOME:-/nonexistent}" ] || export CCACHE_DISABLE=1     # nowhere to keep a cache

# The packages, by their names in Debian 12. Without the optional ones everything builds; what needs them is skipped.
readonly needed_packages=(
    g++ cmake ninja-build pkg-config python3            # to build, and for some of the tests
    libpugixml-dev                                      # the library: XML of the modern dialect
    zlib1g-dev                                          # the library: zlib's header; zlib itself is opened at run time
    libssl-dev openssl                                  # the SSL provider; the program makes the tests' certificates
    libcli11-dev nlohmann-json3-dev                     # the tools: options, --json
    libgtest-dev libgmock-dev                           # the tests
    iproute2 util-linux                                 # the private LAN: ip, unshare, nsenter, setpriv
)
readonly optional_packages=(
    ccache                                              # quicker second builds
    miniupnpd-nftables nftables                         # a real gateway daemon for the tests to talk to
    libglib2.0-dev libuv1-dev libasio-dev               # the examples that run in these loops
)

missing_packages()
{
    local package
    for package in "$@"; do
        [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || echo "$package"
    done
}

# run_quietly NAME SENTENCE COMMAND...: one line with the time it took; all output goes to a log, shown on failure.
run_quietly()
{
    local name=$1 sentence=$2 started=$SECONDS
    shift 2
    printf '%-52s' "$sentence"
    if "$@" >"$logs/$name.log" 2>&1 </dev/null; then
        printf '%4d s\n' $((SECONDS - started))
        return 0
    fi
    printf ' FAILED\n\n'
    tail -n 60 "$logs/$name.log"
    printf '\nAll of its output: build/log/%s.log\n' "$name"
    return 1
}

# RUNLEVEL=1 keeps an installed daemon from being started.
apt_install()
{
    export DEBIAN_FRONTEND=noninteractive RUNLEVEL=1
    local wait_for_lock=(-o DPkg::Lock::Timeout=300)
    apt-get "${wait_for_lock[@]}" update && apt-get "${wait_for_lock[@]}" install -y --no-install-recommends "$@"
}

# install_packages [PACKAGE...]: makes sure that the needed packages are here, and as root tries for these others.
install_packages()
{
    command -v dpkg-query >/dev/null || return 0    # not Debian: CMake tells what it misses
    local needed optional
    mapfile -t needed < <(missing_packages "${needed_packages[@]}")
    mapfile -t optional < <(missing_packages "$@")

    if [ "$(id -u)" != 0 ]; then
        [ ${#needed[@]} = 0 ] && return 0
        echo "Packages are missing. Please install them and run this again:"
        echo "    sudo apt-get install ${needed[*]}"
        return 1
    fi
    if [ ${#needed[@]} -gt 0 ]; then
        run_quietly packages "Installing ${#needed[@]} packages" apt_install "${needed[@]}" || return 1
    fi
    if [ ${#optional[@]} -gt 0 ]; then
        printf 'Installing, if it can be had: %s\n' "${optional[*]}"
        apt_install "${optional[@]}" >"$logs/optional-packages.log" 2>&1 </dev/null ||
            echo "Going on without; build/log/optional-packages.log tells why"
    fi
}

# build PRESET [TARGET...]: configures and builds it.
build()
{
    local preset=$1
    shift
    cd "$project" || return 1
    run_quietly "configure-$preset" "Configuring (preset $preset)" cmake --preset "$preset" &&
        run_quietly "build-$preset" "Building" cmake --build --preset "$preset" ${1:+--target "$@"}
}
