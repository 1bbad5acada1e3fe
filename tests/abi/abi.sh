#!/bin/sh
# tests/abi/abi.sh check|renew [LIBRARY]: holds the exported symbols of the shared library, and the layouts of all that they
# hand over, against tests/abi/libudtrecv.abi, or writes that file anew. LIBRARY was built with debug information;
# build/release/libudtrecv.so unless named.
set -eu
here=$(cd "$(dirname "$0")" && pwd)
root=$here/../..
library=${2:-$root/build/release/libudtrecv.so}
kept=$here/libudtrecv.abi

# Writes what LIBRARY offers to the file $1.
describe()
{
    abidw --exported-interfaces-only --drop-private-types --suppressions "$here/inside.supp" \
        --headers-dir "$root/include" --headers-dir "$root/udt" --headers-dir "$root/common" \
        --headers-dir "$root/xplatform/include" \
        --no-corpus-path --no-comp-dir-path --no-show-locs --type-id-style hash --out-file "$1" "$library"
    sed -i "s/ path='[^']*'//" "$1" # where it was compiled
}

case ${1:-} in
    renew)
        describe "$kept"
        echo "written: $kept"
        ;;
    check)
        now=$(mktemp)
        trap 'rm -f "$now"' EXIT
        describe "$now"
        if ! abidiff --suppressions "$here/inside.supp" "$kept" "$now"
        then
            cat <<'HOW'

The interface of the shared library is not that of tests/abi/libudtrecv.abi. If this is meant: tests/abi/abi.sh renew, and
say why in the commit. Does a program that was linked before still run? If not, raise the library's SOVERSION too.
HOW
            exit 1
        fi
        echo "the interface is that of tests/abi/libudtrecv.abi"
        ;;
    *)
        echo "usage: tests/abi/abi.sh check|renew [LIBRARY]" >&2
        exit 2
        ;;
esac
