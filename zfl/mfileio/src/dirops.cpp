#include "dirops.h"

#include <sys/stat.h>
#include <unistd.h>

bool dir_mk(const char* path, mode_t mode)
{
    return path != nullptr && mkdir(path, mode) == 0;
}

bool dir_exists(const char* path)
{
    struct stat st;
    return path != nullptr && stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

bool dir_accessible(const char* path)
{
    return dir_exists(path) && access(path, W_OK | X_OK) == 0;
}
