/* A temporary directory that removes itself, with small file helpers. */
#ifndef VELA_TEST_TEMPDIR_H
#define VELA_TEST_TEMPDIR_H

#include <string>

namespace vt {

class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& content);
bool file_exists(const std::string& path);

} // namespace vt

#endif
