#ifndef BRIMLOCK_TESTS_INSTALL_SUPPORT_H
#define BRIMLOCK_TESTS_INSTALL_SUPPORT_H

#include <memory>

#include "fct-qt/ui-path-manager.h"
#include "launcher/strings/str-table.h"
#include "service/linux/linux-service.h"
#include "tests/support.h"

// A user's copy, build 1000, in base/app and a shipped client, build 1001, in opt. The start scripts tell.
class InstallTest : public ScratchTest
{
protected:
    InstallTest()
    {
        StrTable::InitStrTable();
        const char *const paths[][2] = {{"root_resource_path", "opt"},
                                        {"user_brimlock_path", "base"},
                                        {"user_brimlock_app_path", "base/app"},
                                        {"user_brimlock_resource_path", "base/app"},
                                        {"user_brimlock_ui_path", "base/app/ui"},
                                        {"user_larkspire_path", "old"}};
        for (const auto &[key, path] : paths) {
            UIPathManager::getInstance()->setPath(key, QString::fromStdString(Path(path)));
        }
        Shell(
            "for c in base/app:1000 opt/package/larkspire:1001; do d=${c%:*}; mkdir -p $d/package; echo ${c#*:} >$d/ui;"
            "printf '[Version]\\nmajor_version=1\\nminor_version=2\\nbuild_version='${c#*:} >$d/INFO; chmod 755 $d/ui;"
            "printf '#!/bin/sh\\necho '${c#*:}' $1 >>\"'\"$PWD\"'/started\"\n' >$d/package/start-stop; chmod 755 "
            "$d/package/*; "
            "done;"
            "mkdir -p $d/lib/deep $d/empty; printf '\\0binary' >$d/lib/deep/data; cp $d/INFO opt");
    }

    const std::string app = Path("base/app");
    const std::string package = Path("opt/package/larkspire");
};

#endif
