/*
 * Small file helpers over plain system calls. They report nothing themselves;
 * callers trace with their own context (errno is left as the call set it).
 */
#ifndef ZFL_FILEOPS_H
#define ZFL_FILEOPS_H

#include <string>

/* True if something (file, folder, device) exists under the name. */
bool file_exists(const char* name);

/* Size in bytes, -1 if the name cannot be stat'ed. */
long file_size(const char* name);

bool file_rename(const char* from, const char* to);
bool file_remove(const char* name);

/* Folder part of a path including its trailing '/', empty when the name has
 * no folder part ("a/b.ini" -> "a/", "/x" -> "/", "b.ini" -> ""). */
void file_path(const char* name, std::string* path);

#endif
