#!/bin/sh
# The guest's first process: loads the modules, brings up the network, runs the job, shows what the
# kernel logged meanwhile, and ends the guest. What it writes, the test reads at the serial port.
export PATH=/bin
/bin/busybox mkdir -p /proc /sys /dev /mnt /tmp
/bin/busybox --install -s /bin
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev
mount -t tmpfs tmpfs /tmp

# A sign of life, so that a long step is not taken for a guest that died.
while sleep 5; do echo TICK; done &

# shellcheck disable=SC2013 # one name a line
for module in $(cat /modules/order); do
    [ ! -f "/modules/$module.ko" ] || insmod "/modules/$module.ko" || echo "FAILED insmod $module"
done
ip link set lo up
ip address add 10.0.2.15/24 dev eth0
ip link set eth0 up || echo "FAILED network"

# From here on the kernel's log is about the job.
dmesg -c >/dev/null
. /settings
echo "BOOTED $(cut -d ' ' -f 1 /proc/uptime)"
timeout -s KILL "$JOB_SECONDS" sh /job.sh
printf "\nEXIT %d\n" $?
echo "DONE $(cut -d ' ' -f 1 /proc/uptime)"
dmesg | sed 's/^/DMESG /'
echo GUEST-ENDS
reboot -f
