#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test through CTest.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/setup.sh"
ctest --test-dir build --output-on-failure -j"$(nproc)" "$@"
