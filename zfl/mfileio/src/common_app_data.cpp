#include "common_app_data.h"

#include <cstdlib>
#include <cstring>

#include "dirops.h"
#include "mdirtools.h"
#include "mtrace.h"

namespace {

/* The root keeps its own separator and gets one more, so the default root
 * yields "/var/opt//Company/product/"; the file system ignores the double. */
void append_product(std::string* folder, const char* company, const char* product)
{
    *folder += '/';
    if (company != nullptr) {
        *folder += company;
        *folder += '/';
    }
    *folder += product;
    *folder += '/';
}

bool get_cache_data_folder(std::string* root)
{
    static const char* const roots[] = {"/var/cache/", "/var/tmp/"};
    for (const char* candidate : roots) {
        if (dir_accessible(candidate)) {
            *root = candidate;
            return true;
        }
    }
    MERRTRACE("%s(): /var/cache and /var/tmp not accessible", "get_cache_data_folder");
    return false;
}

bool copy_folder(const char* func, const std::string& folder, char* buffer, size_t size)
{
    if (buffer == nullptr || folder.size() >= size) {
        MERRTRACE("%s(): folder name too long (%zu <= %zu)", func, size, folder.size());
        return false;
    }
    memcpy(buffer, folder.c_str(), folder.size() + 1);
    return true;
}

} // namespace

namespace orvik {

bool GetCommonAppDataFolder(std::string* folder)
{
    /* an empty value would put the folder at the file-system root: treat it
     * as unset */
    const char* root = getenv("ORVIK_CONFIGPATH");
    *folder = root != nullptr && *root != '\0' ? root : "/var/opt/";
    return true;
}

bool GetCommonAppDataFolderProduct(std::string* folder, const char* company, const char* product, bool create)
{
    if (product == nullptr || *product == '\0') {
        MERRTRACE("GetCommonAppDataFolderForProduct(): no company name");
        return false;
    }
    if (!GetCommonAppDataFolder(folder)) {
        MERRTRACE("GetCommonAppDataFolderForProduct(): GetCommonAppDataFolder() failed");
        return false;
    }
    append_product(folder, company, product);
    if (create && !createDirectoryRecursive(folder->c_str())) {
        MERRTRACE("GetCommonAppDataFolderForProduct createDirectoryRecursive(%s) failed", folder->c_str());
        return false;
    }
    return true;
}

bool GetCacheDataFolderProduct(std::string* folder, const char* company, const char* product, bool create)
{
    if (company == nullptr || *company == '\0') {
        MERRTRACE("%s(): company name is empty", __func__);
        return false;
    }
    if (product == nullptr || *product == '\0') {
        MERRTRACE("%s(): product name is empty", __func__);
        return false;
    }
    if (!get_cache_data_folder(folder)) {
        MERRTRACE("%s(): get_cache_data_folder(%s) failed", __func__, product);
        return false;
    }
    append_product(folder, company, product);
    if (create && !createDirectoryRecursive(folder->c_str())) {
        MERRTRACE("%s(): createDirectoryRecursive(%s) failed", __func__, folder->c_str());
        return false;
    }
    return true;
}

} // namespace orvik

extern "C" {

bool GetCommonAppDataFolderProduct(char* buffer, size_t size, const char* company, const char* product, bool create)
{
    std::string folder;
    return orvik::GetCommonAppDataFolderProduct(&folder, company, product, create) &&
           copy_folder(__func__, folder, buffer, size);
}

bool GetCacheDataFolderProduct(char* buffer, size_t size, const char* company, const char* product, bool create)
{
    std::string folder;
    return orvik::GetCacheDataFolderProduct(&folder, company, product, create) &&
           copy_folder(__func__, folder, buffer, size);
}

} // extern "C"
