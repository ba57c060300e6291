#!/bin/sh
# Told each new whole percentage while the update runs.
echo "progress: $1 %"
