/* Base64: both encoders (the scan's sample lines and the library's) give
 * the same text, of the standard alphabet, that decodes to the bytes; the
 * library's decoder is strict on arbitrary text: what it accepts is the one
 * text that encodes the bytes it gives (padding bits zero, '=' only at the
 * end), so that a sample line means one thing.
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

const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=";

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

/* An encoder given the room for text, or less: the text, or a refusal
 * that writes nothing. */
void check_encoder(const char* name, bool (*encode)(const unsigned char*, size_t, char*, size_t*),
                   const unsigned char* data, size_t size, uint8_t selector, const std::string& text)
{
    const size_t cap = capacity_for(selector, text.size());
    std::string dest(cap + 8, kCanary);
    size_t len = cap;
    bool ok = encode(data, size, &dest[0], &len);
    if (cap < text.size()) {
        fz::check(!ok, name);
        fz::check(len == cap, "a refused encoding changed the length");
        fz::check(dest.find_first_not_of(kCanary) == std::string::npos, "a refused encoding wrote");
        return;
    }
    fz::check(ok && len == text.size() && dest.compare(0, len, text) == 0, "the encoders disagree");
    for (size_t i = len; i < dest.size(); i++)
        fz::check(dest[i] == kCanary, "the encoder wrote past its text");
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

    std::string text, back;
    fz::check(MBase64_Encode(data, size, &text), "string encoding failed");
    fz::check(text.size() == 4 * ((size + 2) / 3), "encoded length");
    fz::check(text.find_first_not_of(kAlphabet) == std::string::npos, "encoded text outside the alphabet");
    fz::check(MBase64_Decode(text.data(), text.size(), &back), "decoding an encoding failed");
    fz::check(back == std::string(reinterpret_cast<const char*>(data), size), "round trip changed the bytes");
    check_encoder("scan encoder accepted a small target", scan_encoder, data, size, selector, text);
    check_encoder("library encoder accepted a small target", library_encoder, data, size, selector, text);

    /* the library's decoder on the data taken as text */
    const std::string as_text(reinterpret_cast<const char*>(data), size);
    std::string expected;
    const bool valid = MBase64_Decode(as_text.data(), as_text.size(), &expected);
    std::string again;
    fz::check(!valid || (MBase64_Encode(expected.data(), expected.size(), &again) && again == as_text),
              "the decoder accepted text that is not the encoding of what it gave");

    /* the same into a buffer of the chosen capacity */
    const size_t cap = capacity_for(static_cast<uint8_t>(selector >> 2), expected.size());
    std::string buf(cap + 8, kCanary);
    size_t len = cap;
    bool ok = MBase64_Decode(as_text.data(), as_text.size(), &buf[0], &len);
    if (!valid) {
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
