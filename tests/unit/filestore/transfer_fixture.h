#pragma once

#include "filestore/file_store_fixture.h"

/// The initialised module beside a parent that answers at a given port of 127.0.1.1, and helpers for offers,
/// target trees and rows. The threads are not started: tests run their steps.
class TransferTest : public FileStoreTest {
  protected:
    static constexpr const char* kOwnUrl = "127.0.1.7:1610/0A1B0000-0000-4000-8000-00000000000A";
    static constexpr const char* kOwnPathName =
        "127.0.1.7:1610/0A1B0000-0000-4000-8000-00000000000A/02-00-7F-00-01-07/127.0.1.7/255.0.0.0";

    void SetUp() override;
    void SetParent(const KelString& name, std::uint16_t port);

    /// Calls a handler the way the action database does.
    static unsigned int Receive(KelContainer& offer);

    /// A file in the test's root; its path.
    KelString MakeFile(const KelString& name, const KelString& content);
    static KelString Content(const KelString& path);  ///< "(none)" when it cannot be read

    /// An offer of the key type/l/n/checksum.
    static KelContainer Offer(const KelString& type = "t", const KelString& checksum = "c");
    static KelContainer From(KelContainer offer, const KelString& address);
    /// A target tree with these devices below this one.
    static KelContainer TargetTree(const KelVector<KelString>& children);

    /// The only row of Files; fails when there is another number of them.
    static FileStoreEntry OnlyRow(bool upstream);
    static KelString Count(DBConnection& connection, const KelString& table);
    static void AddTarget(unsigned long fileId, unsigned long targetId, const KelString& device,
                          std::int64_t lastNotifyTime = 0, unsigned int wakeUp = 0);
    /// All rows and all files below the root, to see that nothing changed.
    KelString Everything() const;
};
