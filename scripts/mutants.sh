#!/usr/bin/env bash
# Do the tests bite? Applies each patch of tests/mutants to a copy of the tree, one at a time, and runs
# the tests that its "Tests:" line names, under the address sanitizer: one of them must fail. Wants
# the environment that ./dev mutants prepares.
set -uo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.." || exit 2

patches=("$PWD"/tests/mutants/*.patch)
copy=$PWD/build/mutants
survivors=0

mkdir -p "$copy"
git ls-files -z | rsync -a --delete --exclude /build --files-from=- --from0 . "$copy/"
cd "$copy" || exit 2
cmake --preset asan >/dev/null || exit 2

build() {
    cmake --build --preset asan >build/log 2>&1
}

# Ends at the first test that fails.
passes() {
    ctest --test-dir build/asan --tests-regex "$1" --stop-on-failure >>build/log 2>&1
}

for patch in "${patches[@]}"; do
    name=$(basename "$patch" .patch)
    tests=$(sed -n 's/^Tests: //p' "$patch")
    if ! patch -p1 --silent <"$patch" || ! build; then
        tail -n 20 build/log
        printf 'BROKEN    %s: does not apply or does not compile\n' "$name"
        exit 1
    fi
    if passes "$tests"; then
        printf 'SURVIVED  %s\n' "$name"
        survivors=$((survivors + 1))
    else
        by=$(sed -n 's/.*Test *#[0-9]*: \([^ ]*\) .*\*\*\*.*/\1/p' build/log | head -n 1)
        printf 'caught    %s by %s\n' "$name" "${by:?nothing was run}"
    fi
    patch -p1 --silent --reverse <"$patch"
done
printf '%d passed, %d failed\n' $((${#patches[@]} - survivors)) "$survivors"
[ "$survivors" -eq 0 ]
