#include "kelcore/shared_content.h"

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "kel/file.h"

namespace fs = std::filesystem;

namespace {

constexpr std::size_t kChunk = 1 << 18;  ///< bytes

/// Checksums do not prove it: those of the store are MD5, and somebody may have made them equal.
bool HaveSameBytes(const KelString& left, const KelString& right) {
    std::ifstream a(left, std::ios::binary), b(right, std::ios::binary);
    KelVector<char> chunkOfA(kChunk), chunkOfB(kChunk);
    while (a && b) {
        a.read(chunkOfA.data(), kChunk);
        b.read(chunkOfB.data(), kChunk);
        if (a.bad() || b.bad() || a.gcount() != b.gcount() ||
            !std::equal(chunkOfA.begin(), chunkOfA.begin() + a.gcount(), chunkOfB.begin()))
            return false;
    }
    return a.eof() && b.eof();
}

}  // namespace

bool ShareContent(const KelString& path, const KelString& equal, const KelString& workFolder) {
    std::error_code error;
    if (fs::equivalent(path, equal, error)) return true;
    if (error || FileGetSize64(path) != FileGetSize64(equal)) return false;
    KelString name;
    if (!FileCreateTemp(workFolder, name)) return false;
    FileDelete(name);
    // Compared under the new name: `equal` may be replaced at any moment.
    fs::create_hard_link(equal, name, error);
    if (!error && HaveSameBytes(name, path) && FileRename(name, path)) return true;
    FileDelete(name);
    return false;
}
