/* Checks on the pending error trace of the calling thread. */
#ifndef VELA_TEST_ERRTRACE_MATCH_H
#define VELA_TEST_ERRTRACE_MATCH_H

#include <cstring>
#include <string>

#include "mtrace.h"

/* True if a pending error-trace line contains text. */
inline bool trace_has(const std::string& text)
{
    char line[2048];
    for (size_t i = 0; i < MErrTrace_GetCount(); i++) {
        if (MErrTrace_GetLine(i, line, sizeof line) && strstr(line, text.c_str()) != nullptr)
            return true;
    }
    return false;
}

#endif
