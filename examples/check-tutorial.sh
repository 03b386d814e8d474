#!/usr/bin/env bash
# check-tutorial.sh BUILD: the programs of docs/tutorial.md are those in examples/tutorial to the
# letter, and they do one after the other what the page says.
set -euo pipefail

build=$(cd "${1:?usage: check-tutorial.sh BUILD}" && pwd)
cd "$(dirname "$0")"
page=$PWD/../docs/tutorial.md
share=$PWD/../share
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
export QELDIR=${QELDIR:-/opt/Quillmere/nls/QEL}

# program NAME: what the page has below its mark.
program() { sed -n "/^<!-- $1 -->\$/,/^\`\`\`\$/{/^<!--/d;/^\`\`\`/d;p}" "$page"; }
# said TEXT: whether the page shows these lines.
shown() {
    local line
    while IFS= read -r line; do
        grep -qxF "    $line" "$page" || { echo "the page doesn't show: $line" && exit 1; }
    done <<<"$1"
}

for source in tutorial/*.cpp; do
    diff <(program "$(basename "$source")") "$source"
done

step() { "$build/examples/tutorial_$1" "${@:2}"; }
mkdir -p "$folder/usr/lib"
cp service.conf my.cnf "$folder/"
cp service.conf "$folder/usr/lib/"
cd "$folder"
shown "$(step read)"
step change
shown "$(grep -A2 '^# timeout = 90' service.conf)"
if grep -q '^tls' service.conf; then exit 1; fi
shown "$(step values)"
for _ in 1 2 3 4; do step share & done
wait
[ "$("$build/zstz" get service.conf queue jobs)" = 40 ]
step watch >watched &
until [ "$(cat watched)" = watching ]; do sleep 0.02; done
"$build/zstz" set service.conf queue jobs 41
until [ "$(wc -l <watched)" -eq 2 ]; do sleep 0.02; done
"$build/zstz" set service.conf queue stop now
wait
shown "$(cat watched)"
[ "$(wc -l <watched)" -eq 3 ]
shown "$(step layers "$folder")"
"$build/zstz" --layers service --root "$folder" set log level warn
[ "$("$build/zstz" --layers service --root "$folder" get --origin log level)" = \
    "$(realpath "$folder")/etc/service.conf.d/50-local.conf:4: warn" ]
mkdir old && cp my.cnf old/
export XDG_DATA_DIRS=$share
shown "$(cat my.cnf)"
shown "$(step dialects)"
shown "$("$build/zstz" diff old/my.cnf my.cnf || [ $? = 1 ])"
shown "$("$build/zstz" set --dry-run my.cnf mysqld max_connections 800 | grep '^[-+]max')"
status=0
"$build/zstz" convert --to default my.cnf >converted 2>left || status=$?
[ "$status" -eq 6 ] && [ "$(wc -l <left)" -eq 2 ]
