#!/usr/bin/env bash
# Counts the instructions that a packet takes on its way through the receiver, by callgrind: the same program on the
# same machine gives the same number to the digit, whatever else runs.
#
#   count_instructions.sh [--check LIMITS] [--seconds N] [--profile DIR] PATH_ONCE [CASE...]
#
# A CASE is PATTERN:RATE, default a:312 to f:312, c:1000, e:1000; or floor:312, the bench without a receiver, whose
# share every figure contains; or roomUSERS:BUFFER_MS, for example room50:6000. LIMITS holds lines "CASE INSTRUCTIONS"; with --check the cases are those of that file
# unless some are named, and the exit code is 1 when one takes more. --profile keeps the callgrind files.
set -euo pipefail

die() { echo "count_instructions: $*" >&2; exit 2; }

limits= seconds=20 profile=
while [ $# -gt 0 ]
do
    case $1 in
        --check) limits=${2:?}; shift 2 ;;
        --seconds) seconds=${2:?}; shift 2 ;;
        --profile) profile=${2:?}; shift 2 ;;
        -h | --help) sed -n '2,11s/^# \{0,1\}//p' "$0"; exit 0 ;;
        *) break ;;
    esac
done
[ $# -gt 0 ] || die "which program? build/release/bench/path_once"
program=$1
shift
[ -x "$program" ] || die "$program: not there; ./run build first"
command -v valgrind >/dev/null || die "valgrind is missing (Debian package valgrind)"
[ -z "$limits" ] || [ -r "$limits" ] || die "$limits: cannot be read"

cases=("$@")
if [ ${#cases[@]} = 0 ] && [ -n "$limits" ]
then
    mapfile -t cases < <(sed 's/#.*//' "$limits" | awk 'NF { print $1 }')
elif [ ${#cases[@]} = 0 ]
then
    cases=({a..f}:312 c:1000 e:1000 floor:312)
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
[ -z "$profile" ] || mkdir -p "$profile"

# The exit code of the whole: the worst of the cases.
rc=0
printf '%-10s %10s %10s %8s %8s\n' case packets depth instr limit
for case in "${cases[@]}"
do
    pattern=${case%%:*} rate=${case#*:}
    arguments=("$pattern" "$rate" "$seconds")
    case $pattern in
        floor) arguments=(c "$rate" "$seconds" nobody) ;;
        room*) arguments=(room "${pattern#room}" "$rate" "$seconds") ;;
    esac
    out=${profile:-$work}/callgrind.${case/:/.}
    # No environment and no address randomness: neither moves a count, but nobody shall have to wonder.
    if ! env -i PATH="$PATH" valgrind --tool=callgrind --log-file="$work/valgrind" --callgrind-out-file="$out" --toggle-collect=MeasuredLoop \
        --collect-atstart=no "$program" "${arguments[@]}" >"$work/said"
    then
        cat "$work/said" >&2
        die "$case: the program failed"
    fi
    read -r _ packets _ depth <"$work/said"
    instructions=$(awk '$1 == "summary:" || $1 == "totals:" { print $2; exit }' "$out")
    [ -n "$instructions" ] && [ "$instructions" -gt 0 ] || die "$case: nothing was counted"
    per_packet=$(awk -v i="$instructions" -v p="$packets" 'BEGIN { printf "%.1f", i / p }')
    limit=
    [ -z "$limits" ] || limit=$(sed 's/#.*//' "$limits" | awk -v c="$case" '$1 == c { print $2 }')
    verdict=
    if [ -n "$limit" ] && awk -v v="$per_packet" -v l="$limit" 'BEGIN { exit !(v > l) }'
    then
        verdict=' over'
        rc=1
    fi
    printf '%-10s %10s %10s %8s %8s%s\n' "$case" "$packets" "$depth" "$per_packet" "${limit:--}" "$verdict"
done
exit $rc
