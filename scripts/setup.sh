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
# The interop oracles are optional: the tests that use them skip with a message
# when they cannot be installed, so their absence must not stop the build.
oracles=(qemu-utils libvmdk-utils)
required=()
for p in "${missing[@]}"; do
  case " ${oracles[*]} " in *" $p "*) ;; *) required+=("$p") ;; esac
done
if [ "${#required[@]}" -gt 0 ]; then
  $sudo apt-get install -y --no-install-recommends "${required[@]}"
fi
for p in "${oracles[@]}"; do
  $sudo apt-get install -y --no-install-recommends "$p" || echo "setup: could not install $p; interop tests will be skipped" >&2
done
