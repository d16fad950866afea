#pragma once

#include <map>
#include <mutex>
#include <thread>

#include "kel/checksum.h"
#include "kelcore/error_codes.h"
#include "module_fixture.h"
#include "modules/delivery/delivery.h"

inline constexpr char kGuid[] = "ABCD0000-1111-2222-3333-444444444444";

class DeliveryTest : public ModuleFixture {
  protected:
    void SetUp() override {
        FakeAction("IdentityGetGUID ()", [](KelContainer* container) {
            container->SetString("GUID", kGuid);
            return 0U;
        });
        FakeAction("FileStoreGetDeviceUrl ()", [](KelContainer* container) {
            container->SetString("DeviceUrl", std::string("north:1610/") + kGuid);
            return 0U;
        });
        FakeAction("FileStoreReceiveFile (string FileType)", [this](KelContainer* container) {
            const std::lock_guard lock(mutex_);
            if (storeResult_ != 0) return storeResult_;
            const KelString path = container->GetString("MovePath");
            receipts_.emplace_back();
            EXPECT_TRUE(receipts_.back().LoadFromFile(path));
            std::filesystem::remove(path);
            offers_.push_back(*container);
            return 0U;
        });
    }

    void SetStoreResult(unsigned int result) {
        const std::lock_guard lock(mutex_);
        storeResult_ = result;
    }
    std::size_t ReceiptCount() {
        const std::lock_guard lock(mutex_);
        return receipts_.size();
    }
    /// The status in the latest receipt of each checksum.
    std::map<std::string, std::string> Statuses() {
        const std::lock_guard lock(mutex_);
        std::map<std::string, std::string> statuses;
        for (const KelContainer& receipt : receipts_)
            statuses[receipt.GetString("FileChecksum")] = receipt.GetString("Status");
        return statuses;
    }

    /// Puts a file into the fake store and gives the values that the store announces it with.
    KelContainer Stored(const std::string& type, const std::string& name, const std::string& content) {
        const std::string path = root_ / ("store-" + TextMd5(content));
        TempFolder::Write(path, content);
        KelContainer file;
        file.SetString("FileType", type);
        file.SetString("FileLabel", "label");
        file.SetString("FileName", name);
        file.SetString("FileChecksum", TextMd5(content));
        file.SetString("FilePath", path);
        return file;
    }

    static unsigned int Announce(const KelContainer& file) {
        KelContainer results;
        return CallbackDbTrigger("FileStoreCallbackReceivedFile", file, results);
    }

    std::string Script(const std::string& text) {
        const std::string path = root_ / "command.sh";
        TempFolder::Write(path, "#!/bin/sh\n" + text + "\n");
        std::filesystem::permissions(path, std::filesystem::perms::owner_all);
        return path;
    }

    std::string InboxPath(const std::string& type, const std::string& name) {
        return root_ / ("data/Delivery/Inbox/" + type + "/label/" + name);
    }
    std::string Outgoing() { return root_ / "data/Delivery/Outgoing"; }
    std::string Pending() { return root_ / "data/Delivery/Pending"; }

    std::mutex mutex_;
    unsigned int storeResult_ = 0;
    std::vector<KelContainer> offers_;    ///< what the file store took
    std::vector<KelContainer> receipts_;  ///< and its content
};
