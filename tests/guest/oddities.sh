# Where this server differs from others, and what a client sees of it.
. /lib.sh

try mount mount_export
cd /mnt || exit 1

# A folder that is there, but that the kernel has not heard of: it leaves the check to the server.
try mkdir_unknown mkdir -p known/not/new
ls known known/not >/dev/null
try mkdir_known mkdir -p known/not/new
result mkdir_made "$(ls known/not | tr '\n' ' ')"

# gunzip makes its output with O_EXCL and asks nothing before.
printf new | gzip >exclusive.gz
try exclusive_new gunzip -k exclusive.gz
try exclusive_known gunzip -k exclusive.gz
printf new | gzip >present.gz
try exclusive_present gunzip -k present.gz
result exclusive_contents "$(cat present)"

# Cookies count entries, so what is removed while the folder is listed hides others.
pass=0
while [ -d full ] && [ "$pass" -lt 50 ]; do
    try pass rm -rf full
    result left "$(ls full 2>/dev/null | wc -l)"
    pass=$((pass + 1))
done

# No links and no special files.
echo data >file
try symlink ln -s file symlink
try hardlink ln file hardlink
try fifo mkfifo fifo
result links "$(ls -d symlink hardlink fifo 2>/dev/null)"

# Times and owners are taken, and nothing comes of it.
before=$(stat -c '%Y %u' file)
sleep 1
try touch touch -d '2001-01-01 00:00:00' file
try chown chown 1234 file
drop_caches
[ "$before" = "$(stat -c '%Y %u' file)" ]
result unchanged $?

# Names.
for name in 'with two  blanks' 'größe 日本' "$(printf 'byte\377')" '-rf' 'a*b?"\'; do
    echo "$name" >"./$name"
    drop_caches
    result name "$(cat "./$name")"
done
long=$(printf '%0255d' 0)
try long_name touch "$long"
try too_long_name touch "${long}0"
drop_caches
result listed "$(ls | grep -c .)"
try name_removed rm "./with two  blanks"

cd /
umount /mnt
result umnt "$(send_umnt)"
