#!/usr/bin/env bash
# dev.sh: set-up, build and test entry point of the ardvex tree.
#   ./dev.sh test   install what is missing, check the formatting, build the debug, asan and
#                   fuzz presets and run every test in each
#   ./dev.sh run    install what is missing, build the release preset and run the metrics
#                   client for real against a local HTTPS endpoint inside private namespaces
#   ./dev.sh deps   only install the Debian packages the tree needs
set -euo pipefail
cd "$(dirname "$0")"

PACKAGES=(build-essential cmake ninja-build pkg-config googletest libgtest-dev libgmock-dev
          libbenchmark-dev libpcre3-dev libglib2.0-dev clang libclang-rt-14-dev curl openssl
          python3 iproute2 util-linux procps clang-format systemd tzdata dnsmasq-base
          python3-dnslib postfix swaks)

deps() {
    local missing=()
    for p in "${PACKAGES[@]}"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
    done
    if ((${#missing[@]})); then
        echo "installing: ${missing[*]}"
        if [ "$(id -u)" -ne 0 ]; then
            echo "dev.sh: packages are missing and this is not root: ${missing[*]}" >&2
            exit 1
        fi
        apt-get update -qq
        # Postfix asks how to configure itself at install; the tests bring their own settings.
        if [[ " ${missing[*]} " == *" postfix "* ]]; then
            echo "postfix postfix/main_mailer_type select No configuration" | debconf-set-selections
        fi
        DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
    fi
}

build() {
    local preset=$1
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset"
}

# Every C and C++ source is as clang-format (.clang-format) writes it; build trees are not ours.
check_format() {
    find . \( -path './build*' -o -path ./.git \) -prune -o \
        \( -name '*.c' -o -name '*.cpp' -o -name '*.h' -o -name '*.hpp' \) -print0 |
        xargs -0 clang-format --dry-run --Werror
}

run_tests() {
    local preset=$1
    build "$preset"
    ctest --preset "$preset" --output-on-failure -j"$(nproc)"
}

case "${1:-}" in
    deps) deps ;;
    test)
        deps
        check_format
        run_tests debug
        run_tests asan
        run_tests fuzz
        ;;
    run)
        deps
        build release
        exec tools/run-main-job.sh build/release
        ;;
    *)
        sed -n '2,8p' "$0" >&2
        exit 2
        ;;
esac
