# What the scripts share. Sourced; expects the repository as the working directory.

say() { printf '\033[1m==>\033[0m %s\n' "$*"; }
fail() {
    printf 'FAILED: %s\n' "$*" >&2
    exit 1
}

# need PACKAGE...: installs the Debian packages that are missing, quietly.
need() {
    local missing=()
    local package
    for package in "$@"; do
        dpkg-query -W -f '${db:Status-Status}\n' "$package" 2>/dev/null | grep -qx installed ||
            missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    say "installing ${missing[*]}"
    [ "$(id -u)" -eq 0 ] || fail "these Debian packages are missing, and only root may install them: ${missing[*]}"
    # The servers are started by the tests alone, each in a folder of its own.
    printf '%s\n' 'slapd slapd/no_configuration boolean true' \
        'postfix postfix/main_mailer_type select No configuration' | debconf-set-selections
    local log
    log=$(mktemp)
    if ! { apt-get update -q && DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=600 \
        install -y -q --no-install-recommends "${missing[@]}"; } >"$log" 2>&1; then
        tail -n 20 "$log" >&2
        fail "apt-get could not install the packages"
    fi
    rm -f "$log"
}

BUILD_PACKAGES=(g++ cmake ninja-build pkg-config libldap-dev libgmime-3.0-dev libsqlite3-dev
    libspdlog-dev libcli11-dev nlohmann-json3-dev)
TEST_PACKAGES=(libgtest-dev bogofilter slapd ldap-utils python3 sqlite3 clang-format clang-tidy groff man-db mandoc systemd)
BROWSER_PACKAGES=(chromium fonts-dejavu-core)

# build PRESET [TARGET...]: configures once and builds; prints only what fails.
build() {
    local preset=$1
    shift
    local log=build/$preset.log
    mkdir -p build
    # The build files see to themselves when CMakeLists.txt changes.
    if [ ! -f "build/$preset/build.ninja" ]; then
        cmake --preset "$preset" >"$log" 2>&1 || {
            cat "$log" >&2
            fail "cmake could not configure the preset $preset"
        }
    fi
    ninja -C "build/$preset" "$@" >"$log" 2>&1 || {
        grep -vE '^\[[0-9]+/[0-9]+\]' "$log" | head -n 60 >&2
        fail "the preset $preset does not build, see $log"
    }
}

# clean_root: a minimal Debian in build/clean-root, kept from one run to the next.
clean_root() {
    say "making a clean Debian"
    timeout 900 python3 -B -c 'import sys; sys.path.insert(0, "tests/package"); import sandbox; sandbox.clean_root(sys.argv[1])' \
        build/clean-root || fail "no clean Debian, see build/clean-root.log"
}
