# Two disks that the server assembles from pieces, one after the other: they are looked at as disks
# are, and then the server's host is to learn what becomes of them.
. /lib.sh

# The first bytes as the server has them. It refuses a read at the end of such a disk unless the
# read before reached the end, which is up to the order in which the kernel sends its reads; hence
# never without a size. usage: bytes FILE MIB
bytes() {
    dd if="$1" bs=1M count="$2" iflag=direct status=none | sha256
}

try mount mount_export
mkdir /tmp/disk

for disk in memory index; do
    result "${disk}_size" "$(stat -c %s /mnt/$disk)"
    try "${disk}_losetup" losetup -r /dev/loop0 "/mnt/$disk"
    try "${disk}_mount" mount -t ext4 -o ro /dev/loop0 /tmp/disk
    cd /tmp/disk || exit 1
    for file in $(find . -type f | sort); do
        result "${disk}_file" "$file $(sha256 <"$file")"
    done
    try "${disk}_program" ./bin/busybox echo runs
    cd /
    try "${disk}_umount" umount /tmp/disk
    try "${disk}_release" losetup -d /dev/loop0
    result "${disk}_bytes" "$(bytes /mnt/$disk "$IMAGE_MIB")"

    # Whole pages by way of the cache, and what is aligned to nothing around it.
    try "${disk}_write" dd if=/noise of="/mnt/$disk" bs=4k seek="$WRITE_PAGE" conv=notrunc,fsync \
        status=none
    try "${disk}_write_direct" dd if=/noise of="/mnt/$disk" bs="$DIRECT_LENGTH" count=1 \
        seek="$DIRECT_OFFSET" oflag=direct,seek_bytes conv=notrunc status=none
    drop_caches
    result "${disk}_head_written" "$(bytes /mnt/$disk "$HEAD_MIB")"

    try "${disk}_truncate" truncate -s 1000000 "/mnt/$disk"
    try "${disk}_touch" touch -d '2001-01-01 00:00:00' "/mnt/$disk"
    drop_caches
    result "${disk}_size_changed" "$(stat -c %s /mnt/$disk)"

    try "${disk}_rename" mv "/mnt/$disk" "/mnt/$disk.moved"
    drop_caches
    result "${disk}_size_moved" "$(stat -c %s /mnt/$disk.moved)"
    result "${disk}_head_moved" "$(bytes /mnt/$disk.moved "$HEAD_MIB")"
    try "${disk}_remove" rm "/mnt/$disk.moved"
    drop_caches
    result "${disk}_left" "$(ls -A /mnt | tr '\n' ' ')"
done

# One that no disk of the server could hold.
result huge_size "$(stat -c %s /mnt/huge)"
result huge_note "$(dd if=/mnt/huge bs=4k count=1 iflag=skip_bytes skip="$NOTE_OFFSET" status=none)"

result procedures "$(procedures)"
umount /mnt
result umnt "$(send_umnt)"
