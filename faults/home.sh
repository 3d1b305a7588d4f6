# home.sh FILE_SYSTEM make STATE: makes the image "disks/live" with this file system, the package
# and a home, and mounts it.
# home.sh FILE_SYSTEM mount: mounts the image.
set -eu
case $1 in
btrfs)
    size=256M mkfs='mkfs.btrfs -q' mount='mount -o loop'
    btrfs device scan -u # a copy of an image cannot be mounted while the image is known
    ;;
XFS) size=320M mkfs='mkfs.xfs -q' mount='mount -o loop,nouuid' ;; # nouuid: for the same reason
ntfs-3g) size=32M mkfs='mkntfs -q -F' mount='mount -t ntfs-3g -o loop,permissions' ;;
# Without auto_da_alloc, ext4 does not help programs that forget to flush.
*) size=8M mkfs='mkfs.ext4 -q -F -m 0' mount='mount -o loop,noauto_da_alloc' ;;
esac
if [ "$2" = make ]; then
    rm -f disks/live
    truncate -s $size disks/live
    $mkfs disks/live >/dev/null
fi
$mount disks/live disk
if [ "$2" = make ]; then
    mkdir disk/home disk/upper disk/work
    cp -a opt/package disk
    cp -a "states/$3/." disk/home
    chown 65534:65534 disk/home disk/upper
fi
mount --bind disk/package opt/package
case $1 in
overlay)
    rm -f disk/spare # without room, overlay would be mounted read-only
    dirs=lowerdir=disk/home,upperdir=disk/upper,workdir=disk/work
    mount -t overlay -o redirect_dir=off,$dirs none home
    head -c 64K /dev/zero >disk/spare || true
    ;;
mergerfs) mergerfs -o allow_other,minfreespace=0 disk/home:disk/upper home ;;
gocryptfs)
    password='-q -nosyslog -extpass echo -extpass password'
    [ "$2" = mount ] || gocryptfs $password -init -scryptn 10 disk/upper
    gocryptfs $password -allow_other disk/upper home
    [ "$2" = mount ] || cp -a disk/home/. home
    ;;
*) mount --bind disk/home home ;;
esac
if [ "$*" = "$1 make none" ]; then # with room for one client
    head -c 9M /dev/zero >disk/ballast || truncate -s -100K disk/ballast
fi
