#ifndef BRIMLOCK_TESTS_INSTALL_SUPPORT_H
#define BRIMLOCK_TESTS_INSTALL_SUPPORT_H

#include "fct-qt/path-keys.h"
#include "fct-qt/ui-path-manager.h"
#include "launcher/strings/str-table.h"
#include "service/linux/linux-service.h"
#include "tests/support.h"

// Creates a user's copy and a newer shipped client by make-clients.sh.
class InstallTest : public ScratchTest
{
protected:
    InstallTest()
    {
        StrTable::InitStrTable();
        const char *const paths[][2] = {{path_key::kRootResource, "opt"},
                                        {path_key::kUserBrimlock, "base"},
                                        {path_key::kUserBrimlockApp, "base/app"},
                                        {path_key::kUserBrimlockResource, "base/app"},
                                        {path_key::kUserBrimlockUi, "base/app/ui"},
                                        {path_key::kUserLarkspire, "old"}};
        for (const auto &[key, path] : paths) {
            UIPathManager::getInstance()->setPath(key, QString::fromStdString(Path(path)));
        }
        Shell(". '" BRIMLOCK_TESTS "/make-clients.sh'");
    }

    const std::string app = Path("base/app");
    const std::string package = Path("opt/package/larkspire");
};

#endif
