/* The configuration read at start-up: arbitrary text as velatool.ini through
 * locating and opening (defaults for missing sections, a file that does not
 * parse kept aside) and reading the values with their clamps and the one-time
 * calibration patch.
 *
 * Every clamped value must lie in its range, the file must parse afterwards,
 * and a second start must find the same values and leave the file alone.
 *
 * Input: the file. The application-data folder is a scratch folder. */
#include <stdlib.h>

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "MIniData.h"
#include "fuzz_support.h"
#include "mtrace.h"
#include "remote.h"
#include "util.h"

namespace {

/* One start: open and read into a zeroed state record; the document is
 * released again. */
state_s start()
{
    state = state_s{};
    fz::check(util_ini_open() == 0, "util_ini_open failed");
    util_ini_read();
    state_s s = state;
    MIniData_Destroy(state.h_ini);
    state.h_ini = nullptr;
    s.h_ini = nullptr;
    return s;
}

bool same(double a, double b)
{
    return (std::isnan(a) && std::isnan(b)) || memcmp(&a, &b, sizeof a) == 0;
}

void check_same(const state_s& a, const state_s& b)
{
    fz::check(same(a.x_corr, b.x_corr), "x_corr differs on the next start");
    fz::check(a.skip_samples == b.skip_samples, "skip_samples differs on the next start");
    fz::check(a.w_offset == b.w_offset, "w_offset differs on the next start");
    fz::check(same(a.w_scale, b.w_scale), "w_scale differs on the next start");
    fz::check(same(a.f, b.f), "f differs on the next start");
    fz::check(same(a.vbatt_low_threshold, b.vbatt_low_threshold) && same(a.vbatt_crit_threshold, b.vbatt_crit_threshold) &&
              same(a.vbatt_hysteresis, b.vbatt_hysteresis) &&
              same(a.vbatt_cycle_low_threshold, b.vbatt_cycle_low_threshold) &&
              same(a.vbatt_cycle_high_threshold, b.vbatt_cycle_high_threshold) &&
              same(a.vbatt_almost_full_threshold, b.vbatt_almost_full_threshold),
          "a battery threshold differs on the next start");
    fz::check(a.suspend_interval_time == b.suspend_interval_time, "suspend_interval_time differs on the next start");
    fz::check(a.remotetest == b.remotetest, "remotetest differs on the next start");
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fz::use_scratch_app_data();
    _MTrace_SetLevel("default", 0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const int descriptors = fz::lowest_free_descriptor();
    const std::string text(reinterpret_cast<const char*>(data), size);
    fz::clear_app_folder();
    start(); /* creates the folder */
    fz::clear_app_folder();
    const std::string path = fz::app_folder() + "velatool.ini";
    fz::write_file(path, text);

    const state_s first = start();
    std::string saved;
    fz::check(fz::read_file(path, &saved), "no configuration file after start-up");
    MIniData doc(MINIDATA_FLAG_FSYNC | MINIDATA_FLAG_ATOMIC_SAVE);
    fz::check(doc.Open(path.c_str()), "the configuration does not parse after start-up: " + doc.GetLastErrorString());
    /* the clamps against the file as it now stands (a section that was
     * missing came in with its defaults) */
    double d;
    double want_x = doc.DoesSectionExist("motor") ? 0.0 : 1.0;
    if (doc.GetDoubleEntry("motor", "x_corr", &d))
        want_x = d >= 0.7 && d <= 1.3 ? d : 1.0;
    fz::check(same(first.x_corr, want_x), "x_corr " + std::to_string(first.x_corr) + ", expected " + std::to_string(want_x));
    long l;
    long want_s = 600;
    if (doc.GetLongEntry("battery", "suspend_interval_time", &l))
        want_s = l < 10 ? 10 : l > INT_MAX ? INT_MAX : l;
    fz::check(first.suspend_interval_time == want_s, "suspend_interval_time " + std::to_string(first.suspend_interval_time) +
                                                     ", expected " + std::to_string(want_s));

    const state_s second = start();
    check_same(first, second);
    std::string again;
    fz::check(fz::read_file(path, &again) && again == saved, "the next start changed the file");

    fz::check_descriptors(descriptors);
    MErrTrace_ClearContext();
    return 0;
}
