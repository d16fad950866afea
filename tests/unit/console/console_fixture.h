#pragma once

#include "kel/checksum.h"
#include "module_fixture.h"
#include "modules/console/console.h"

inline const std::string kMaster = "ABCD0000-0000-0000-0000-000000000001";
inline const std::string kNorth = "ABCD0000-0000-0000-0000-000000000002";
inline const std::string kClient = "ABCD0000-0000-0000-0000-000000000003";
inline const std::string kMasterPath = "127.0.3.1:1610/" + kMaster + "/02-00-7F-00-03-01/127.0.3.1/255.0.0.0";
inline const std::string kNorthPath = "127.0.3.2:1610/" + kNorth + "/02-00-7F-00-03-02/127.0.3.2/255.0.0.0";
inline const std::string kClientPath = "127.0.3.3:1610/" + kClient + "/02-00-7F-00-03-03/127.0.3.3/255.0.0.0";

/// A master with two devices in its ini file, and a file to publish.
class ConsoleTest : public ModuleFixture {
  protected:
    void SetUp() override {
        FakeValues("IdentityGetValues ()",
                   {"GUID=" + kMaster, "HostName=boss", "IPAddress=127.0.3.1", "MACAddress=02-00-7F-00-03-01",
                    "NetworkMask=255.0.0.0", "PreferIPAddresses=true"});
        FakeValues("HttpProtocolGetParams ()", {"Port=1610"});
        FakeFileStore();
        WriteDevices(BothDevices());
        TempFolder::Write(root_ / "setup.bin", "content");
    }

    static std::string BothDevices() {
        return kNorth + "=" + kNorthPath + " " + kMaster + " relay north\n" + kClient + "=" + kClientPath +
               " " + kNorth + " client desk\n";
    }

    /// The shipped ini file, with these lines in its section Devices.
    void WriteDevices(const std::string& lines) {
        std::string ini = TempFolder::Read(std::string(KEL_SOURCE_DIR) + "/modules/console/Console.ini");
        const std::string section = "[Devices]\n";
        WriteIni("Console", ini.insert(ini.find(section) + section.size(), lines));
    }

    KelContainer Request(const std::string& device) {
        return Values(
            {"FilePath=" + root_ / "setup.bin", "FileType=Package", "FileLabel=tools", "Device=" + device});
    }
    static KelContainer Publish(KelContainer request) {
        EXPECT_EQ(Call("ConsolePublish", request), 0U) << request.GetString("Message");
        return request;
    }
    static KelContainer DeviceNamed(const std::string& guid) {
        const KelContainer devices = Call("ConsoleListDevices");
        for (std::uint32_t i = 0; i < devices.Count("Values"); ++i) {
            if (devices.GetContainer("Values", i).GetString("GUID") == guid)
                return devices.GetContainer("Values", i);
        }
        return {};
    }
};
