#!/bin/sh
# Runs before ubiformat, when the applications are stopped and /opt is unmounted.
set -eu
sync
