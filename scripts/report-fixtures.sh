#!/usr/bin/env bash
# Remakes tests/report/logs/: the logs the real daemon writes in the end-to-end cases, and the dumps
# the stand-ins write when its signals arrive (<test>.trace_00, <test>.tombstone_00), which the
# report tool's tests read. Never edit those files by hand; rerun this.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/setup.sh" >/dev/null
rm -rf tests/report/logs
mkdir -p tests/report/logs
STALL_WARD_KEEP_LOGS="$PWD/tests/report/logs" build/tests/scenario_tests --gtest_filter='Scenario.*:Fault.*'
ls -l tests/report/logs
