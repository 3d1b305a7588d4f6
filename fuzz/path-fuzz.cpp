// The path helpers: a path is its parent and its name, and lies below its parent. The input is two paths, each ended by
// its NUL.

#include "fileop/file-op.h"
#include "fuzz/scratch.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    Scratch();
    const std::string input(reinterpret_cast<const char *>(bytes), size);
    const std::string path = input.c_str();
    const std::string other = path.size() < size ? input.c_str() + path.size() + 1 : "";

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
