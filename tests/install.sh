# Makes a user's copy, build 1000, in base/app and a shipped client, build 1001, in opt. Their start scripts leave the
# build and their argument in the file "started".
for client in base/app:1000 opt/package/larkspire:1001; do
    folder=${client%:*}
    build=${client#*:}
    mkdir -p $folder/package
    echo $build >$folder/ui
    printf '[Version]\nmajor_version=1\nminor_version=2\nbuild_version=%s' $build >$folder/INFO
    printf '#!/bin/sh\necho %s $1 >>"%s/started"\n' $build "$PWD" >$folder/package/start-stop
    chmod 755 $folder/ui $folder/package/start-stop
done
mkdir -p $folder/lib/.deep $folder/empty
printf '\0binary' >$folder/lib/.deep/data
cp $folder/INFO opt
