#!/usr/bin/env bash
# Installs what the build and the tests need, with apt-get, when it is missing.
# Idempotent: on a machine that has everything it installs nothing.
set -euo pipefail

packages=(
  g++ cmake ninja-build pkg-config
  libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-14-dev          # libFuzzer targets
  libcrypt-dev                       # password checks against the shadow file
  libpam0g-dev                       # the system's account checks (expired, locked)
  libisal-dev                        # archive checksums of tavikctl (CRC-32)
  nlohmann-json3-dev                 # tavikctl --json (header-only)
  locales                            # localedef for the locale tests
  passwd                             # useradd/chpasswd for the login tests
  iproute2 procps netcat-openbsd     # ss/ipcs/pgrep and nc for tests and benchmarks
  socat e2fsprogs                    # the benchmarks: tar's draining reader, the ext4 restore target
  mandoc man-db                      # the manual pages' checks (tools/check-docs.sh)
  dpkg-dev file lintian systemd      # the Debian package: cpack's dpkg-shlibdeps, lintian,
  bash-completion                    #   systemd-analyze, the completion (tools/package-check.sh)
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi
if [ "$(id -u)" -ne 0 ]; then
  echo "missing packages: ${missing[*]} (run as root to install them)" >&2
  exit 1
fi
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}"
