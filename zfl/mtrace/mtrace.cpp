#include "mtrace.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <syslog.h>
#include <unistd.h>
#include <vector>

namespace {

std::atomic<int> g_level{MTRACE_LEVEL_DEFAULT};

/* The location a macro announced for the next message of this thread. */
struct location {
    const char* file = nullptr;
    int line = 0;
    const char* func = nullptr;
    int level = -1;
};

thread_local location t_trace_loc;
thread_local location t_errlog_loc;
thread_local location t_errtrace_loc;

/* Pending error trace of this thread; bounded so that a caller that never
 * clears it cannot make it grow without end. */
constexpr size_t kErrTraceMax = 64;
thread_local std::vector<std::string> t_errtrace;
thread_local std::vector<size_t> t_errtrace_marks;

bool is_default_domain(const char* domain)
{
    return domain != nullptr && strcmp(domain, MTRACE_DOMAIN) == 0;
}

const char* base_name(const char* path)
{
    if (path == nullptr)
        return "?";
    const char* slash = strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

/* Formats into buf (always terminated), cuts trailing line ends and turns
 * inner ones into blanks so that every message stays one line. */
void format_text(char* buf, size_t size, const char* fmt, va_list ap)
{
    int n = vsnprintf(buf, size, fmt, ap);
    if (n < 0) {
        snprintf(buf, size, "(bad format \"%.40s\")", fmt);
    }
    size_t len = strlen(buf);
    while (len > 0 && (buf[len - 1] == '\n' || buf[len - 1] == '\r'))
        buf[--len] = '\0';
    for (size_t i = 0; i < len; i++) {
        if (buf[i] == '\n' || buf[i] == '\r')
            buf[i] = ' ';
    }
}

void format_time(char* buf, size_t size)
{
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    struct tm tm;
    localtime_r(&ts.tv_sec, &tm);
    size_t n = strftime(buf, size, "%Y-%m-%d %H:%M:%S", &tm);
    snprintf(buf + n, size - n, ".%06ld", static_cast<long>(ts.tv_nsec / 1000));
}

/* One write() per line so that lines of several threads do not interleave. */
void emit_line(const char* tag, const location& loc, const char* text)
{
    char ts[40];
    format_time(ts, sizeof ts);
    char line[MTRACE_LINE_MAX + 256];
    int n;
    if (loc.file != nullptr)
        n = snprintf(line, sizeof line, "%s [%s] %s:%d: %s\n", ts, tag, base_name(loc.file), loc.line, text);
    else
        n = snprintf(line, sizeof line, "%s [%s] %s\n", ts, tag, text);
    if (n < 0)
        return;
    size_t len = static_cast<size_t>(n) < sizeof line ? static_cast<size_t>(n) : sizeof line - 1;
    if (line[len - 1] != '\n')
        line[len - 1] = '\n';
    ssize_t w = write(STDERR_FILENO, line, len);
    (void)w;
}

void errlog_text(const location& loc, const char* text)
{
    emit_line("ERR", loc, text);
    syslog(LOG_ERR, "%s", text);
}

} // namespace

extern "C" {

int _MTrace_TestLevel(const char* domain, int level)
{
    return is_default_domain(domain) && level <= g_level.load(std::memory_order_relaxed);
}

int _MTrace_SetLevel(const char* domain, int level)
{
    if (!is_default_domain(domain))
        return -1;
    if (level < MTRACE_LEVEL_MIN)
        level = MTRACE_LEVEL_MIN;
    if (level > MTRACE_LEVEL_MAX)
        level = MTRACE_LEVEL_MAX;
    g_level.store(level, std::memory_order_relaxed);
    return 0;
}

int _MTrace_GetLevel(const char* domain)
{
    return is_default_domain(domain) ? g_level.load(std::memory_order_relaxed) : -1;
}

void _MTrace_Location(const char* /*domain*/, int level, const char* file, int line, const char* func)
{
    t_trace_loc = location{file, line, func, level};
}

void _MTrace_Always(const char* fmt, ...)
{
    char text[MTRACE_LINE_MAX];
    va_list ap;
    va_start(ap, fmt);
    format_text(text, sizeof text, fmt, ap);
    va_end(ap);

    location loc = t_trace_loc;
    t_trace_loc = location{};
    char tag[4] = "A";
    if (loc.level >= 0 && loc.level <= 9) {
        tag[0] = static_cast<char>('0' + loc.level);
    }
    emit_line(tag, loc, text);
}

void _MErrLog_Location(const char* file, int line, const char* func)
{
    t_errlog_loc = location{file, line, func, -1};
}

void _MErrLog_Add(const char* fmt, ...)
{
    char text[MTRACE_LINE_MAX];
    va_list ap;
    va_start(ap, fmt);
    format_text(text, sizeof text, fmt, ap);
    va_end(ap);

    location loc = t_errlog_loc;
    t_errlog_loc = location{};
    errlog_text(loc, text);
}

void _MErrTrace_Location(const char* file, int line, const char* func)
{
    t_errtrace_loc = location{file, line, func, -1};
}

void _MErrTrace_Add(const char* fmt, ...)
{
    char text[MTRACE_LINE_MAX];
    va_list ap;
    va_start(ap, fmt);
    format_text(text, sizeof text, fmt, ap);
    va_end(ap);

    location loc = t_errtrace_loc;
    t_errtrace_loc = location{};
    char line[MTRACE_LINE_MAX + 128];
    if (loc.file != nullptr)
        snprintf(line, sizeof line, "%s:%d: %s", base_name(loc.file), loc.line, text);
    else
        snprintf(line, sizeof line, "%s", text);

    if (t_errtrace.size() >= kErrTraceMax) {
        t_errtrace.erase(t_errtrace.begin());
        for (size_t& mark : t_errtrace_marks) {
            if (mark > 0)
                mark--;
        }
    }
    t_errtrace.emplace_back(line);
}

void _MErrTrace_DumpContextToMErrLog(void)
{
    for (const std::string& line : t_errtrace)
        errlog_text(location{}, line.c_str());
    t_errtrace.clear();
    for (size_t& mark : t_errtrace_marks)
        mark = 0;
}

void MErrTrace_BeginContext(void)
{
    t_errtrace_marks.push_back(t_errtrace.size());
}

/* Ending a context without dumping it means the failures it collected were
 * handled: they are dropped. */
void MErrTrace_EndContext(void)
{
    if (t_errtrace_marks.empty())
        return;
    size_t mark = t_errtrace_marks.back();
    t_errtrace_marks.pop_back();
    if (mark < t_errtrace.size())
        t_errtrace.resize(mark);
}

void MErrTrace_ClearContext(void)
{
    size_t mark = t_errtrace_marks.empty() ? 0 : t_errtrace_marks.back();
    if (mark < t_errtrace.size())
        t_errtrace.resize(mark);
}

size_t MErrTrace_GetCount(void)
{
    return t_errtrace.size();
}

int MErrTrace_GetLine(size_t i, char* buf, size_t size)
{
    if (i >= t_errtrace.size() || buf == nullptr || size == 0)
        return 0;
    snprintf(buf, size, "%s", t_errtrace[i].c_str());
    return 1;
}

} // extern "C"
