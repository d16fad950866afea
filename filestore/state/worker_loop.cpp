#include "filestore/state/worker_loop.h"

#include <algorithm>
#include <utility>

#include "filestore/state/file_store.h"
#include "kel/ini_file.h"

FileThreadBase::FileThreadBase(const char* section, const char* key, int defaultSeconds)
    : KelPeriodicThread(
          FileStore::debugFileStore, Begin::WithPause, [this] { return Step(); },
          [this](bool) { return NextWait(); }),
      wait_(IniSetting::Number(section, key, defaultSeconds)) {}

bool FileThreadBase::Step() {
    const KelStopwatch watch(steps_);
    return DoWork();
}

void FileThreadBase::WakeUp(unsigned long value) {
    if (IsThreadRunning() && !CheckCancelled(false)) Signal(value);
}

std::optional<std::uint64_t> FileThreadBase::NextWait() {
    IniFile ini;
    ini.Open(FileStore::strModuleIniFile);
    auto seconds = static_cast<std::uint64_t>(ReadIniNumber(ini, wait_));
    if (seconds == 0) {
        FileStore::debugFileStore.Error("Thread stopped due to SleepTime value equal to 0.\n");
        return std::nullopt;
    }
    const auto longest = std::exchange(longestWait_, std::nullopt);
    // A second more, because times in rows are whole seconds.
    if (longest) seconds = std::min(seconds, static_cast<std::uint64_t>(longest->count()) + 1);
    return seconds * 1000;
}

void FileThreadBase::ThreadMain() {
    KelPeriodicThread::ThreadMain();
    if (CheckCancelled(false)) FileStore::debugFileStore.Detail("Thread stopped due to check cancelled.\n");
}
