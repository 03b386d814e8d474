#!/usr/bin/env bash
# check-pool.sh BUILD: the pool's answers for a long list, in the order of the list.
set -euo pipefail

expected() {
    for _ in $(seq 50); do
        printf '%s\n' '0 0' '2 0' '3 1' '10 4' '1000 168' '100000 9592'
    done
}
diff <(expected) <(expected | cut -d' ' -f1 | QELDIR=/opt/Quillmere/nls/QEL "$1/examples/pool")
