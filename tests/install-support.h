#ifndef BRIMLOCK_TESTS_INSTALL_SUPPORT_H
#define BRIMLOCK_TESTS_INSTALL_SUPPORT_H

#include <memory>

#include "fct-qt/ui-path-manager.h"
#include "launcher/strings/str-table.h"
#include "service/linux/linux-service.h"
#include "tests/support.h"

// A user's copy and a newer shipped client, as install.sh makes them.
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
        Shell(". '" BRIMLOCK_TESTS "/install.sh'");
    }

    const std::string app = Path("base/app");
    const std::string package = Path("opt/package/larkspire");
};

#endif
