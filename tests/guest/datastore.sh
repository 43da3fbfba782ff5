# What a hypervisor does with a datastore. /pieces tells what to write into the disk image: lines of
# position, length, and position in /noise where the bytes are.
. /lib.sh

try mount mount_export

# A folder that was filled on the server's side.
result names "$(ls /mnt/many | tr '\n' ' ')"
result sizes "$(ls -l /mnt/many | awk 'NF >= 9 { printf "%s:%s ", $NF, $5 }')"
drop_caches
result names_again "$(ls /mnt/many | tr '\n' ' ')"

# A virtual machine of its own, with a disk that is mostly holes.
try mkdir mkdir -p /mnt/vms/one/logs
cd /mnt/vms/one || exit 1
try image_made truncate -s "${IMAGE_MIB}M" disk
while read -r position length skip; do
    dd if=/noise of=disk bs=64k conv=notrunc status=none oflag=seek_bytes \
        iflag=skip_bytes,count_bytes seek="$position" count="$length" skip="$skip" ||
        result image_error "$position"
done </pieces
drop_caches
result image_size "$(stat -c %s disk)"
result image_read "$(dd if=disk bs=1M iflag=direct status=none | sha256)"

# Logs grow, are cut, and are kept under other names.
head -c 200000 /noise >logs/cut
try cut truncate -s 1000 logs/cut
head -c 1000 /noise >logs/grown
try grow truncate -s 5000 logs/grown
echo first >logs/appended
echo second >>logs/appended
drop_caches
echo third >>logs/appended
result appended "$(tr '\n' ' ' <logs/appended)"
echo emptied >logs/emptied
: >logs/emptied
try synced dd if=/noise of=logs/synced bs=64k conv=fsync status=none

# A descriptor file is replaced as a whole.
echo old settings >config
echo new settings >config~
try rename mv config~ config
result config "$(cat config)"
drop_caches
result config_again "$(cat config)"
result folder "$(ls | tr '\n' ' ')"

# Things go.
mkdir gone
echo data >gone/file
try rmdir_full rmdir gone
try remove rm gone/file
try remove_again rm gone/file
try rmdir rmdir gone
try read_gone cat gone/file

try chmod chmod 640 config
result mode "$(stat -c %a config)"

sync
result space "$(stat -f -c '%S %b %f %a %c %d' /mnt)"
result procedures "$(procedures)"
cd /
try umount umount /mnt
result umnt "$(send_umnt)"

# The big folder once more, by the procedure that tells names alone.
try mount_plain mount_export nordirplus
result names_plain "$(ls /mnt/many | tr '\n' ' ')"
result procedures_plain "$(procedures)"
umount /mnt
result umnt_plain "$(send_umnt)"
