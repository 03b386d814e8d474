#!/usr/bin/env bash
# common.sh: what ./run, ./check and .ci/run share: builds, test runs and the counting. Sourced,
# with the root of the tree as current folder.

passed=0
failed=0
skipped=0

# Shows a heading, so that a long log can be read from far away.
heading() { printf '\n== %s\n' "$*"; }

# count P F [S]: adds to what has passed, failed and been skipped so far.
count() {
    passed=$((passed + $1))
    failed=$((failed + $2))
    skipped=$((skipped + ${3:-0}))
}

# finish: the last line, and whether all went well.
finish() {
    command -v javac >/dev/null || echo "skipped: java_table, which needs javac"
    printf '\n%d passed, %d failed' "$passed" "$failed"
    [ "$skipped" -eq 0 ] || printf ', %d skipped' "$skipped"
    printf '\n'
    [ "$failed" -eq 0 ]
}

# one_check NAME COMMAND...: counts one check, and shows what the command said where it failed.
one_check() {
    local name=$1 output
    shift
    if output=$("$@" 2>&1 </dev/null); then
        echo "ok      $name"
        count 1 0
    else
        printf '%s\nFAILED  %s\n' "$output" "$name"
        count 0 1
    fi
}

# configure FOLDER OPTION...: prepares build/FOLDER with these options of cmake; nothing happens
# where that has been done already.
configure() {
    local folder=build/$1
    shift
    if [ "$(cat "$folder/options" 2>/dev/null)" != "$*" ] || [ ! -e "$folder/build.ninja" ]; then
        # Compilers can't be exchanged in an existing folder.
        rm -rf "$folder"
        cmake -S . -B "$folder" -G Ninja "$@" && printf '%s\n' "$*" >"$folder/options"
    fi
}

# build FOLDER TARGET...: builds as much as can be built. No output but warnings and errors. Nothing
# older is left in the place of what can't be built, or tests would speak for another source.
build() {
    local folder=build/$1
    shift
    ninja --quiet -C "$folder" -k 0 "$@" && return
    find "$folder" -maxdepth 2 \( -name 'libzbase.*' -o -type f -executable \) -delete
    ninja --quiet -C "$folder" -k 0 "$@" >/dev/null || true
    return 1
}

# The release build, which ./run, ./check and the checks of the library share.
configure_release() { configure 64 -DCMAKE_BUILD_TYPE=RelWithDebInfo; }

# threaded_tests FOLDER: the programs in which threads meet, a line each.
threaded_tests() { ctest --test-dir "build/$1" -N -L threads | sed -n 's/^ *Test *#[0-9]*: //p'; }

# cases_of FILE: "passed failed skipped" of one program's results; nothing if it didn't get to the
# end.
cases_of() {
    [ -e "$1" ] && grep -q '</testsuites>' "$1" || return 0
    local all bad left
    # Disabled cases are no cases: they are what tests run in child processes.
    all=$(grep -c '<testcase .*status="run"' "$1" || true)
    bad=$(sed -n 's/^<testsuites .*failures="\([0-9]*\)".*errors="\([0-9]*\)".*/\1 + \2/p' "$1")
    bad=$((bad))
    left=$(grep -c '<testcase .*result="skipped"' "$1" || true)
    [ "$left" -eq 0 ] || echo "        $(basename "$1" .xml): $left skipped" >&2
    echo "$((all - bad - left)) $bad $left"
}

# run_tests FOLDER OPTION...: runs the test programs, as many as there are processors at a time, and
# counts single cases. A program that crashes or never ends is one failure, and so is one that
# passes all its cases and still ends badly, as when a sanitizer finds a leak.
run_tests() {
    local folder=build/$1 results name state good bad left
    shift
    results=$folder/results
    rm -rf "$results"
    mkdir -p "$results"
    ctest --test-dir "$folder" -j "$(nproc)" --output-on-failure --no-tests=error \
        --output-junit results/ctest.xml "$@" >"$results/log" 2>&1 </dev/null || true
    grep -E '^\[  FAILED  \]|Failure$|ERROR: |runtime error|WARNING: ThreadSanitizer|\*\*\*' \
        "$results/log" | sort -u | head -60 || true
    if ! grep -q '<testcase ' "$results/ctest.xml" 2>/dev/null; then
        cat "$results/log"
        echo "FAILED  no tests in $folder"
        count 0 1
        return
    fi
    while read -r name state; do
        read -r good bad left <<<"$(cases_of "$results/$name.xml")" || true
        if [ "$state" = run ]; then
            # A program that isn't made of cases is one itself.
            count "${good:-1}" "${bad:-0}" "${left:-0}"
            echo "ok      $name: ${good:-1} passed"
        else
            [ "${bad:-0}" -gt 0 ] || bad=1
            count "${good:-0}" "$bad" "${left:-0}"
            echo "FAILED  $name: ${good:-0} passed, $bad failed (see $results/log)"
        fi
    done < <(sed -n 's/.*<testcase name="\([^"]*\)".* status="\([^"]*\)".*/\1 \2/p' \
        "$results/ctest.xml")
}
