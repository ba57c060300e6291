#!/bin/sh
# flashrig calls it with each new whole percentage. They may fall, and pass 100: the bar stays where it was.
shown=/tmp/progress
last=$(cat "$shown" 2>/dev/null || echo 0)
if [ "$1" -gt "$last" ] && [ "$1" -le 100 ]; then
    echo "$1" >"$shown"
    echo "progress: $1 %"
fi
