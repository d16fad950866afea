#include <fcntl.h>
#include <unistd.h>
#include <cstdlib>

#include "kel/file.h"
#include "kel/file_content.h"
#include "kel/ini_file.h"
#include "kel/unique_fd.h"

namespace {

/// One file for the whole run.
struct ScratchFile {
    KelString path;
    UniqueFd fd = FileCreateTemp("/dev/shm", path);
    ~ScratchFile() { FileDelete(path); }
};

}  // namespace

/// Run with -close_fd_mask=2: refused files are named on stderr.
/// What was read can be asked for, and a written value reads back while the other entries stay.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    static const ScratchFile scratch;
    const UniqueFd out(::open(scratch.path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC));
    if (!FileWriteAll(out.Get(), {reinterpret_cast<const char*>(data), size})) std::abort();

    IniFile ini;
    if (!ini.Open(scratch.path)) return 0;
    const KelVector<KelString> keys = ini.GetKeys("S");
    KelString value;
    for (const KelString& key : keys)
        if (!ini.GetEntryValue("S", key, value, "")) std::abort();
    if (!ini.WriteEntryValue("S", "fuzz key", "v")) std::abort();
    IniFile again;
    if (!again.Open(scratch.path) || !again.GetEntryValue("s", "FUZZ KEY", value, "") || value != "v")
        std::abort();
    for (const KelString& key : keys) {
        KelString before;
        ini.GetEntryValue("S", key, before, "");
        if (!again.GetEntryValue("S", key, value, "") || value != before) std::abort();
    }
    return 0;
}
