/* The operating counters: arbitrary 28-byte blocks through the CRC update
 * and check (every bit behind the CRC counts), arbitrary text as the INI
 * mirror through its reader, and the round trip block -> mirror -> counters.
 *
 * Input: 28 bytes of block (zeros where the input is shorter), then the
 * mirror file. The mirror lives in a scratch application-data folder; the
 * RAM block's fixed device path is never touched. */
#include <stdlib.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "MIniData.h"
#include "fuzz_support.h"
#include "mtrace.h"
#include "nv.h"

namespace {

const size_t kBlock = sizeof(struct nv_state_s);

bool same_counters(const nv_state_s& a, const nv_state_s& b)
{
    return a.uptime == b.uptime && a.uptime_eco == b.uptime_eco && a.meas_cycles == b.meas_cycles &&
           a.batt_cycles == b.batt_cycles && a.batt_cycle_state == b.batt_cycle_state;
}

/* Every line of the sections other than the counters', in file order. */
std::string other_sections(const std::string& path)
{
    MIniData doc(0);
    fz::check(doc.Open(path.c_str()), "the mirror does not open");
    std::string text;
    for (const std::string& name : doc.GetSectionNames()) {
        if (name == "uptime" || name == "cyclecounter")
            continue;
        for (const MIniDataLine* line : doc.GetSectionPtr(name)->GetLineVec())
            text += *line->GetLinePtr() + "\n";
    }
    return text;
}

void check_block(const unsigned char* block, uint8_t flip)
{
    nv_state_s nv;
    memcpy(&nv, block, kBlock);
    fz::check(nv_update_crc(&nv) == 0, "nv_update_crc failed");
    fz::check(memcmp(reinterpret_cast<const unsigned char*>(&nv) + 4, block + 4, kBlock - 4) == 0,
          "the CRC update changed the counters");
    fz::check(nv_crc_ok(&nv) == 1, "an updated block fails its check");

    /* any one changed bit behind the CRC is noticed */
    unsigned char* bytes = reinterpret_cast<unsigned char*>(&nv);
    bytes[4 + flip % (kBlock - 4)] ^= static_cast<unsigned char>(1u << (flip / (kBlock - 4) % 8));
    fz::check(nv_crc_ok(&nv) == 0, "a changed bit passes the CRC check");
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
    unsigned char block[kBlock] = {0};
    memcpy(block, data, size < kBlock ? size : kBlock);
    const std::string text = size > kBlock ? std::string(reinterpret_cast<const char*>(data) + kBlock, size - kBlock)
                                           : std::string();
    check_block(block, size > 0 ? data[size - 1] : 0);

    fz::clear_app_folder();
    const std::string path = fz::app_folder() + "nv_state.ini";
    if (!text.empty()) {
        nv_state_s dummy;
        nv_read_ini(&dummy); /* creates the folder */
        fz::write_file(path, text);
    }

    /* The mirror as the reader finds it: a file that does not parse is kept
     * aside and replaced by one that does. */
    MIniData probe(0);
    const bool parses = probe.Open(path.c_str());
    nv_state_s mirror;
    memset(&mirror, 0x5a, sizeof mirror);
    fz::check(nv_read_ini(&mirror) == 0, "nv_read_ini failed");
    fz::check(mirror.ver == 0 && mirror.crc == 0, "nv_read_ini left fields unset");
    std::string after;
    fz::check(fz::read_file(path, &after), "no mirror after reading");
    if (!text.empty() && parses) {
        fz::check(after == text, "reading changed a good mirror");
        long v;
        fz::check(probe.GetLongEntry("cyclecounter", "meas", &v) ? mirror.meas_cycles == static_cast<uint32_t>(v)
                                                               : mirror.meas_cycles == 0,
              "meas read wrongly");
        fz::check(probe.GetLongEntry("cyclecounter", "batts", &v)
                  ? mirror.batt_cycle_state == static_cast<uint8_t>(v)
                  : mirror.batt_cycle_state == 0,
              "batts read wrongly");
    } else if (!text.empty()) {
        std::string bad;
        fz::check(fz::read_file(path + ".bad", &bad) && bad == text, "an unreadable mirror was not kept aside");
    }
    const std::string others = other_sections(path);

    /* What start-up writes to the mirror: the block when it is valid,
     * otherwise what the mirror held. Reading it back gives the same. */
    nv_state_s source;
    memcpy(&source, block, kBlock);
    const bool valid = nv_crc_ok(&source) == 1 && source.ver == 1;
    if (!valid)
        source = mirror;
    fz::check(nv_write_ini(&source) == 0, "nv_write_ini failed");
    nv_state_s back;
    fz::check(nv_read_ini(&back) == 0, "nv_read_ini after writing failed");
    fz::check(same_counters(back, source), "the mirror does not read back what was written");
    fz::check(other_sections(path) == others, "writing the mirror changed other sections");

    fz::check_descriptors(descriptors);
    MErrTrace_ClearContext();
    return 0;
}
