# shellcheck shell=dash source=board/guest/board.sh
# A script with the line ends of all editors; the short setenv runs the system's tool.
. /board.sh
new_flash

cat >/bin/bootvars <<'TOOL'
#!/bin/sh
printf '%s\n' "$@" >/tmp/case/arguments
TOOL
chmod +x /bin/bootvars
mkdir update
noise 0 $page >update/image
printf '#comment\r\n\r\nwrite\t400000 20000 image\r\nflash 1 2\rsetenv version 1.2\r\nerase 1\nwrite 0 20000 none' |
    update
printf '%s\n' -s version 1.2 | says arguments
says err <<TEXT
Unknown script command flash 1 2
write update/image to flash address 400000
erase complete
 offset=400000 size=20000
write file complete
 read size = 2048
Unknown script command flash 1 2
write version = 1.2 to env
incomplete script command erase 1
update/none doesn't exist
TEXT
data 0x400000 $page | cmp - update/image
