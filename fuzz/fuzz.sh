#!/usr/bin/env bash
# fuzz/fuzz.sh PROGRAMS SECONDS [DOOR...]: runs the fuzzers in folder PROGRAMS for SECONDS each, two at a time, or those
# of the doors named. What they find worth keeping goes to out/fuzz/DOOR, what broke to out/fuzz/crashes/DOOR; runs and
# seconds are added to out/fuzz/runs. `fuzz/fuzz.sh PROGRAMS keep [DOOR...]` moves the smallest set of files that takes
# the same ways into fuzz/corpus.
set -euo pipefail
programs=$(cd "$1" && pwd)
seconds=$2
shift 2
cd "$(dirname "${BASH_SOURCE[0]}")/.."
doors=("$@")
[ $# != 0 ] || doors=(lockstep receiver capture rtp reader text xpmap seqmap pktmap)
longest() { [ "$1" = reader ] && echo 8192 || echo 4096; }
# Weighing files by how rare their ways are takes half the time where there are so many ways.
weighs() { case $1 in receiver | lockstep | capture | text) echo 0 ;; *) echo 1 ;; esac; }

keep()
{
    local door=$1 least=out/fuzz/least/$1
    rm -rf "$least"
    mkdir -p "$least" "fuzz/corpus/$door" "out/fuzz/$door"
    "$programs/fuzz_$door" -merge=1 -use_counters=0 -max_len=1500 -timeout=20 "$least" "fuzz/corpus/$door" "out/fuzz/$door" 2>"out/fuzz/$door.merge.log"
    # What once broke something has a name that says what, and stays.
    find "fuzz/corpus/$door" -type f -regextype egrep -regex '.*/[0-9a-f]{12}' -delete
    for file in "$least"/*
    do
        find "fuzz/corpus/$door" -type f -name '*-*' -exec cmp -s "$file" {} \; -print | grep -q . ||
            cp "$file" "fuzz/corpus/$door/$(basename "$file" | cut -c1-12)"
    done
    echo "$door: $(find "fuzz/corpus/$door" -type f | wc -l) files, $(cat "fuzz/corpus/$door"/* | wc -c) bytes"
}

fuzz()
{
    local door=$1 log=out/fuzz/$1.log rc=0 runs start=$SECONDS
    mkdir -p "out/fuzz/$door" "out/fuzz/crashes/$door"
    "$programs/fuzz_$door" -max_total_time="$seconds" -max_len="$(longest "$door")" -entropic="$(weighs "$door")" -timeout=20 -rss_limit_mb=3000 \
        -print_final_stats=1 -artifact_prefix="out/fuzz/crashes/$door/" "out/fuzz/$door" "fuzz/corpus/$door" >"$log" 2>&1 || rc=$?
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
    echo "$door ${runs:-0} runs, $((SECONDS - start)) s" | tee -a out/fuzz/runs
    if [ "$rc" != 0 ]
    then
        echo "$door BROKE:"
        grep -E "what\(\)|ERROR|runtime error|SUMMARY|Test unit written" "$log" || tail -n 20 "$log"
    fi
    return "$rc"
}

export programs seconds
export -f keep fuzz longest weighs
if [ "$seconds" = keep ]
then
    for door in "${doors[@]}"
    do
        keep "$door"
    done
else
    printf '%s\n' "${doors[@]}" | xargs -P "$(nproc)" -I{} bash -euo pipefail -c 'fuzz {}'
fi
