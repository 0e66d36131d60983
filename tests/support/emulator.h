/* Programs built for another machine (the armhf build) run under the
 * emulator the build names (qemu-arm): the container has no binfmt entry
 * that would start them by themselves. */
#pragma once

#include <string>
#include <vector>

namespace vt {

/* argv, with the emulator's words in front when argv[0] is a program for
 * another machine than this one. */
std::vector<std::string> emulated(const std::vector<std::string>& argv);

} // namespace vt
