# Several at once in one image, folders that move under open files, and coming back after an
# unmount.
. /lib.sh

try mount mount_export
cd /mnt || exit 1

# The first half of the disk is read twice, through the cache and around it, while the second half
# is written.
dd if=disk bs=1M count="$HALF_MIB" status=none | sha256 >/tmp/first &
dd if=disk bs=1M count="$HALF_MIB" iflag=direct status=none | sha256 >/tmp/second &
for block in $(seq "$HALF_MIB" $((2 * HALF_MIB - 1))); do
    dd if=/noise of=disk bs=1M conv=notrunc seek="$block" status=none
done &
wait
result first_reader "$(cat /tmp/first)"
result second_reader "$(cat /tmp/second)"

# A folder moves while two of its files are open, and other files take the old place.
exec 3<vm/disk 4<>vm/log
result head "$(dd bs=4k count=1 status=none <&3 | sha256)"
try move mv vm moved
try replace mkdir vm
echo another disk >vm/disk
echo another log >vm/log
drop_caches
result rest "$(cat <&3 | sha256)"
echo MORE >&4
exec 3<&- 4>&-
result old_place "$(cat vm/disk)"
result new_place "$(sha256 <moved/disk)"

# What is removed while it is open stays readable until it is closed.
exec 5<vm/log
try remove_open rm vm/log
result removed "$(cat <&5)"
exec 5<&-
result left "$(ls -A vm | tr '\n' ' ')"

# The server takes us for mounted until it is told otherwise.
result tree "$(find . -type f | sort | tr '\n' ' ')"
cd /
try umount umount /mnt
try mount_early mount_export
result umnt "$(send_umnt)"
try mount_again mount_export
cd /mnt || exit 1
result tree_again "$(find . -type f | sort | tr '\n' ' ')"
result new_place_again "$(sha256 <moved/disk)"
cd /
umount /mnt
result umnt_again "$(send_umnt)"
