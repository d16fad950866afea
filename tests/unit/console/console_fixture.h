#pragma once

#include <mutex>
#include <thread>

#include "kel/checksum.h"
#include "kelcore/error_codes.h"
#include "module_fixture.h"
#include "modules/console/console.h"

inline constexpr char kMaster[] = "ABCD0000-0000-0000-0000-000000000001";
inline constexpr char kNorth[] = "ABCD0000-0000-0000-0000-000000000002";
inline constexpr char kClient[] = "ABCD0000-0000-0000-0000-000000000003";
inline constexpr char kMasterPath[] =
    "127.0.3.1:1610/ABCD0000-0000-0000-0000-000000000001/02-00-7F-00-03-01/127.0.3.1/255.0.0.0";
inline constexpr char kNorthPath[] =
    "127.0.3.2:1610/ABCD0000-0000-0000-0000-000000000002/02-00-7F-00-03-02/127.0.3.2/255.0.0.0";
inline constexpr char kClientPath[] =
    "127.0.3.3:1610/ABCD0000-0000-0000-0000-000000000003/02-00-7F-00-03-03/127.0.3.3/255.0.0.0";

class ConsoleTest : public ModuleFixture {
  protected:
    void SetUp() override {
        FakeAction("IdentityGetValues ()", [](KelContainer* container) {
            KelContainer values;
            values.SetString("GUID", kMaster);
            values.SetString("HostName", "boss");
            values.SetString("IPAddress", "127.0.3.1");
            values.SetString("MACAddress", "02-00-7F-00-03-01");
            values.SetString("NetworkMask", "255.0.0.0");
            values.SetBool("PreferIPAddresses", true);
            container->SetContainer("Values", values);
            return 0U;
        });
        FakeAction("HttpProtocolGetParams ()", [](KelContainer* container) {
            KelContainer values;
            values.SetInt32("Port", 1610);
            container->SetContainer("Values", values);
            return 0U;
        });
        FakeAction("HttpProtocolAddAlias (string AliasName, string AliasPath)",
                   [this](KelContainer* container) {
                       alias_ = *container;
                       return 0U;
                   });
        FakeAction("FileStoreReceiveFile (string FileType)", [this](KelContainer* container) {
            const std::lock_guard lock(mutex_);
            offers_.push_back(*container);
            return storeResult_;
        });
        WriteDevices(BothDevices());
        TempFolder::Write(root_ / "setup.bin", "content");
    }

    static std::string BothDevices() {
        return std::string(kNorth) + "=" + kNorthPath + " " + kMaster + " relay north\n" + kClient + "=" +
               kClientPath + " " + kNorth + " client desk\n";
    }

    /// The shipped ini file, with these lines in its section Devices.
    void WriteDevices(const std::string& lines) {
        std::string ini = TempFolder::Read(std::string(KEL_SOURCE_DIR) + "/modules/console/Console.ini");
        const std::string section = "[Devices]\n";
        WriteIni("Console", ini.insert(ini.find(section) + section.size(), lines));
    }

    KelContainer Request(const std::string& device) {
        KelContainer request;
        request.SetString("FilePath", root_ / "setup.bin");
        request.SetString("FileType", "Package");
        request.SetString("FileLabel", "tools");
        request.SetString("Device", device);
        return request;
    }

    static KelContainer From(KelContainer request, const std::string& address) {
        KelContainer info;
        info.SetString("HttpProtocolRequestAddress", address);
        request.SetContainer("HttpProtocolRequestInfo", info);
        return request;
    }

    KelContainer alias_;
    unsigned int storeResult_ = 0;
    std::mutex mutex_;
    std::vector<KelContainer> offers_;
};
