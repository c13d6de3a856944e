#include "utils/SysPath.h"

#include <cstdlib>

namespace utils {

std::string sysPath(const std::string& absolutePath) {
    const char* root = std::getenv("KOV_SYSROOT");
    if (root == nullptr || *root == '\0')
        return absolutePath;
    std::string prefix(root);
    while (!prefix.empty() && prefix.back() == '/')
        prefix.pop_back();
    if (absolutePath.empty() || absolutePath.front() != '/')
        return prefix + "/" + absolutePath;
    return prefix + absolutePath;
}

}  // namespace utils
