#include "emulator.h"

#include <elf.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>

namespace vt {

namespace {

#ifdef VELA_EMULATOR
/* The launcher runs the program under the same emulator. */
const bool launcher_told = setenv("VELASIM_EMULATOR", VELA_EMULATOR, 1) == 0;

bool foreign_program(const std::string& path)
{
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    unsigned char ident[EI_NIDENT + 4] = {};
    bool read_all = read(fd, ident, sizeof ident) == static_cast<ssize_t>(sizeof ident);
    close(fd);
    /* e_machine follows e_type, right after the identification bytes. */
    return read_all && ident[EI_MAG0] == ELFMAG0 && ident[EI_MAG1] == ELFMAG1 && ident[EI_MAG2] == ELFMAG2 &&
           ident[EI_MAG3] == ELFMAG3 && ident[EI_DATA] == ELFDATA2LSB && ident[EI_NIDENT + 2] == EM_ARM;
}
#endif

} // namespace

std::vector<std::string> emulated(const std::vector<std::string>& argv)
{
#ifdef VELA_EMULATOR
    if (!argv.empty() && launcher_told && foreign_program(argv[0])) {
        std::vector<std::string> out;
        std::istringstream words(VELA_EMULATOR);
        for (std::string w; words >> w;)
            out.push_back(w);
        out.insert(out.end(), argv.begin(), argv.end());
        return out;
    }
#endif
    return argv;
}

} // namespace vt
