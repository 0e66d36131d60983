#include "MUnicode.h"

#include <cstring>

namespace {

struct bom {
    MUnicode_BomType type;
    const char* bytes;
    size_t length;
};

/* Longest marks first: the UTF-32 little-endian mark FF FE 00 00 begins with
 * the UTF-16 little-endian mark FF FE and must be tried before it. (A UTF-16
 * little-endian text that starts with U+0000 reads as UTF-32; such texts do
 * not occur in practice.) */
const bom kBoms[] = {
    {MUNICODE_BOM_TYPE_UTF32_BE, "\x00\x00\xFE\xFF", 4},
    {MUNICODE_BOM_TYPE_UTF32_LE, "\xFF\xFE\x00\x00", 4},
    {MUNICODE_BOM_TYPE_UTF8, "\xEF\xBB\xBF", 3},
    {MUNICODE_BOM_TYPE_UTF16_BE, "\xFE\xFF", 2},
    {MUNICODE_BOM_TYPE_UTF16_LE, "\xFF\xFE", 2},
};

} // namespace

extern "C" {

MUnicode_BomType MUnicode_GetBomType(const char* txt, size_t length)
{
    if (txt == nullptr)
        return MUNICODE_BOM_TYPE_NONE;
    for (const bom& b : kBoms) {
        if (length >= b.length && memcmp(txt, b.bytes, b.length) == 0)
            return b.type;
    }
    return MUNICODE_BOM_TYPE_NONE;
}

size_t MUnicode_GetBomLength(MUnicode_BomType type)
{
    for (const bom& b : kBoms) {
        if (b.type == type)
            return b.length;
    }
    return 0;
}

} // extern "C"
