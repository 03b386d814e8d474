#!/usr/bin/env bash
# counter.sh TIMES PROGRAM...: runs the programs, each a counter, all at once in one fresh folder,
# and checks that no count was lost: neither in the number nor in the lock file.
set -euo pipefail

times=${1:?usage: counter.sh TIMES PROGRAM...}
shift
export QELDIR=${QELDIR:-/opt/Quillmere/nls/QEL}
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

pids=()
for program; do
    "$program" "$folder" "$times" &
    pids+=($!)
done
for pid in "${pids[@]}"; do
    wait "$pid"
done

number=$(<"$folder/number")
changes=$(od -An -tu4 -N4 "$folder/._zplcounter" | tr -d ' ')
echo "$# processes, $times times each: number $number, changes counted by the lock $changes"
[ "$number" -eq $(($# * times)) ]
[ "$changes" -eq "$number" ]
