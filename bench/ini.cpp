/*
 * INI document: load, edit five values, save.
 *
 *   bench_ini [entries [runs]]     defaults: 10000 entries, 20 runs
 *
 * Prints the mean time of each step for the given size and for ten times
 * that size: the time per entry should stay about the same (the model is
 * linear in the file size). Flags 0x00 save by truncate and write; 0x18
 * (the configuration file's) add a temporary file, fsync and rename, so
 * their save time mostly measures the disk.
 */
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

#include "MIniData.h"
#include "fastfile.h"

namespace {

using Clock = std::chrono::steady_clock;

double ms_since(Clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

/* 100 entries per section, with the comments and spacing of a hand-kept file */
std::string make_document(int entries)
{
    std::string text = "; generated for the benchmark\n\n";
    char line[96];
    for (int i = 0; i < entries; i++) {
        if (i % 100 == 0) {
            snprintf(line, sizeof line, "\n[section%05d]\n; values of block %d\n", i / 100, i / 100);
            text += line;
        }
        if (i % 3 == 0)
            snprintf(line, sizeof line, "key%05d = %d ; note\n", i, i * 7);
        else
            snprintf(line, sizeof line, "value%05d=%.6f\n", i, i * 0.001);
        text += line;
    }
    return text;
}

bool run(const std::string& path, int entries, int flags, int runs)
{
    std::string text = make_document(entries);
    if (MFastFile_WriteAtOnce(path.c_str(), text.data(), static_cast<unsigned int>(text.size()),
                              MFASTFILE_MODE_CREATE) < 0)
        return false;
    double load = 0, edit = 0, save = 0;
    for (int r = 0; r < runs; r++) {
        MIniData doc(flags);
        Clock::time_point t = Clock::now();
        if (!doc.Open(path.c_str()))
            return false;
        load += ms_since(t);

        t = Clock::now();
        bool ok = doc.SetDoubleEntry("section00000", "value00001", r * 0.5) &&
                  doc.SetLongEntry("section00042", "key04200", r) &&
                  doc.SetStringEntry("section00017", "value01702", "edited") &&
                  doc.SetLongEntry("section00099", "added", r) &&
                  doc.SetStringEntry("zz_new", "count", std::to_string(r));
        edit += ms_since(t);

        t = Clock::now();
        if (!ok || !doc.Save())
            return false;
        save += ms_since(t);
    }
    printf("%8d  0x%02x  %9.2f  %9.3f  %9.2f  %8.3f  %4d\n", entries, flags, load / runs, edit * 1000 / runs,
           save / runs, (load + save) * 1000 / runs / entries, runs);
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    int entries = argc > 1 ? atoi(argv[1]) : 10000;
    int runs = argc > 2 ? atoi(argv[2]) : 20;
    if (entries < 100 || runs < 1) {
        fprintf(stderr, "usage: %s [entries (>= 100) [runs]]\n", argv[0]);
        return 2;
    }
    char dir[] = "/tmp/bench_ini.XXXXXX";
    if (mkdtemp(dir) == nullptr) {
        perror("mkdtemp");
        return 1;
    }
    std::string path = std::string(dir) + "/bench.ini";

    printf(" entries  flags  load ms    edit us    save ms   us/entry  runs\n");
    bool ok = run(path, entries, 0, runs) && run(path, entries, 0x18, runs) &&
              run(path, entries * 10, 0, runs > 4 ? runs / 4 : 1);
    unlink(path.c_str());
    rmdir(dir);
    if (!ok) {
        fprintf(stderr, "benchmark step failed\n");
        return 1;
    }
    return 0;
}
