/*
 * Assembler for the AM335x PRU cores: turns one source file into the code
 * and data images that the program loads into a PRU (8192 bytes each), plus
 * a listing. The syntax is described in tools/pruasm/README.md.
 *
 * The library is used by the build (through the `pruasm` program) and by
 * tests that run assembled snippets on the simulated PRU core.
 */
#ifndef PRUASM_H
#define PRUASM_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace pruasm {

/* Size of a PRU's instruction RAM and of its data RAM image. */
constexpr uint32_t kImageSize = 8192;
/* Fills the code image wherever nothing was assembled, so that a stray
 * jump stops the core. */
constexpr uint32_t kHalt = 0x2A000000;

struct Output {
    std::vector<uint8_t> text; /* code image, kImageSize bytes */
    std::vector<uint8_t> data; /* data image, kImageSize bytes, zero-filled */
    /* Every source line, with the byte address and the word(s) it produced. */
    std::string listing;
    /* "file:line: message", in line order; empty when the source assembled. */
    std::vector<std::string> errors;
    /* Byte address of the label named by `.entry`, if there is one. */
    std::optional<uint32_t> entry;

    bool ok() const { return errors.empty(); }
};

/*
 * Assembles `source`; `filename` names it in errors and in the listing.
 * With `entry` (the byte address the loader starts the core at) the source
 * must declare its entry label with `.entry` and that label must be there.
 * The images are always full size; they are meaningful only when ok().
 */
Output assemble(std::string_view source, std::string_view filename,
                std::optional<uint32_t> entry = std::nullopt);

/* The little-endian word at byte address `addr` of an image. */
uint32_t word_at(const std::vector<uint8_t>& image, uint32_t addr);

} // namespace pruasm

#endif
