/*
 * Where the product keeps its files: one folder per company and product below
 * the common application-data root ("/var/opt/", or the folder named by the
 * environment variable ORVIK_CONFIGPATH), and likewise below a cache root.
 * The folder texts end with '/', so that a file name can be appended.
 */
#ifndef ZFL_COMMON_APP_DATA_H
#define ZFL_COMMON_APP_DATA_H

#include <stddef.h>

#ifdef __cplusplus
#include <string>

namespace orvik {

/* The root: $ORVIK_CONFIGPATH, else "/var/opt/". */
bool GetCommonAppDataFolder(std::string* folder);

/* root + "/" + company + "/" + product + "/" (no company part when company is
 * null); with create, every missing folder along it is made. */
bool GetCommonAppDataFolderProduct(std::string* folder, const char* company, const char* product,
                                   bool create);

/* The same below "/var/cache/" (or "/var/tmp/" when that cannot be written);
 * company and product are both required. */
bool GetCacheDataFolderProduct(std::string* folder, const char* company, const char* product,
                               bool create);

} // namespace orvik

extern "C" {
#else
#include <stdbool.h>
#endif

/* C forms: copy the folder with its NUL into buffer; false when it does not
 * fit into size bytes. */
bool GetCommonAppDataFolderProduct(char* buffer, size_t size, const char* company, const char* product,
                                   bool create);
bool GetCacheDataFolderProduct(char* buffer, size_t size, const char* company, const char* product,
                               bool create);

#ifdef __cplusplus
}
#endif

#endif
