#include "mdirtools.h"

#include <cerrno>
#include <cstring>
#include <string>

#include "dirops.h"
#include "mtrace.h"

namespace orvik {

bool createDirectoryRecursive(const char* path)
{
    if (path == nullptr || path[0] != '/') {
        MERRTRACE("createDirectoryRecursive(): Sorry, relative path not supported");
        return false;
    }
    std::string prefix;
    const char* p = path;
    while (*p != '\0') {
        /* repeated separators and a trailing one add no component */
        while (*p == '/')
            p++;
        if (*p == '\0')
            break;
        const char* end = strchr(p, '/');
        if (end == nullptr)
            end = p + strlen(p);
        prefix += '/';
        prefix.append(p, static_cast<size_t>(end - p));
        p = end;
        if (dir_exists(prefix.c_str()))
            continue;
        MTRACE(4, "createDirectoryRecursive(): want to create \"%s\"", prefix.c_str());
        /* someone else may have created it meanwhile: that is fine too */
        if (!dir_mk(prefix.c_str(), 0777)) {
            int err = errno;
            if (err == EEXIST && dir_exists(prefix.c_str()))
                continue;
            MERRTRACE("createDirectoryRecursive(): dir_mk(%s) failed", prefix.c_str());
            MERRTRACE("createDirectoryRecursive(): system error: [%d] \"%s\"", err, strerror(err));
            return false;
        }
    }
    return true;
}

} // namespace orvik
