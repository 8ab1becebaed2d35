#!/usr/bin/env bash
# The static checks, one line each; goes on after a fault and fails in the end. Wants build/release
# built and build/clang configured: ./dev check sees to both.
# shellcheck disable=SC2317 # functions are called through check
set -uo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.." || exit 2

bad=0
output=$(mktemp)
trap 'rm -f "$output"' EXIT

# check <name> <command...>: the command's output is shown only when it fails.
check() {
    local name=$1 start=$SECONDS
    shift
    if "$@" >"$output" 2>&1; then
        printf 'ok    %s (%d s)\n' "$name" $((SECONDS - start))
    else
        printf 'FAULT %s\n' "$name"
        sed 's/^/      /' "$output"
        bad=$((bad + 1))
    fi
}

format() {
    local sources
    mapfile -t sources < <(find src tools tests fuzz -name '*.h' -o -name '*.cpp')
    clang-format --dry-run -Werror "${sources[@]}" || return 1
    ! LC_ALL=C.UTF-8 grep -nE '^.{101}' "${sources[@]}"
}

tidy() {
    find src tools -name '*.cpp' -print0 |
        xargs -0 -P "$(nproc)" -n 1 clang-tidy --quiet -p build/clang 2>&1 |
        sed '/^[0-9]* warnings\? generated\.$/d'
}

cppchecked() {
    cppcheck --quiet --error-exitcode=1 --std=c++20 --platform=unix32 --inline-suppr -j "$(nproc)" \
        --enable=warning,performance,portability -I src src
}

check "shell scripts" shellcheck dev .ci/run scripts/*.sh
check "format" format
check "include directions" python3 scripts/check_includes.py
check "command pages" python3 scripts/command_docs.py build/release/nrpc-host --check
check "documents" python3 scripts/check_docs.py build/release/nrpc-host
check "cppcheck" cppchecked
check "clang++: warnings, lock annotations" cmake --build --preset clang
check "clang-tidy" tidy
check "dissector" env PYTHONPATH=examples PYTHONDONTWRITEBYTECODE=1 python3 \
    tests/scripts/dissector_test.py tools/wireshark/nrpc.lua
python3 scripts/check_product.py build/release/libnrpc.so || bad=$((bad + 1))

[ "$bad" -eq 0 ]
