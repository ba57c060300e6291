#!/bin/sh
# progress_script.sh PERCENTAGE: shows the progress. Percentages can fall and exceed 100; the bar does not.
shown=/tmp/progress
last=$(cat "$shown" 2>/dev/null || echo 0)
if [ "$1" -gt "$last" ] && [ "$1" -le 100 ]; then
    echo "$1" >"$shown"
    echo "progress: $1 %"
fi
