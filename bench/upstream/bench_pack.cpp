#include <cstdio>

#include "kel/directory.h"
#include "kelcore/archive.h"

/// bench_pack FOLDER ARCHIVE: packs the files of a folder in the way in which the push thread packs upstream
/// files. Used by packing.py.
int main(int count, char** arguments) {
    if (count != 3) {
        std::fprintf(stderr, "usage: bench_pack FOLDER ARCHIVE\n");
        return 2;
    }
    const KelString folder = arguments[1];
    constexpr int kLevel = 6;
    GenericArchive archive(kArchiveZip);
    bool good = archive.Create(arguments[2]) == kArchiveDone;
    for (const KelString& name : DirList(folder))
        good = good && archive.AddEntry("upstream/" + name, folder + "/" + name, kLevel) == kArchiveDone;
    good = good && archive.Close() == kArchiveDone;
    if (!good) std::fprintf(stderr, "%s\n", archive.GetErrorText().c_str());
    return good ? 0 : 1;
}
