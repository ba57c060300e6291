#!/bin/sh
# Runs before ubiformat, when /opt is unmounted.
echo "prepare.sh: the partition is free"
