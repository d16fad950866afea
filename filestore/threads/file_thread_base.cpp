#include "filestore/threads/file_thread_base.h"

#include "filestore/module/file_store.h"
#include "kel/ini_file.h"

#include <exception>

FileThreadBase::FileThreadBase(KelString section, KelString key, int defaultSeconds)
    : section_(std::move(section)), key_(std::move(key)), defaultSeconds_(defaultSeconds) {}

void FileThreadBase::WakeUp(unsigned long value) {
    if (IsThreadRunning() && !CheckCancelled(false)) Signal(value);
}

int FileThreadBase::ReadSleepSeconds() const {
    int seconds = 60;
    IniFile ini;
    ini.Open(FileStore::strModuleIniFile);
    ini.GetEntryValue(section_, key_, seconds, defaultSeconds_);
    ini.Close();
    return seconds;
}

void FileThreadBase::ThreadMain() {
    while (true) {
        const int seconds = ReadSleepSeconds();
        // A negative time would be an endless wait; the default is what its writer can live with.
        const int wait = seconds < 0 ? defaultSeconds_ : seconds;
        Pause(static_cast<std::uint64_t>(wait) * 1000);
        if (wait == 0) {
            FileStore::debugFileStore.Error("Thread stopped due to SleepTime value equal to 0.\n");
            return;
        }
        if (!IsToGoOn()) return;
        WorkOnce();
        if (!IsToGoOn()) return;
    }
}

void FileThreadBase::WorkOnce() {
    try {
        DoWork();
    } catch (const std::exception& exception) {
        FileStore::debugFileStore.Error(
            "A work step failed (%s); the thread goes on and tries again after its wait.\n",
            exception.what());
    }
}

bool FileThreadBase::IsToGoOn() const {
    if (!CheckCancelled(false)) return true;
    FileStore::debugFileStore.Warning("Thread stopped due to check cancelled.\n");
    return false;
}
