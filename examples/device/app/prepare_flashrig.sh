#!/bin/sh
# Unpacks an update image to /tmp/update. Here an image is a tar archive; real devices may use any format.
# flashrig ignores the exit status: a damaged image must not leave half an update.
set -eu
rm -rf /tmp/update
mkdir -p /tmp/update
if ! tar -xf "$1" -C /tmp/update; then
    rm -rf /tmp/update
    exit 1
fi
