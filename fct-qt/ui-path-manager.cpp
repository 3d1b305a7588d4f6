#include "fct-qt/ui-path-manager.h"

UIPathManager *UIPathManager::getInstance()
{
    static UIPathManager instance;
    return &instance;
}
