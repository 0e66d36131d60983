#include "fileops.h"

#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

bool file_exists(const char* name)
{
    struct stat st;
    return name != nullptr && stat(name, &st) == 0;
}

long file_size(const char* name)
{
    struct stat st;
    if (name == nullptr || stat(name, &st) != 0)
        return -1;
    return static_cast<long>(st.st_size);
}

bool file_rename(const char* from, const char* to)
{
    return from != nullptr && to != nullptr && rename(from, to) == 0;
}

bool file_remove(const char* name)
{
    return name != nullptr && unlink(name) == 0;
}

void file_path(const char* name, std::string* path)
{
    path->clear();
    if (name == nullptr)
        return;
    const char* slash = strrchr(name, '/');
    if (slash != nullptr)
        path->assign(name, static_cast<size_t>(slash - name) + 1);
}
