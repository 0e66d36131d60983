/* Base64: both encoders (the scan's sample lines and the library's) against
 * an independent decoder written from the standard alphabet and padding
 * rules; the library's decoder against the same decoder on arbitrary text.
 *
 * Input: first byte selects how much of the target capacity to offer (to
 * reach the "too small" paths), the rest is the data. */
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "base64.h"
#include "fuzz_support.h"
#include "mtrace.h"
#include "scanmove.h"

namespace {

int value_of(unsigned char c)
{
    if (c >= 'A' && c <= 'Z')
        return c - 'A';
    if (c >= 'a' && c <= 'z')
        return c - 'a' + 26;
    if (c >= '0' && c <= '9')
        return c - '0' + 52;
    if (c == '+')
        return 62;
    if (c == '/')
        return 63;
    return -1;
}

/* Strict decoding of padded text: groups of four, '=' only as the last one
 * or two characters of the last group, and the bits that the padding drops
 * must be zero (only one text then decodes to given bytes). */
bool reference_decode(const std::string& text, std::string* out)
{
    out->clear();
    if (text.size() % 4 != 0)
        return false;
    for (size_t i = 0; i < text.size(); i += 4) {
        bool last = i + 4 == text.size();
        int v[4];
        int pad = 0;
        for (int k = 0; k < 4; k++) {
            unsigned char c = static_cast<unsigned char>(text[i + static_cast<size_t>(k)]);
            if (c == '=' && last && k >= 2) {
                v[k] = 0;
                pad++;
                continue;
            }
            if (pad > 0) /* a character after padding */
                return false;
            v[k] = value_of(c);
            if (v[k] < 0)
                return false;
        }
        uint32_t group = static_cast<uint32_t>(v[0]) << 18 | static_cast<uint32_t>(v[1]) << 12 |
                         static_cast<uint32_t>(v[2]) << 6 | static_cast<uint32_t>(v[3]);
        if (pad == 2 && (group & 0xffff) != 0)
            return false;
        if (pad == 1 && (group & 0xff) != 0)
            return false;
        out->push_back(static_cast<char>(group >> 16));
        if (pad < 2)
            out->push_back(static_cast<char>(group >> 8));
        if (pad < 1)
            out->push_back(static_cast<char>(group));
    }
    return true;
}

/* Capacity offered to an encoder: exact, one short, or generous. */
size_t capacity_for(uint8_t selector, size_t need)
{
    switch (selector % 4) {
    case 0:
        return need;
    case 1:
        return need == 0 ? 0 : need - 1;
    case 2:
        return need + 7;
    default:
        return need / 2;
    }
}

const char kCanary = '\x5a';

void check_encoder(const char* name, bool (*encode)(const unsigned char*, size_t, char*, size_t*),
                   const unsigned char* data, size_t size, uint8_t selector)
{
    const size_t need = 4 * ((size + 2) / 3);
    const size_t cap = capacity_for(selector, need);
    std::string dest(cap + 8, kCanary);
    size_t len = cap;
    bool ok = encode(data, size, &dest[0], &len);
    if (cap < need) {
        fz::check(!ok, name);
        fz::check(len == cap, "a refused encoding changed the length");
        fz::check(dest.find_first_not_of(kCanary) == std::string::npos, "a refused encoding wrote");
        return;
    }
    fz::check(ok, "an encoding with room failed");
    fz::check(len == need, "encoded length");
    for (size_t i = len; i < dest.size(); i++)
        fz::check(dest[i] == kCanary, "the encoder wrote past its text");
    std::string decoded;
    fz::check(reference_decode(dest.substr(0, len), &decoded), "encoded text is not valid base64");
    fz::check(decoded.size() == size && memcmp(decoded.data(), data, size) == 0, "encoded text decodes to other bytes");
}

bool scan_encoder(const unsigned char* data, size_t size, char* dest, size_t* len)
{
    return base64_encode(data, size, dest, len) != nullptr;
}

bool library_encoder(const unsigned char* data, size_t size, char* dest, size_t* len)
{
    return MBase64_Encode(data, size, dest, len);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* input, size_t size)
{
    if (size == 0)
        return 0;
    const uint8_t selector = input[0];
    const unsigned char* data = input + 1;
    size--;

    check_encoder("scan encoder accepted a small target", scan_encoder, data, size, selector);
    check_encoder("library encoder accepted a small target", library_encoder, data, size, selector);

    /* the library's round trip through strings */
    std::string text;
    fz::check(MBase64_Encode(data, size, &text), "string encoding failed");
    std::string back;
    fz::check(MBase64_Decode(text.data(), text.size(), &back), "decoding an encoding failed");
    fz::check(back.size() == size && memcmp(back.data(), data, size) == 0, "round trip changed the bytes");

    /* the library's decoder on the data taken as text */
    const std::string as_text(reinterpret_cast<const char*>(data), size);
    std::string expected;
    bool expected_ok = reference_decode(as_text, &expected);
    std::string got;
    bool got_ok = MBase64_Decode(as_text.data(), as_text.size(), &got);
    fz::check(got_ok == expected_ok, "decoder and reference disagree on validity");
    if (got_ok)
        fz::check(got == expected, "decoder and reference disagree on the bytes");

    /* the same into a buffer of the chosen capacity */
    const size_t cap = capacity_for(static_cast<uint8_t>(selector >> 2), expected.size());
    std::string buf(cap + 8, kCanary);
    size_t len = cap;
    bool ok = MBase64_Decode(as_text.data(), as_text.size(), &buf[0], &len);
    if (!expected_ok) {
        fz::check(!ok, "decoder accepted invalid text into a buffer");
    } else if (cap < expected.size()) {
        fz::check(!ok && len == cap, "decoder accepted a small target");
        fz::check(buf.find_first_not_of(kCanary) == std::string::npos, "a refused decoding wrote");
    } else {
        fz::check(ok && len == expected.size() && buf.compare(0, len, expected) == 0, "decoding into a buffer");
        for (size_t i = len; i < buf.size(); i++)
            fz::check(buf[i] == kCanary, "the decoder wrote past its bytes");
    }
    MErrTrace_ClearContext();
    return 0;
}
