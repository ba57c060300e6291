#!/bin/sh
# Unpacks an update image where the updater looks for it. Here an image is a tar archive.
rm -rf /tmp/update
mkdir -p /tmp/update
exec tar -xf "$1" -C /tmp/update
