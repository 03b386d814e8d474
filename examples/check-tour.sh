#!/usr/bin/env bash
# check-tour.sh BUILD: the programs that touch each subsystem once find what they should, in C++ and
# in C.
set -euo pipefail

build=$1
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
export QELDIR=${QELDIR:-/opt/Quillmere/nls/QEL} LC_ALL=C.UTF-8

diff - <("$build/examples/tour" "$folder") <<'END'
exception 22, ZInvalidParameterException
[one][2][three] answer:00042
café, 5 bytes
3 words, plum found, last plum
well packed, 1000 back, sum 03e80001
in memory
root of 49: 7
sum 55
change number 1
changed [listener] port
port 8631
greeting good: day
END

diff - <("$build/examples/tour_c" "$folder") <<'END'
255 is 0xff, 11 bytes
255 is 0xff has room for all of it
second part: b

	two characters

0000   c3 a9 f0 9f 98 80                                 *é😀          *
root of 81: 9
2001:db8::1
inherited: 1
port 8631
END
