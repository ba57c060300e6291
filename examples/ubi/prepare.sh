#!/bin/sh
# Runs when the device's applications are stopped and /opt is unmounted, right before ubiformat.
set -eu
sync
