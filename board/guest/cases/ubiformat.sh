# shellcheck shell=dash source=board/guest/board.sh
# ubiformat replaces the file system of a partition in use; applications, mounts and UBI are gone before.
. /board.sh
occupy_opt

mkdir /tmp/update
cp /usr/sbin/ubiformat /opt.new.ubi /tmp/update
echo "echo prepared >/tmp/case/prepared" >/tmp/update/prepare.sh
cat >/tmp/update/progress_script.sh <<'NOTIFY'
echo "$*" >>/tmp/case/percentages
NOTIFY
chmod +x /tmp/update/progress_script.sh
echo "ubiformat /dev/mtd9 opt.new.ubi" >/tmp/update/flashrig.script
run flashrig /tmp/update
[ "$status" -eq 0 ]

opt_is_free
grep -qx "ubiformat /tmp/update/opt.new.ubi to <MTD> /dev/mtd9" err
grep -qx "execute /bin/sh status 0" out
grep -qx "execute /tmp/update/ubiformat status 0" out
[ "$(grep -c '^\[[0-9]*\]$' out)" -eq 10 ]
echo prepared | says prepared
blocks=$(($(wc -c </tmp/update/opt.new.ubi) / block))
printf '%s\n' $((100 / blocks)) $((200 / blocks)) $((100 * (blocks - 7) / blocks)) | says percentages

ubiattach -p /dev/mtd9 >/dev/null
mount -t ubifs ubi0:opt /opt
echo new | says /opt/version
