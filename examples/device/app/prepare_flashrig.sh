#!/bin/sh
# Unpacks an update image into /tmp/update. Here an image is a tar archive; a device's own may be anything.
# flashrig doesn't look at the exit status: what can't be unpacked must not leave half an update behind.
set -eu
rm -rf /tmp/update
mkdir -p /tmp/update
if ! tar -xf "$1" -C /tmp/update; then
    rm -rf /tmp/update
    exit 1
fi
