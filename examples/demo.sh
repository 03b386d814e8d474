#!/usr/bin/env bash
# demo.sh BUILD: the command and a C program of the build folder at work on a copy of service.conf.
# Shows each command, what it says, and in the end what has become of the file. Any step that fails
# ends it.
set -euo pipefail

build=$(cd "${1:?usage: demo.sh BUILD}" && pwd)
cd "$(dirname "$0")"
original=$PWD/service.conf
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cp "$original" "$folder"
cd "$folder"

# The command sets it for itself; a program's user does.
export QELDIR=${QELDIR:-/opt/Quillmere/nls/QEL}
PATH=$build:$build/examples:$PATH

# show COMMAND...: the command as one would type it, and its output.
show() {
    local word line='$'
    for word in "$@"; do
        [[ $word =~ ^[A-Za-z0-9_./:=-]+$ ]] || word="'$word'"
        line+=" $word"
    done
    printf '%s\n' "$line"
    "$@"
}

show zstz check service.conf
show zstz list service.conf
show zstz list service.conf queue
show zstz get service.conf listener port
show zstz get --all service.conf listener address

show zstz set service.conf log level debug
show zstz set --type integer service.conf listener timeout 120
show zstz set --type boolean service.conf 'printer dock-2' enabled no
show zstz add service.conf listener address ::1
show zstz unset service.conf queue 'retry after' 300
show zstz unset service.conf mail
show zstz comment service.conf '# Changed by the demonstration.'
show zstz comment service.conf 'printer dock-2' '# Back from the mail room.'
show zstz comment service.conf queue 'max jobs' '# A thousand and a few.'

show edit service.conf
echo
echo "\$ diff -u $(basename "$original") before and after"
status=0
diff -u --label before --label after "$original" service.conf || status=$?
[ "$status" -eq 1 ]  # 0: nothing has changed; 2: no file
