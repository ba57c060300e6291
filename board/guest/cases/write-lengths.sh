# shellcheck shell=dash source=board/guest/board.sh
# Writes of lengths around page and block borders, between neighbours that must not change.
. /board.sh
new_flash

mkdir update
for length in 1 2047 2048 131072 131073 1500000; do
    blocks=$(((length + block - 1) / block))
    size=$((blocks * block))
    rest=$((length % page))
    noise "$length" "$length" >update/image

    fill 0x400000 16
    update <<SCRIPT
write 420000 $(printf %x $size) image
SCRIPT
    {
        echo "write update/image to flash address 420000"
        printf 'erase complete\n offset=420000 size=%x\n' $size
        [ $rest -eq 0 ] || echo "warning : file readsize = $rest, pending to pagesize = 2048"
        printf 'write file complete\n read size = %d\n' $length
    } | says err
    data 0x420000 $length | cmp - update/image

    # The reference tools on the same blocks.
    fill 0x800000 16
    flash_erase -q /dev/mtd0 0x820000 $blocks
    nandwrite -q -n -p -s 0x820000 /dev/mtd0 update/image
    same_cells 0x400000 0x800000 16
done

# The chip's last two blocks: no message is printed when the file ends at the chip's end.
noise 0 $((2 * block)) >update/image
update <<SCRIPT
write ffc0000 40000 image
SCRIPT
says err <<TEXT
write update/image to flash address ffc0000
erase complete
 offset=ffc0000 size=40000
TEXT
data 0xffc0000 $((2 * block)) | cmp - update/image
