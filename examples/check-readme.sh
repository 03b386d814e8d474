#!/usr/bin/env bash
# check-readme.sh BUILD: the C and the C++ example of README.md are readme.c and readme.cpp to the
# letter, its table of presets names each, and the programs built from those do what the page says.
set -euo pipefail

build=$(cd "${1:?usage: check-readme.sh BUILD}" && pwd)
cd "$(dirname "$0")"
examples=$PWD
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

# block LANGUAGE: the page's block of code in that language.
block() { sed -n "/^\`\`\`$1\$/,/^\`\`\`\$/{/^\`\`\`/!p}" ../README.md; }

# expect WANTED COMMAND...: what the command must say.
expect() {
    local wanted=$1 said
    shift
    said=$("$@")
    [ "$said" = "$wanted" ] && return
    printf '%s: said "%s" instead of "%s"\n' "$*" "$said" "$wanted"
    exit 1
}

diff <(block c) readme.c
diff <(block cpp) readme.cpp
# The table of the presets has a row for each.
rows='/^## Files of other/,/^## Limits/s/^| `\([a-z0-9-]*\)` .*/\1.conf/p'
diff <(sed -n "$rows" ../README.md | sort) \
    <(cd ../share/zbase/dialects && printf '%s\n' *.conf | sort)

export QELDIR=${QELDIR:-/opt/Quillmere/nls/QEL}
cd "$folder"
for program in readme_c readme_cpp; do
    cp "$examples/service.conf" .
    expect "port 8631" "$build/examples/$program"
    case $program in
        readme_c)
            expect debug "$build/zstz" get service.conf log level
            ;;
        readme_cpp)
            expect $'127.0.0.1\n10.20.0.15\n::1' \
                "$build/zstz" get --all service.conf listener address
            expect swordfish "$build/zstz" get service.conf mail password
            expect "" sed -n /swordfish/p service.conf
            ;;
    esac
done
