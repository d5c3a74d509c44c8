#!/usr/bin/env bash
# Non-blank lines of the git-tracked .cpp/.h/.rc files: a file is a test when a folder on its path
# is named "tests"; bench/ counts as neither. Fails when tests outgrow 0.45 of the code.
set -euo pipefail
cd "${1:-$(dirname "$0")/..}"
tests=0 code=0
while IFS= read -r -d '' file; do
    case "$file" in bench/*) continue ;; esac
    [ -f "$file" ] || continue
    n=$(grep -cv '^[[:space:]]*$' "$file" || true)
    case "/$file" in
    */tests/*) tests=$((tests + n)) ;;
    *) code=$((code + n)) ;;
    esac
done < <(git ls-files -z -- '*.cpp' '*.h' '*.rc')
ratio=$(awk -v t="$tests" -v c="$code" 'BEGIN { printf "%.3f", c ? t / c : 0 }')
echo "tests $tests lines, code $code lines, ratio $ratio"
awk -v t="$tests" -v c="$code" 'BEGIN { exit !(t <= 0.45 * c) }'
