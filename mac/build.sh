#!/usr/bin/env bash
# Builds Tidewatch.app on macOS with Qt from Homebrew (brew install qt cmake ninja node).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${TIDEWATCH_BUILD:-$root/build-mac}
# The typefaces the bundle carries, pinned with their integrity.
(cd "$root/mac/fonts" && npm ci --ignore-scripts --no-audit --no-fund)
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_PREFIX_PATH="$(brew --prefix qt)" -DTIDEWATCH_TESTS=OFF -DTIDEWATCH_BENCH=OFF
cmake --build "$build"
(cd "$root/daemon" && npm ci --omit=dev --no-audit --no-fund)
echo "Built $build/bin/Tidewatch.app"
