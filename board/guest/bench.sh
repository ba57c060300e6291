# shellcheck shell=dash source=board/guest/board.sh
# Counts the instructions, the kernel's included, of a 32 MiB write by the updater, by flash_erase and nandwrite, and
# by the bare loop of requests; in turns, each on an erased chip.
. /board.sh

pages=16384

writer_flashrig() { measure run "$updater" update quiet; }
writer_nandwrite() { measure run sh -c "flash_erase -q /dev/mtd0 0x400000 $1 && nandwrite -q -p -n -s 0x400000 /dev/mtd0 update/image"; }
writer_bare() { measure run measure bare /dev/mtd0 update/image 400000 "$(printf %x $(($1 * block)))"; }

# measured WRITER BLOCKS: "instructions KiB" of writing an image of that many blocks.
measured() {
    new_flash
    head -c $(($2 * block)) image >update/image
    printf 'write 400000 %x image\n' $(($2 * block)) >update/flashrig.script
    "writer_$1" "$2"
    remove_flash
}

# setenv LINES: "instructions KiB" of a script with so many environment changes.
setenv() {
    new_flash
    { echo "#" && yes "setenv 400000 20000 name value" | head -n "$1"; } >update/flashrig.script
    writer_flashrig
    remove_flash
}

mkdir update
for _ in 1 2 3 4 5 6 7 8; do cat /noise; done >image

printf '%-22s %14s %12s %10s %8s\n' writer "a page" "one block" "32 MiB" "RSS KiB"
for _ in 1 2; do
    for writer in bare nandwrite flashrig flashrig-static; do
        case $writer in
        flashrig) updater=/usr/sbin/flashrig ;;
        flashrig-static) updater=/app/flashrig ;;
        esac
        small=$(measured "${writer%-static}" 1)
        large=$(measured "${writer%-static}" 256)
        printf '%-22s %14d %12d %10d %8d\n' "$writer" $(((${large% *} - ${small% *}) / (pages - 64))) "${small% *}" \
            $((${large% *} / 1000000)) "${large#* }"
    done
done
# Most of the start of a small program is that of libc: these do next to nothing.
echo "start-up of a static program $(measure run measure), of one with a shared libc $(measure run nandwrite --version)"
for updater in /usr/sbin/flashrig /app/flashrig; do
    none=$(setenv 0)
    eleven=$(setenv 11)
    one=$(setenv 1)
    echo "$updater: start-up and end ${none% *}, RSS ${none#* } KiB; first setenv $((${one% *} - ${none% *}))," \
        "each further one $(((${eleven% *} - ${one% *}) / 10)), RSS ${one#* } KiB"
done
