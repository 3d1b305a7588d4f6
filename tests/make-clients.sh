# Makes a user's copy, build 1000, in $app and a shipped client, build 1001, in opt. $ui is the
# client's program. Their start scripts append the build and their argument to the file "started".
: "${app:=base/app}" "${ui:=ui}"
for client in $app:1000 opt/package/larkspire:1001; do
    folder=${client%:*}
    build=${client#*:}
    mkdir -p $folder/package "$(dirname $folder/$ui)"
    echo $build >$folder/$ui
    printf '[Version]\nmajor_version=1\nminor_version=2\nbuild_version=%s' $build >$folder/INFO
    printf '#!/bin/sh\necho %s $1 >>"%s/started"\n' $build "$PWD" >$folder/package/start-stop
    chmod 755 $folder/$ui $folder/package/start-stop
done
mkdir -p $folder/lib/.deep $folder/empty
printf '\0binary' >$folder/lib/.deep/data
cp $folder/INFO opt
