#include "core/PrivateFolder.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace PrivateFolder {

std::string fallbackRuntimeRoot(const std::string& temporaryFolder)
{
    std::string root = temporaryFolder;
    while (root.size() > 1 && root.back() == '/') {
        root.pop_back();
    }
    if (root != "/") {
        root += '/';
    }
    return root + "skelvo-runtime-" + std::to_string(::getuid());
}

bool ensure(const std::string& path, std::string* problem)
{
    auto fail = [&](const std::string& why) {
        if (problem) {
            *problem = path + ": " + why;
        }
        return false;
    };
    if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
        return fail(std::strerror(errno));
    }
    // In a shared folder such as /tmp anyone may have made this name first.
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) {
        return fail(std::strerror(errno));
    }
    if (S_ISLNK(info.st_mode)) {
        return fail("a symbolic link, not a folder");
    }
    if (!S_ISDIR(info.st_mode)) {
        return fail("not a folder");
    }
    if (info.st_uid != ::getuid()) {
        return fail("owned by user " + std::to_string(info.st_uid));
    }
    if ((info.st_mode & 07777) != 0700) {
        return fail("its mode is not 0700");
    }
    return true;
}

} // namespace PrivateFolder
