# shellcheck shell=dash source=board/guest/board.sh
# One update from an image file, as a user sees it, and the flash read back with mtd-utils.
. /board.sh
new_flash badblocks=20,37,38

heading() { printf '\n== %s\n' "$*"; }

cp /demo/prepare_flashrig.sh /app
mkdir tree
cp /demo/progress_script.sh tree
noise 0 200001 >tree/boot.bin
noise 1000000 2500000 >tree/kernel.bin
cat >tree/flashrig.script <<'SCRIPT'
# Boot loader, kernel and the variables that the boot loader starts by
write   0x000000 0x060000 boot.bin
write   0x200000 0x400000 kernel.bin
setenv  0x100000 0x020000 bootcmd nand_kernel
setenv  0x100000 0x020000 version 1.4.2
SCRIPT
tar -cf update.img -C tree .

heading "The board"
uname -srm
cat /proc/mtd
mtdinfo /dev/mtd0 | grep -E '^(Type|Eraseblock size|Amount|Minimum|OOB)'
heading "The update: update.img"
cat tree/flashrig.script
heading "Its run"
flashrig update.img 2>&1
heading "The flash read back"
for image in "0x000000 boot.bin" "0x200000 kernel.bin"; do
    file=${image#* }
    data "${image% *}" "$(wc -c <"tree/$file")" | cmp - "tree/$file"
    echo "$file: equal in all its $(wc -c <"tree/$file") bytes"
done
nanddump -q -s 0x100000 -l $block /dev/mtd0 | tail -c +5 | tr '\0' '\n' | grep '=' | sed 's/^/environment: /'
