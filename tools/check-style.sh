#!/usr/bin/env bash
# The project's style checks.
#
#   tools/check-style.sh format    clang-format over every source file, changing nothing
#   tools/check-style.sh tidy      clang-tidy's set (.clang-tidy) over the daemon, the
#                                  emulated card and the tools, from build-clang's
#                                  compile commands (make lint builds it first)
#   tools/check-style.sh apply     reformat every source file in place
#
# Exits non-zero on the first finding of the check asked for.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

sources() {
    find app daemon message session event package platform sdk emu tests bench fuzz tools \
        -type f \( -name '*.cc' -o -name '*.h' -o -name '*.c' \) -print0 | sort -z
}

case ${1:-} in
format)
    sources | xargs -0 clang-format --dry-run --Werror
    echo "check-style: every source file is formatted"
    ;;
apply)
    sources | xargs -0 clang-format -i
    ;;
tidy)
    [[ -f build-clang/compile_commands.json ]] || {
        echo "check-style: build-clang/compile_commands.json missing (cmake --preset clang)" >&2
        exit 2
    }
    run-clang-tidy -quiet -p build-clang -j "$(nproc)" \
        "^$root/(app|daemon|message|session|event|package|platform|emu|bench)/.*\.(cc|c)\$" >build-clang/tidy.log 2>&1 || {
        grep -E "(error|warning):" build-clang/tidy.log | sort -u >&2 || cat build-clang/tidy.log >&2
        echo "check-style: clang-tidy found the above (build-clang/tidy.log)" >&2
        exit 1
    }
    echo "check-style: clang-tidy is clean"
    ;;
*)
    echo "usage: tools/check-style.sh format|tidy|apply" >&2
    exit 2
    ;;
esac
