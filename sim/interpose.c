/* The libc wrappers, generated from wrapped.def. Built without
 * _FORTIFY_SOURCE so that the __*_chk and __*_2 entry points can be defined
 * here as ordinary functions. */
#define _GNU_SOURCE
#undef _FORTIFY_SOURCE

#include <dlfcn.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <sys/ioctl.h>
#include <sys/mman.h>

#include "syscalls.h"

#define SIM_FN(ret, name, params, ...) ret(*sim_real_##name) params;
#define SIM_FN_VA(ret, name, params, ...) ret(*sim_real_##name)(SIM_UNPAREN params, ...);
#include "wrapped.def"
#undef SIM_FN
#undef SIM_FN_VA

const char* const sim_wrapped_names[SIM_WRAP_COUNT] = {
#define SIM_FN(ret, name, ...) #name,
#define SIM_FN_VA(ret, name, ...) #name,
#include "wrapped.def"
#undef SIM_FN
#undef SIM_FN_VA
};

static atomic_ulong call_counts[SIM_WRAP_COUNT];

void sim_count_call(int idx)
{
    atomic_fetch_add_explicit(&call_counts[idx], 1, memory_order_relaxed);
}

unsigned long sim_call_count(int idx)
{
    return idx >= 0 && idx < SIM_WRAP_COUNT ? atomic_load(&call_counts[idx]) : 0;
}

void sim_resolve_real(void)
{
#define SIM_FN(ret, name, ...) *(void**)&sim_real_##name = dlsym(RTLD_NEXT, #name);
#define SIM_FN_VA(ret, name, ...) *(void**)&sim_real_##name = dlsym(RTLD_NEXT, #name);
#include "wrapped.def"
#undef SIM_FN
#undef SIM_FN_VA
}

#define SIM_FN(ret, name, params, rargs, handler, hargs)                      \
    ret name params                                                           \
    {                                                                         \
        ret r_;                                                               \
        sim_count_call(SIM_IDX_##name);                                       \
        if (handler(&r_, SIM_UNPAREN hargs))                                  \
            return r_;                                                        \
        return SIM_REAL(name) rargs;                                          \
    }

#define SIM_FN_VA(ret, name, params, last, vtype, vname, rargs, handler, hargs) \
    ret name(SIM_UNPAREN params, ...)                                         \
    {                                                                         \
        ret r_;                                                               \
        va_list ap;                                                           \
        va_start(ap, last);                                                   \
        vtype vname = va_arg(ap, vtype);                                      \
        va_end(ap);                                                           \
        sim_count_call(SIM_IDX_##name);                                       \
        if (handler(&r_, SIM_UNPAREN hargs))                                  \
            return r_;                                                        \
        return SIM_REAL(name) rargs;                                          \
    }

#include "wrapped.def"
