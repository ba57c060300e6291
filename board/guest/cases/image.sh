# shellcheck shell=dash source=board/guest/board.sh
# An update image: the system's script unpacks it, percentages go to its notify script, its own updater takes over.
. /board.sh
new_flash

cat >/app/prepare_flashrig.sh <<'PREPARE'
#!/bin/sh
mkdir /tmp/update
tar -xf "$1" -C /tmp/update
PREPARE
mkdir tree
cat >tree/progress_script.sh <<'NOTIFY'
#!/bin/sh
echo "$*" >>/tmp/case/percentages
NOTIFY
cat >tree/flashrig.script <<'SCRIPT'
write 400000 80000 rootfs
setenv 480000 20000 version 2
SCRIPT
chmod +x /app/prepare_flashrig.sh tree/progress_script.sh
noise 0 $((4 * block)) >tree/rootfs

for copy in "" flashrig; do
    rm -rf /tmp/update percentages
    flash_erase -q /dev/mtd0 0x400000 5
    [ -z "$copy" ] || cp /app/flashrig tree
    tar -cf image -C tree .
    run flashrig image
    [ "$status" -eq 0 ]
    # Sorted: each program flushes its output at its end.
    {
        [ -z "$copy" ] || echo "new program detected, running /tmp/update/flashrig /tmp/update"
        echo "running update script /tmp/update/flashrig.script"
    } >expected
    sort out | says expected
    says err <<TEXT
write /tmp/update/rootfs to flash address 400000
erase complete
 offset=400000 size=80000
write file complete
 read size = 524288
write version = 2 to env
TEXT
    # Four blocks of the image, its end in a fifth, and the environment, of five counted.
    printf '%s\n' 20 40 60 80 100 120 | says percentages
    data 0x400000 $((4 * block)) | cmp - tree/rootfs
    [ "$(data 0x480000 $page | head -c 13 | tail -c 9)" = version=2 ]
done
