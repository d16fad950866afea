#include "filestore/state/settings.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <limits>

#include "filestore/state/bandwidth_manager.h"
#include "filestore/state/file_store.h"
#include "filestore/state/setting_table.h"
#include "kel/ini_file.h"
#include "kel/text.h"

namespace {

void ReadAll(FileStoreSettingRead when) {
    for (const FileStoreSetting& setting : FileStoreSettings())
        if (setting.read == when) setting.Store(setting.Read());
}

void RaiseTo(std::atomic<std::uint32_t>& value, std::uint32_t minimum) {
    if (value < minimum) value = minimum;
}

}  // namespace

void FileStore::ReadSettings() {
    ReadAll(FileStoreSettingRead::AtInitialisation);
    EnsureTimeToLive();
}

void FileStore::EnsureTimeToLive() {
    RaiseTo(ulTimeToLive, ulTimeout);
    RaiseTo(ulTimeToLive, ulPushTimeout);
    RaiseTo(ulTimeToLive, ulPullTimeout);
}

unsigned int FileStore::GetRandomTimeout(unsigned int seconds) {
    const auto product = static_cast<double>(static_cast<float>(std::rand()) * static_cast<float>(seconds));
    const std::uint64_t timeout =
        static_cast<std::uint64_t>(product / 2147483648.0) + std::uint64_t{seconds} / 2 + 1;
    constexpr std::uint64_t kLongest = std::numeric_limits<unsigned int>::max();
    return static_cast<unsigned int>(std::min(timeout, kLongest));
}

std::int64_t FileStoreDueBefore(std::uint64_t timeout) {
    const std::int64_t now = std::time(nullptr);
    return timeout < static_cast<std::uint64_t>(now) ? now - static_cast<std::int64_t>(timeout) : 1;
}

void FileStoreReadVacuumSetting() {
    FileStore::fPerformVacuum = FileStoreReadFlag("FileStore", "PerformVacuum");
}

void FileStoreReadUploadPolicy() {
    FileStore::debugFileStore.Detail("Check upload policy.\n");
    ReadAll(FileStoreSettingRead::AtActivation);
    FileStore::eArchiveType = 1;  // zip is the only kind, whatever the entry ArchiveType says
    FileStore::debugFileStore.Detail("Upload policy checked.\n");
}

void FileStoreApplyFrameSize() {
    const auto frameSize = static_cast<int>(FileStore::ulFrameSize.load());
    FileStore::bmTrackUsageUp.SetFrameSize(frameSize);
    FileStore::bmTrackUsageDown.SetFrameSize(frameSize);
    FileStore::bmTrackUsageMulticast.SetFrameSize(static_cast<int>(FileStore::ulMulticastBlockSize.load()));
}

std::uint32_t FileStoreReadNumber(const KelString& section, const KelString& key) {
    IniFile ini;
    ini.Open(FileStore::strModuleIniFile);
    return static_cast<std::uint32_t>(ReadIniNumber(ini, FileStoreIniSetting(section, key)));
}

bool FileStoreReadFlag(const KelString& section, const KelString& key) {
    IniFile ini;
    ini.Open(FileStore::strModuleIniFile);
    return ReadIniFlag(ini, FileStoreIniSetting(section, key));
}

bool FileStoreWriteSetting(const KelString& section, const KelString& key, const KelString& value) {
    // The whole file is rewritten: two writers at once would lose one of the changes.
    KelLock lock(FileStore::mutexSettings);
    IniFile ini;
    KelStatus status = ini.Open(FileStore::strModuleIniFile)
                           ? ini.WriteEntryValue(section, key, value)
                           : KelStatus(KelError{1, "the file cannot be read"});
    if (status) return true;
    FileStore::debugFileStore.Error("Could not write %S=%S to section %S of %S: %S\n", key, value, section,
                                    FileStore::strModuleIniFile, status.Error().message);
    return false;
}
