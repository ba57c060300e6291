#!/bin/sh
# prepare_flashrig.sh IMAGE: unpacks an update image to /tmp/update. The updater ignores the exit status and runs what it
# finds there: a damaged image must leave nothing.
rm -rf /tmp/update
mkdir -p /tmp/update
if ! tar -xf "$1" -C /tmp/update || ! (cd /tmp/update && sha256sum --quiet -c SHA256SUMS); then
    rm -rf /tmp/update
    exit 1
fi
