/*
 * pruasm [--entry ADDR] -o PREFIX FILE.asm
 *
 * Writes PREFIX_text.bin and PREFIX_data.bin (8192 bytes each) and the
 * listing PREFIX.lst. On any error it prints every error as "file:line:
 * message", removes those outputs (so that no stale image is linked) and
 * exits 1.
 */
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

#include "pruasm.h"

namespace {

int usage()
{
    std::cerr << "usage: pruasm [--entry BYTEADDR] -o OUTPREFIX FILE.asm\n";
    return 2;
}

/* Written beside the target and renamed over it, so a reader never sees half a file. */
bool write_file(const std::string& path, const void* data, size_t size)
{
    std::string tmp = path + ".tmp";
    std::ofstream f(tmp, std::ios::binary | std::ios::trunc);
    f.write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
    f.close();
    if (!f || std::rename(tmp.c_str(), path.c_str()) != 0) {
        std::cerr << "pruasm: cannot write " << path << ": " << std::strerror(errno) << "\n";
        std::remove(tmp.c_str());
        return false;
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    std::string prefix, input;
    std::optional<uint32_t> entry;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--entry" && i + 1 < argc) {
            char* end = nullptr;
            unsigned long v = std::strtoul(argv[++i], &end, 0);
            if (*end != '\0' || v >= pruasm::kImageSize || v % 4 != 0) {
                std::cerr << "pruasm: --entry " << argv[i] << " is not a word address inside the image\n";
                return 2;
            }
            entry = static_cast<uint32_t>(v);
        } else if (a == "-o" && i + 1 < argc) {
            prefix = argv[++i];
        } else if (!a.empty() && a[0] != '-' && input.empty()) {
            input = a;
        } else {
            return usage();
        }
    }
    if (prefix.empty() || input.empty())
        return usage();

    std::ifstream in(input, std::ios::binary);
    if (!in) {
        std::cerr << "pruasm: cannot read " << input << ": " << std::strerror(errno) << "\n";
        return 1;
    }
    std::stringstream source;
    source << in.rdbuf();

    const std::string outputs[] = {prefix + "_text.bin", prefix + "_data.bin", prefix + ".lst"};
    pruasm::Output out = pruasm::assemble(source.str(), input, entry);
    if (!out.ok()) {
        for (const std::string& e : out.errors)
            std::cerr << e << "\n";
        for (const std::string& path : outputs)
            std::remove(path.c_str());
        return 1;
    }
    bool ok = write_file(outputs[0], out.text.data(), out.text.size()) &&
              write_file(outputs[1], out.data.data(), out.data.size()) &&
              write_file(outputs[2], out.listing.data(), out.listing.size());
    return ok ? 0 : 1;
}
