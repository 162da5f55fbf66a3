#!/usr/bin/env bash
# Installs every system package that building, testing and running kord needs.
# Safe to run again: packages already present are left as they are.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config
  libwxgtk3.2-dev            # wxWidgets; only the base library is linked
  libssl-dev zlib1g-dev libdeflate-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libcli11-dev nlohmann-json3-dev
  qemu-utils libvmdk-utils   # black-box interop oracles for the tests
  e2fsprogs                  # mke2fs builds the sample file system of the main job
  strace                     # scripts/sync-profile.sh shows where the syncs land
  clang libclang-rt-14-dev   # libFuzzer runs by hand (scripts/fuzz.sh)
  # The doors to kord: each is built when its development files are present.
  nbdkit nbdkit-plugin-dev libnbd-bin python3-libnbd   # the nbdkit plugin; libnbd's tools and Python module test it
  fuse3 libfuse3-dev                    # kord mount
  pybind11-dev python3-dev python3-pytest   # the Python module, for Debian's /usr/bin/python3
  dpkg-dev lintian                      # the Debian packages: built, then checked by dpkg-deb and lintian
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if [ "${#missing[@]}" -eq 0 ]; then
  exit 0
fi

sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update
# The interop oracles and the doors' dependencies are optional: the build
# leaves out a door whose development files are missing, and the tests that
# need a program skip with a message, so their absence must not stop the build.
optional=(qemu-utils libvmdk-utils nbdkit nbdkit-plugin-dev libnbd-bin python3-libnbd fuse3 libfuse3-dev
  pybind11-dev python3-dev python3-pytest dpkg-dev lintian)
required=()
wanted=()
for p in "${missing[@]}"; do
  case " ${optional[*]} " in *" $p "*) wanted+=("$p") ;; *) required+=("$p") ;; esac
done
if [ "${#required[@]}" -gt 0 ]; then
  $sudo apt-get install -y --no-install-recommends "${required[@]}"
fi
for p in "${wanted[@]}"; do
  $sudo apt-get install -y --no-install-recommends "$p" || echo "setup: could not install $p; what needs it is left out or skipped" >&2
done
