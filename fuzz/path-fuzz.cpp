// The path helpers: a path is its parent and its name, and lies below its parent. The input is two paths, each ended by
// its NUL.

#include <algorithm>

#include "fileop/file-op.h"
#include "fuzz/scratch.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    Scratch();
    const std::string input(reinterpret_cast<const char *>(bytes), size);
    const std::string path = input.substr(0, input.find('\0'));
    const std::string rest = input.substr(std::min(path.size() + 1, size));
    const std::string other = rest.substr(0, rest.find('\0'));

    const std::string parent = FSParentPath(path);
    const std::string name = FSBaseName(path);
    Require(name.find('/') == std::string::npos);
    if (path == name || path == "/" + name) {
        Require(parent == "/");
    } else {
        Require(path == parent + "/" + name && FSIsParentFolder(parent, path));
    }

    Require(FSIsParentFolder(path, path) && FSIsParentFolder(path, path + "/" + other));
    Require(FSIsParentFolder(path, other) == (other == path || other.rfind(path + "/", 0) == 0));
    return 0;
}
