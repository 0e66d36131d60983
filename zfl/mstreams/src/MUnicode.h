/* Byte-order marks at the start of a text. */
#ifndef ZFL_MUNICODE_H
#define ZFL_MUNICODE_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef enum MUnicode_BomType {
    MUNICODE_BOM_TYPE_NONE = 0,
    MUNICODE_BOM_TYPE_UTF8 = 1,     /* EF BB BF */
    MUNICODE_BOM_TYPE_UTF16_BE = 2, /* FE FF */
    MUNICODE_BOM_TYPE_UTF16_LE = 3, /* FF FE */
    MUNICODE_BOM_TYPE_UTF32_BE = 4, /* 00 00 FE FF */
    MUNICODE_BOM_TYPE_UTF32_LE = 5  /* FF FE 00 00 */
} MUnicode_BomType;

/* The mark that the first length bytes of txt begin with. */
MUnicode_BomType MUnicode_GetBomType(const char* txt, size_t length);

/* Length of the mark in bytes (0 for none). */
size_t MUnicode_GetBomLength(MUnicode_BomType type);

#ifdef __cplusplus
}
#endif

#endif
