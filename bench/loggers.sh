#!/usr/bin/env bash
# Logger decoding figures: a GT-800 memory image through the emulated logger
# on a pty, and BG-728 answer lines through the driver's parser, each against
# the line speed of 115,200 baud.
# Usage: bench/loggers.sh [GT800_RECORDS] [BG728_LINES]
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset default >/dev/null
cmake --build --preset default --target logger_bench >/dev/null
build/default/bench/logger_bench "${1:-100000}" "${2:-10000}"
