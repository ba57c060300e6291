# shellcheck shell=dash source=board/guest/board.sh
# A ubiformat line that fails writes nothing and ends the script; the partition is freed nevertheless.
. /board.sh
occupy_opt

mkdir update
cp /opt.new.ubi update
update <<SCRIPT
ubiformat /dev/mtd77 opt.new.ubi
erase 0 20000
SCRIPT
opt_is_free
tail -n 1 err >last
echo "dev /dev/mtd77 is not exist" | says last

# Nothing is mounted any more, and the update has no prepare script.
update <<SCRIPT
ubiformat /dev/mtd9 opt.new.ubi
erase 0 20000
SCRIPT
says out <<TEXT
running update script update/flashrig.script
target in no mount
target in no mount
TEXT
[ "$(grep -c erase err)" -eq 0 ]

ubiattach -p /dev/mtd9 >/dev/null
mount -t ubifs ubi0:opt /opt
echo old | says /opt/version
