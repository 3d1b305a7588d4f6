# Makes, for the program that is installed in $INSTALLED, a user's copy in home, build 1000, and a shipped client in opt,
# build 1001. "old" and "new" is what their start scripts leave in the file "started", with what they see of a platform.
cp -R "$INSTALLED" opt
for client in home/.Brimlock/Brimlock.app:1000:old opt/package/larkspire:1001:new; do
    name=${client##*:}
    build=${client%:*}
    folder=${build%:*}
    build=${build#*:}
    mkdir -p $folder/bin $folder/package
    printf '[Version]\nbuild_version=%s\n' $build >$folder/INFO
    printf %s $name >$folder/bin/brimlock-ui
    printf '#!/bin/sh\necho %s $1${QT_QPA_PLATFORM+ platform=$QT_QPA_PLATFORM} >>"%s/started"\n' $name "$PWD" \
        >$folder/package/start-stop
    chmod 755 $folder/bin/brimlock-ui $folder/package/start-stop
done
cp $folder/INFO opt
printf 'launcher_debug=7\nservice_debug=7\n' >opt/log/launcher.debug
