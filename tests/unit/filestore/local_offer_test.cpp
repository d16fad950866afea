#include "filestore/transfer_fixture.h"
#include "kel/checksum.h"
#include "kel/file.h"
#include "kel/format.h"

using namespace filestore;

namespace {

/// What happens to a row or a source while a file of this device is taken into the store.
class LocalOfferTest : public StepTest {
  protected:
    /// The code that an offer with changed values gets.
    static unsigned int Receive(KelContainer offer, Values values = {}) {
        offer = With(std::move(offer), values);
        return TransferTest::Receive(offer);
    }
    static void Accept(const KelContainer& offer, Values values = {}) {
        EXPECT_EQ(Receive(offer, values), 0U);
    }
};

/// The Wake-on-LAN module is told of new targets while an offer is under way.
TEST_F(LocalOfferTest, RowChangedWhileALocalOfferIsTakenInLosesNoPublication) {
    const KelContainer offer =
        With(Offer(), {{"CopyPath", MakeFile("source", "abc")},
                       {"DevicePath", TargetTree({"127.0.1.9:1/0A1B0000-0000-4000-8000-0000000000E1/m/"
                                                  "127.0.1.9/255.0.0.0"})}});
    BecomeMaster();
    KelContainer request = With(Offer(), {{"DeviceGUID", kOwnUrl}});
    EXPECT_EQ(FileStore::ActionHandler_FileStoreRequestFile(&request), 0U);
    Fake("WakeOnLanAddSubnet ()", [](KelContainer&) {
        FileStore::threadHandler.LocalRequestFile(
            false);  // on the master it ends requests for what is missing
        return 0U;
    });
    Accept(offer);
    EXPECT_EQ(OnlyRow(false).FileStatus, kStatusAvailable);
    EXPECT_EQ(Count(Downstream(), "Targets"), "2");

    DeleteRows();
    Fake("WakeOnLanAddSubnet ()", [](KelContainer&) {
        DeleteRows();
        return 0U;
    });
    EXPECT_EQ(Receive(offer, {{"DevicePath", TargetTree({"127.0.1.9:1/0A1B0000-0000-4000-8000-0000000000E2/"
                                                         "m/127.0.1.9/255.0.0.0"})}}),
              1U);
    EXPECT_EQ(Count(Downstream(), "Targets"), "0");
}

/// The device's own URL is asked for after the checksum was computed.
TEST_F(LocalOfferTest, SourceThatChangesWhileItIsTakenIsNotStoredUnderItsOldChecksum) {
    for (const bool upstream : {true, false})
        for (const char* checksum : {"", "given"}) {
            SCOPED_TRACE(KelFormat("checksum '%s' upstream %u", checksum, upstream));
            const KelString source = MakeFile("source", "abc");
            Fake("IdentityGetValues ()", [this, source](KelContainer& container) {
                container = Make({{"Values", identityValues}});
                WriteFile(source, "changed");
                return 0U;
            });
            const bool isGiven = *checksum != '\0';
            EXPECT_EQ(Receive(Offer("t", checksum),
                              {{"Upstream", upstream}, {"CopyPath", source}, {"SourceDevice", "any"}}),
                      isGiven ? 0U : 1U);
            EXPECT_FALSE(FileExists(FileStore::StorePath(upstream, "t", "l", TextMd5("abc"), "n")));
            const KelString size = Cell(upstream ? Upstream() : Downstream(), "SELECT FileSize FROM Files");
            EXPECT_EQ(size, isGiven ? "7" : "");
        }
}

TEST_F(LocalOfferTest, SourceThatIsCutOffWhileItIsTakenIsRefusedOnTheWayUp) {
    for (const char* path : {"CopyPath", "MovePath", "FilePath"}) {
        SCOPED_TRACE(path);
        const KelString source = MakeFile("source", "abc");
        Fake("IdentityGetValues ()", [this, source](KelContainer& container) {
            container = Make({{"Values", identityValues}});
            WriteFile(source, "");
            return 0U;
        });
        EXPECT_EQ(Receive(Offer(), {{"Upstream", true}, {path, source}}), 1U);
        EXPECT_EQ(Count(Upstream(), "Files"), "0");
    }
}

TEST_F(LocalOfferTest, RequestThatCameDuringAnOfferOutlivesItsFailure) {
    const KelString source = MakeFile("source", "abc");
    Fake("WakeOnLanAddSubnet ()", [source](KelContainer&) {
        KelContainer request = Offer();
        EXPECT_EQ(FileStore::ActionHandler_FileStoreRequestFile(&request), 0U);
        FileDelete(source);
        return 0U;
    });
    EXPECT_EQ(Receive(Offer(), {{"CopyPath", source},
                                {"DevicePath", TargetTree({"127.0.1.9:1/0A1B0000-0000-4000-8000-"
                                                           "0000000000E3/m/127.0.1.9/255.0.0.0"})}}),
              1U);
    EXPECT_EQ(OnlyRow(false).FileStatus, kStatusMissing);
    EXPECT_EQ(Rows(Downstream(), "SELECT DeviceGUID FROM Targets"), KelVector<KelString>{""});
}

/// What a kill between placing the content and committing the row leaves is what a row that cannot be
/// committed leaves.
TEST_F(LocalOfferTest, MovedSourceIsThereUntilItsRowIsCommitted) {
    for (const bool upstream : {true, false}) {
        SCOPED_TRACE(upstream);
        DBConnection& connection = upstream ? Upstream() : Downstream();
        const KelString source = MakeFile("source", "abc");
        const KelContainer offer = With(Offer("t", ""), {{"Upstream", upstream}, {"MovePath", source}});
        Rows(connection,
             KelFormat("CREATE TRIGGER Refuse BEFORE %s ON Files WHEN NEW.FileStatus <> '%s' BEGIN "
                       "SELECT RAISE(ABORT, 'refused'); END",
                       upstream ? "INSERT" : "UPDATE", kStatusReceiving));
        EXPECT_EQ(Receive(offer), 1U);
        EXPECT_EQ(Content(source), "abc");
        EXPECT_EQ(Count(connection, "Files"), "0");
        Rows(connection, "DROP TRIGGER Refuse");
        Accept(offer);
        EXPECT_FALSE(FileExists(source));
        const KelString stored = OnlyRow(upstream).FilePath;
        EXPECT_EQ(Content(stored), "abc");
        Accept(offer, {{"FileChecksum", TextMd5("abc")}, {"MovePath", stored}});
        EXPECT_EQ(Content(stored), "abc") << "the store's own name for it was removed";
    }
}

}  // namespace
