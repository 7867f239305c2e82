#!/bin/bash
# libzt.so exports what is listed, no more and no less. Usage: symbols_test.sh LIBRARY LIST
set -euo pipefail
diff <(grep -v '^#' "$2") <(nm -D --defined-only "$1" | awk '{ sub(/@.*/, "", $3); print $3 }' | LC_ALL=C sort)
