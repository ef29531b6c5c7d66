# Sourced by the scripts: installs with apt-get whatever the build, the tests
# and the demo need and the machine lacks. Nothing is downloaded otherwise.

FERRY_PACKAGES="g++ cmake ninja-build pkg-config git
  libpq-dev libcurl4-openssl-dev libssl-dev libxml2-dev zlib1g-dev
  liblz4-dev libxxhash-dev uuid-dev libfuse3-dev libgtest-dev
  postgresql-15 postgresql-client-15"

ferry_install_deps() {
    local missing=()
    local pkg
    for pkg in $FERRY_PACKAGES; do
        if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed'; then
            missing+=("$pkg")
        fi
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    echo "Installing: ${missing[*]}"
    local sudo=""
    [ "$(id -u)" -ne 0 ] && sudo="sudo"
    export DEBIAN_FRONTEND=noninteractive
    $sudo apt-get update -qq
    # The Debian postgresql package would start a cluster of its own; tests make
    # their private clusters, so keep the service from starting.
    if [ ! -e /usr/sbin/policy-rc.d ]; then
        printf '#!/bin/sh\nexit 101\n' | $sudo tee /usr/sbin/policy-rc.d >/dev/null
        $sudo chmod +x /usr/sbin/policy-rc.d
        local remove_policy=1
    fi
    $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
    local rc=$?
    [ -n "${remove_policy:-}" ] && $sudo rm -f /usr/sbin/policy-rc.d
    return $rc
}

# ferry_build <build dir> [cmake options...]
ferry_build() {
    local dir=$1; shift
    cmake -S "$FERRY_TOP" -B "$dir" -G Ninja "$@" >/dev/null || return 1
    cmake --build "$dir" -j "$(nproc)"
}
