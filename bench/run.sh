#!/usr/bin/env bash
# Reproduces docs/performance.md's figures: builds, runs the sweep benchmark (a few minutes; as
# root, it starts and ends thousands of sleeping processes) and plots sweep cost against process
# count into docs/sweep-cost.svg. bench/run.sh --quick for a short smoke run.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/../scripts/setup.sh" >/dev/null
install_missing gnuplot-nox
mkdir -p build/bench
{
  echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | xargs)," \
    "$(free -g | awk '/Mem:/ {print $2}') GiB, kernel $(uname -r), $(ps -e --no-headers | wc -l) processes"
  build/bench/sweep_bench --data build/bench/sweep.dat "$@"
} | tee build/bench/results.txt
base=$(ps -e --no-headers | wc -l)
gnuplot <<PLOT
set terminal svg size 720,420 font "sans,12" noenhanced
set output "docs/sweep-cost.svg"
set title "CPU time per sweep (monitored process with 2 threads)"
set xlabel "processes on the machine"
set ylabel "microseconds (log scale)"
set logscale y
set key left top
set grid
plot "build/bench/sweep.dat" using (\$1+$base):2 with linespoints title "stall_ward /proc walk", \
     "" using (\$1+$base):3 with linespoints title "syscall floor", \
     "" using (\$1+$base):4 with linespoints title "pgrep -x"
PLOT
echo "plot: docs/sweep-cost.svg; figures: build/bench/results.txt"
