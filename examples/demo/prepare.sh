#!/bin/sh
# Run by the update in front of ubiformat, when /opt has been released.
echo "prepare.sh: the partition is free"
