#!/bin/bash
# A grid of simulated calls as a Slurm job array: each task runs one shard, the last step merges.
#
#   sbatch --array=1-16 --export=ALL,GRID="--loss 1,5,10,20,30 --rtt 20,100,300 --seconds 600" slurm-matrix.sh
#   udtlab matrix --merge matrix-JOBID-*.csv --csv matrix.csv          (when all tasks are done)
#
# Environment: GRID    the grid's options, the same for every task
#              UDTLAB  the program, udtlab from the PATH unless set
#SBATCH --job-name=udtlab-matrix
#SBATCH --ntasks=1
#SBATCH --cpus-per-task=1
set -eu

shard="$SLURM_ARRAY_TASK_ID/$SLURM_ARRAY_TASK_COUNT"
# shellcheck disable=SC2086  # GRID is a list of words
exec "${UDTLAB:-udtlab}" matrix ${GRID:?the options of the grid} --shard "$shard" --jobs 1 \
    --csv "matrix-$SLURM_ARRAY_JOB_ID-$SLURM_ARRAY_TASK_ID.csv"
