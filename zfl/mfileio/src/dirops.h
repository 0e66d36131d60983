/* Small folder helpers over plain system calls; errno tells why one failed. */
#ifndef ZFL_DIROPS_H
#define ZFL_DIROPS_H

#include <sys/types.h>

bool dir_mk(const char* path, mode_t mode);

/* True if the name is an existing folder. */
bool dir_exists(const char* path);

/* True if the process may create files in the folder (write and search). */
bool dir_accessible(const char* path);

#endif
