#include "simtest.h"

#include "simrun.h"

namespace vt {

std::vector<std::string> entries(const std::string& needle)
{
    return grep(sim::journal_entries(), needle);
}

} // namespace vt
