#include "fileop/tmp-name-gen.h"

namespace
{
constexpr char kAlphabet[] = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ-_";
constexpr int kAlphabetSize = sizeof kAlphabet - 1;
constexpr size_t kNameLength = 8;
} // namespace

TmpNameGen *TmpNameGen::getInstance()
{
    static TmpNameGen instance;
    return &instance;
}

void TmpNameGen::reseed()
{
    const std::lock_guard<std::mutex> lock(mutex);
    std::random_device device("default");
    engine.seed(device());
}

std::string TmpNameGen::getTmpName()
{
    static std::uniform_int_distribution<int> distribution(0, kAlphabetSize - 1);

    const std::lock_guard<std::mutex> lock(mutex);
    std::string name;
    for (size_t i = 0; i < kNameLength; ++i) {
        name += kAlphabet[distribution(engine)];
    }
    return name;
}

std::string TmpNameGen::getTmpPath(const std::string &folder)
{
    return folder + "/" + getTmpName();
}
