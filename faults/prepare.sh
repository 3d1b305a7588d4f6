# prepare.sh TESTS: makes the package, and in "states" the homes with which the starts begin.
set -eu
mkdir -p home disk disks states/upgrade/.Brimlock/data states/upgrade/.hidden
mount -t tmpfs none disks
app=$PWD/states/upgrade/.Brimlock/Brimlock.app
ui=bin/brimlock-ui
. "$1/make-clients.sh"
mkdir -p "$app/lib/.deep"
head -c 50000 /dev/urandom | tee -a "$folder/lib/.deep/data" >"$app/lib/.deep/data"
cd states
echo kept | tee upgrade/.hidden/file upgrade/.Brimlock/data/db >"$app/only-old"
cp -r upgrade stale
stale=stale/.Brimlock/Brimlock.app_tmp
cp -r "$app" $stale
sed -i s/1000/999/ $stale/INFO $stale/package/start-stop
cp -r upgrade none
rm -r none/.Brimlock/Brimlock.app
cp -r none upgraded
cp -r "../$folder" upgraded/.Brimlock/Brimlock.app
chown -hR 65534:65534 .
