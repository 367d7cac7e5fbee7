#!/usr/bin/env bash
# Logger figures: a GT-800 memory image through the emulated logger on a pty
# and BG-728 answer lines through the driver's parser, each against the line
# speed of 115,200 baud; then whole BG-728 downloads against the same bytes
# sent raw through a pty.
# Usage: bench/loggers.sh [GT800_RECORDS] [BG728_LINES] [BG728_POINTS...]
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset default >/dev/null
cmake --build --preset default --target logger_bench bg728_bench >/dev/null
build/default/bench/logger_bench "${1:-100000}" "${2:-10000}"
build/default/bench/bg728_bench "${@:3}"
