/* Shared by the fuzz targets: a scratch folder for the files the code under
 * test reads and writes, whole-file helpers and a failure that stops the
 * fuzzer with a message. */
#ifndef VELA_FUZZ_SUPPORT_H
#define VELA_FUZZ_SUPPORT_H

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace fz {

/* Standard error as it was at start: the fuzzer may close the program's own
 * (-close_fd_mask) to keep the code's traces out of its output. */
inline const int report_fd = dup(2);

/* Stops the fuzzer, telling which target found what. */
[[noreturn]] inline void fail(const std::string& what)
{
    dprintf(report_fd >= 0 ? report_fd : 2, "%s: %s\n", program_invocation_short_name, what.c_str());
    abort();
}

inline void check(bool ok, const std::string& what)
{
    if (!ok)
        fail(what);
}

/* A folder that lives as long as the process; in memory where possible,
 * since every input writes and syncs files. Removed at exit. */
inline const std::string& scratch_dir()
{
    static std::string dir = [] {
        const char* base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        std::string tmpl = std::string(base) + "/velafuzz.XXXXXX";
        if (mkdtemp(&tmpl[0]) == nullptr)
            fail("mkdtemp failed");
        static std::string cleanup_cmd = "rm -rf '" + tmpl + "'";
        atexit([] {
            if (system(cleanup_cmd.c_str()) != 0)
                fprintf(stderr, "fuzz: could not remove the scratch folder\n");
        });
        return tmpl;
    }();
    return dir;
}

inline void write_file(const std::string& path, const std::string& text)
{
    FILE* f = fopen(path.c_str(), "wb");
    if (f == nullptr || fwrite(text.data(), 1, text.size(), f) != text.size() || fclose(f) != 0)
        fail("cannot write " + path);
}

/* The file's bytes; false when it does not exist. */
inline bool read_file(const std::string& path, std::string* text)
{
    FILE* f = fopen(path.c_str(), "rb");
    if (f == nullptr)
        return false;
    text->clear();
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0)
        text->append(buf, n);
    fclose(f);
    return true;
}

/* Descriptors are handed out lowest first: if the lowest free one has moved
 * up by the end of an input, the code under test kept one open. (Compared
 * within one input only: the fuzzer itself opens pipes to its symbolizer
 * as it goes.) */
inline int lowest_free_descriptor()
{
    int fd = dup(0);
    if (fd >= 0)
        close(fd);
    return fd;
}

inline void check_descriptors(int before)
{
    int fd = lowest_free_descriptor();
    if (fd != before) {
        char link[256] = "";
        ssize_t n = readlink(("/proc/self/fd/" + std::to_string(before)).c_str(), link, sizeof link - 1);
        link[n > 0 ? n : 0] = '\0';
        fail("a descriptor was left open: " + std::to_string(before) + " -> " + link);
    }
}

/* A small generator, so that one input byte steers a sequence of choices. */
struct Choices {
    uint32_t s;
    explicit Choices(uint32_t seed) : s(seed * 2654435761u + 1) {}
    uint32_t next(uint32_t n)
    {
        s = s * 1103515245u + 12345u;
        return n == 0 ? 0 : (s >> 8) % n;
    }
};

/* Points the program's application-data root (ORVIK_CONFIGPATH) at the
 * scratch folder: the product's folder is then app_folder(), emptied
 * between inputs by clear_app_folder(). */
inline void use_scratch_app_data()
{
    setenv("ORVIK_CONFIGPATH", scratch_dir().c_str(), 1);
}

inline std::string app_folder()
{
    return scratch_dir() + "/Orvik/vela/";
}

inline void clear_app_folder()
{
    DIR* d = opendir(app_folder().c_str());
    if (d == nullptr)
        return;
    std::vector<std::string> names;
    while (struct dirent* e = readdir(d)) {
        if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0)
            names.push_back(e->d_name);
    }
    closedir(d);
    for (const std::string& n : names)
        unlink((app_folder() + n).c_str());
}

} // namespace fz

#endif
