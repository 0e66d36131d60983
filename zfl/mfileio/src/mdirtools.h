#ifndef ZFL_MDIRTOOLS_H
#define ZFL_MDIRTOOLS_H

namespace orvik {

/* Creates every missing folder along an absolute path (mode 0777, less the
 * umask); existing folders are fine. Relative paths are refused. */
bool createDirectoryRecursive(const char* path);

} // namespace orvik

#endif
