#!/bin/sh
# flashrig calls this script with each new whole percentage.
echo "progress: $1 %"
