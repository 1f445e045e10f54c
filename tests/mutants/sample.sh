#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# A few changes, drawn by SKORRA_SEED, against the tests of an existing build: sample.sh BUILD_FOLDER COUNT
set -euo pipefail
for tool in python3 g++ ninja; do
  if ! command -v "$tool" >/dev/null; then
    echo "skipped: $tool is missing"
    exit 77
  fi
done
exec python3 "$(dirname "$0")/mutants.py" --build "$1" --sample "$2" ${SKORRA_SEED:+--seed "$SKORRA_SEED"}
