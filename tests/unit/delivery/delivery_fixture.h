#pragma once

#include "kel/checksum.h"
#include "module_fixture.h"
#include "modules/delivery/delivery.h"

inline const std::string kGuid = "ABCD0000-1111-2222-3333-444444444444";
inline constexpr unsigned int kNotReady = 44001;  ///< what is answered to the store for a file that waits

class DeliveryTest : public ModuleFixture {
  protected:
    void SetUp() override {
        FakeResults("IdentityGetGUID ()", Values({"GUID=" + kGuid}));
        FakeResults("FileStoreGetDeviceUrl ()", Values({"DeviceUrl=north:1610/" + kGuid}));
        FakeFileStore();
    }

    /// The status in the latest receipt of each checksum.
    std::map<std::string, std::string> Statuses() {
        std::map<std::string, std::string> statuses;
        for (const KelContainer& receipt : Contents())
            statuses[receipt.GetString("FileChecksum")] = receipt.GetString("Status");
        return statuses;
    }

    /// Puts a file into the fake store and gives the values that the store announces it with.
    KelContainer Stored(const std::string& type, const std::string& name, const std::string& content) {
        const std::string path = root_ / ("store-" + TextMd5(content));
        TempFolder::Write(path, content);
        return Values({"FileType=" + type, "FileLabel=label", "FileName=" + name,
                       "FileChecksum=" + TextMd5(content), "FilePath=" + path});
    }
    static unsigned int Announce(const KelContainer& file) {
        return Trigger("FileStoreCallbackReceivedFile", file);
    }

    /// Lets a script of these lines run for each file of type T, with these arguments.
    void RunOnArrival(const std::string& lines, const std::string& arguments = {}) {
        const std::string path = root_ / "command.sh";
        TempFolder::Write(path, "#!/bin/sh\n" + lines + "\n");
        std::filesystem::permissions(path, std::filesystem::perms::owner_all);
        WriteIni("Delivery", "[Commands]\nT = " + path + " " + arguments + "\n");
    }

    std::string InboxPath(const std::string& type, const std::string& name) {
        return root_ / ("data/Delivery/Inbox/" + type + "/label/" + name);
    }
    std::string Outgoing() { return root_ / "data/Delivery/Outgoing"; }
    std::string Pending() { return root_ / "data/Delivery/Pending"; }
    bool AllJobsEnd() {
        return Eventually([this] { return std::filesystem::is_empty(Pending()); });
    }
};
