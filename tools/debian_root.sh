#!/bin/sh
# Makes a folder with Debian's newest (sid) in it, or keeps the one that is there, and installs
# packages into it, for Pythons that this machine does not have otherwise; as root:
#
#   tools/debian_root.sh FOLDER package...
set -eu
folder=$1
shift

if [ ! -e "$folder/.ready" ]; then
    debootstrap --variant=minbase --include=ca-certificates sid "$folder"
    touch "$folder/.ready"
fi
# What reaches the network here reaches it there.
for file in /etc/resolv.conf /etc/hosts /etc/ssl/certs/ca-certificates.crt; do
    [ ! -e "$file" ] || cp "$file" "$folder$file"
done
mountpoint -q "$folder/proc" || mount -t proc proc "$folder/proc"
export DEBIAN_FRONTEND=noninteractive
# A folder that was kept knows the packages of its day only, which may do.
chroot "$folder" apt-get update || echo "The lists of packages stay as they are."
chroot "$folder" apt-get install -y --no-install-recommends "$@"
