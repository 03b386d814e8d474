#!/usr/bin/env bash
# check-modern.sh PROGRAM: the program in modern C++ finds and leaves what it should. It sets texts
# up by itself, without QELDIR.
set -euo pipefail

program=$(realpath "${1:?usage: check-modern.sh PROGRAM}")
cd "$(dirname "$0")"
examples=$PWD
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cp service.conf "$folder"
cd "$folder"
unset QELDIR

diff - <("$program") <<'END'
level info, timeout 60, port 8631
tls is off
[listener] address: 127.0.0.1 10.20.0.15
[queue] retry after: 15 60 300
[printer dock-1] media: 100x150 100x50
2 printers
changed: [log] keep
changed: [listener] address
changed: [queue] jobs
# Counted by examples/modern.cpp.
no number: info
END
# Nothing but what it has changed.
diff - <(diff "$examples/service.conf" service.conf) <<'END'
14a15
> address = ::1
34a36,38
> # Counted by examples/modern.cpp.
> jobs = 1
> 
57d60
< keep = 30
END
