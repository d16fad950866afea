#include "filestore/state/worker_loop.h"

#include "filestore/state/file_store.h"
#include "kel/ini_file.h"

FileThreadBase::FileThreadBase(KelString section, KelString key, int defaultSeconds)
    : KelPeriodicThread(
          FileStore::debugFileStore, Begin::WithPause, [this] { return DoWork(); },
          [this](bool) { return NextWait(); }),
      section_(std::move(section)),
      key_(std::move(key)),
      defaultSeconds_(defaultSeconds) {}

void FileThreadBase::WakeUp(unsigned long value) {
    if (IsThreadRunning() && !CheckCancelled(false)) Signal(value);
}

std::optional<std::uint64_t> FileThreadBase::NextWait() const {
    int seconds = defaultSeconds_;
    IniFile ini;
    ini.Open(FileStore::strModuleIniFile);
    ini.GetEntryValue(section_, key_, seconds, defaultSeconds_);
    if (seconds == 0) {
        FileStore::debugFileStore.Error("Thread stopped due to SleepTime value equal to 0.\n");
        return std::nullopt;
    }
    // A negative value would wait without end; the default is used.
    return static_cast<std::uint64_t>(seconds < 0 ? defaultSeconds_ : seconds) * 1000;
}

void FileThreadBase::ThreadMain() {
    KelPeriodicThread::ThreadMain();
    if (CheckCancelled(false)) FileStore::debugFileStore.Detail("Thread stopped due to check cancelled.\n");
}
