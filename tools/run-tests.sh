#!/usr/bin/env bash
# Builds the host preset and runs every test.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/deps.sh
cmake --preset host
cmake --build --preset host
ctest --preset host "$@"
