#include "console_fixture.h"

namespace {

TEST_F(ConsoleTest, ReasonsAreAskedThroughTheTreeForPendingTargetsOnly) {
    KelContainer asked;
    const auto answer = [&asked](const KelContainer& given) {
        FakeAction("FileStoreExplainFile (string FileType)", [&asked, given](KelContainer* container) {
            asked = *container;
            *container = given;
            return 0U;
        });
    };
    answer(
        With(Values({"Known=true"}), "Values",
             Values({"GUID=" + kClient, "At=127.0.3.2:1610/" + kNorth, "Code=disk_full", "Message=full"})));
    RunningModule<Console> module;
    const KelString id = Publish(Request("all")).GetString("PublicationId");
    const KelContainer north = With(With({}, kNorthPath, {}), kClientPath, {});

    KelContainer all = Values({"PublicationId=" + id});
    ASSERT_EQ(Call("ConsoleExplain", all), 0U);
    ExpectValues(all.GetContainer("Values"), {"Name=desk", "AtName=north", "Code=disk_full", "Message=full"});
    ExpectValues(asked, {"FileName=setup.bin", "FileChecksum=" + TextMd5("content")});
    EXPECT_EQ(asked.GetContainer("DevicePath"), With({}, kMasterPath, With({}, kNorthPath, north)));

    WriteDevices(kNorth + "=" + kNorthPath + " " + kMaster + " relay north\n");  // the client is gone
    KelContainer one = Values({"PublicationId=" + id});
    ASSERT_EQ(Call("ConsoleExplain", one), 0U);
    ExpectValues(one.GetContainer("Values"), {"GUID=" + kClient, "Code=no_way"});

    for (const Texts& bad : {Texts{"PublicationId=none"}, Texts{"PublicationId=" + id, "Device=nobody"},
                             Texts{"PublicationId=" + id, "Device=boss"}}) {
        KelContainer call = Values(bad);
        EXPECT_EQ(Call("ConsoleExplain", call), kKelErrorBadInput);
        EXPECT_FALSE(call.GetString("Message").empty());
    }
    Publish(Request(kNorth));
    const KelString ordered = Publish(Request(kNorth)).GetString("PublicationId");
    for (const auto& [code, expected] :
         {std::pair("window_closed", "order"), {"arrived", "file"}, {"unknown_there", "file"}}) {
        FakeAction(
            "FileStoreExplainFile (string FileType)", [code = KelString(code)](KelContainer* container) {
                const bool isOrder = container->GetString("FileType") == "DeliveryOrder";
                *container =
                    With(Values({"Known=true"}), "Values",
                         With(Values({"GUID=" + kNorth, "Code=" + (isOrder ? code : "peer_unreachable")}),
                              {isOrder ? "Message=order" : "Message=file"}));
                return 0U;
            });
        KelContainer explained = Values({"PublicationId=" + ordered});
        ASSERT_EQ(Call("ConsoleExplain", explained), 0U);
        ExpectValues(explained.GetContainer("Values"), {"Name=north", KelString("Message=") + expected});
    }
    answer(Values({"Known=false"}));
    EXPECT_EQ(Call("ConsoleExplain", Values({"PublicationId=" + id, "Device=north"})),
              kKelErrorMissingContent);
}

}  // namespace
