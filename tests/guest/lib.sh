# shellcheck shell=sh
# What the jobs share. SERVER, MOUNT_PORT and NFS_PORT come from the test.

# One finding, which the test looks up by its name; the value is the rest of the line.
result() {
    name=$1
    shift
    echo "RESULT $name $*"
}

# The exit status of a command that may fail, and what it says about that.
try() {
    name=$1
    shift
    said=$("$@" 2>&1)
    result "$name" $? "$said"
}

# usage: mount_export [FURTHER-OPTIONS]
mount_export() {
    ports=port=$NFS_PORT,mountport=$MOUNT_PORT,mountproto=tcp
    mount -t nfs -o "vers=3,nolock,noacl,proto=tcp,$ports${1:+,$1}" "$SERVER:vm1" /mnt
}

# busybox's umount does not tell the server, so that is done by hand: record mark, message ID, call,
# RPC version 2, program 100005 version 3, procedure 3 (UMNT), no credential, no verifier, "vm1".
# Prints the reply in hexadecimal.
send_umnt() {
    {
        printf '\200\000\000\060'
        printf '\000\000\000\007\000\000\000\000\000\000\000\002'
        printf '\000\001\206\245\000\000\000\003\000\000\000\003'
        printf '\000\000\000\000\000\000\000\000\000\000\000\000\000\000\000\000'
        printf '\000\000\000\003vm1\000'
    } | nc "$SERVER" "$MOUNT_PORT" | hexdump -v -e '/1 "%02x"'
}

# Whatever is read after this comes from the server.
drop_caches() {
    sync
    echo 3 >/proc/sys/vm/drop_caches
}

# Of what comes in.
sha256() {
    sha256sum | cut -d ' ' -f 1
}

# What the kernel counted for each procedure since the mount: "GETATTR:12:0:1" and so on, which is
# calls, calls that it had to repeat, and error replies.
procedures() {
    awk '/^[ \t]+[A-Z]+: [0-9]/ { printf "%s%d:%d:%d ", $1, $2, $3 - $2, $10 }' \
        /proc/self/mountstats
}
