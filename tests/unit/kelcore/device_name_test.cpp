#include "kelcore/device_name.h"

#include <gtest/gtest.h>

namespace {

const std::string kGuid = "0AF1C2D3-4E5F-6789-ABCD-EF0123456789";

struct Accepted {
    bool (*check)(std::string_view);
    std::vector<std::string> texts;
    std::vector<std::string> refused;
};

TEST(DeviceName, ItsPartsAreCheckedAsAWhole) {
    const std::string longest(253, 'h');
    const Accepted cases[] = {
        {IsGuid,
         {kGuid},
         {"", kGuid + "0", kGuid.substr(1), "0af1c2d3-4e5f-6789-abcd-ef0123456789",
          "0AF1C2D34-E5F-6789-ABCD-EF0123456789", "0AF1C2D3-4E5F-6789-ABCD-EF012345678G", kGuid + "\n"}},
        {IsHostName, {"a", "10.0.0.1", "relay-1.x_y.Org", longest}, {"", longest + "h", "a b", "a/b", "h\n"}},
        {IsMacAddress,
         {"00-1B-2C-3D-4E-5F"},
         {"", "00-1B-2C-3D-4E", "00-1b-2C-3D-4E-5F", "00:1B:2C:3D:4E:5F", "00-1B-2C-3D-4E-5F-60"}},
        {IsDeviceUrl,
         {"10.0.0.1:1610/" + kGuid, "h:0/" + kGuid, longest + ":99999/" + kGuid},
         {"", kGuid, "h/" + kGuid, "h:/" + kGuid, ":1/" + kGuid, "h:123456/" + kGuid, "h:1x/" + kGuid,
          "h:1:2/" + kGuid, "h:1/" + kGuid + "/", "/h:1/" + kGuid, "h:1/" + kGuid.substr(1)}},
    };
    for (const Accepted& each : cases) {
        for (const std::string& text : each.texts)
            EXPECT_TRUE(each.check(text)) << text;
        for (const std::string& text : each.refused)
            EXPECT_FALSE(each.check(text)) << text;
    }
}

TEST(DeviceName, TheGuidStandsAloneOrBehindOneElement) {
    EXPECT_EQ(GuidOfDevice(kGuid), kGuid);
    EXPECT_EQ(GuidOfDevice("any \xC3\xA4/" + kGuid), kGuid);
    for (const std::string& text :
         {std::string(), "/" + kGuid, "a/b/" + kGuid, "a/" + kGuid + "/", "a" + kGuid, "\xFF/" + kGuid})
        EXPECT_EQ(GuidOfDevice(text), "") << text;
}

std::string Joined(const std::optional<DevicePathName>& name) {
    if (!name) return "refused";
    return name->address + " " + name->host + " " + name->port + " " + name->guid + " " + name->macAddress +
           " " + name->ipAddress + " " + name->networkMask;
}

TEST(DevicePathName, IsSplitWhateverItsPartsHold) {
    const std::pair<std::string, std::string> cases[] = {
        {"h:80/g/m/i/k", "h:80 h 80 g m i k"},
        {"h/g/m/i/k", "h h  g m i k"},
        {"h:8:9/g/m/i/k/rest", "h:8:9 h 8:9 g m i k"},
        {"h:80/g/m/i/k\xFFrest", "h:80 h 80 g m i k"},
        {"h:80/g/m/i", "refused"},
        {"h:80/g/m/i/", "refused"},
        {"/g/m/i/k/x", "refused"},
        {"h:80/g//i/k/x", "refused"},
        {"h\xFF:80/g/m/i/k", "refused"},
        {"", "refused"},
    };
    for (const auto& [text, parts] : cases)
        EXPECT_EQ(Joined(SplitDevicePathName(text)), parts) << text;
}

TEST(DevicePathName, IsParsedWhenEveryPartIsWellFormed) {
    const std::string rest = "/00-1b-2C/10.0.0.1/255.0.0.0";
    EXPECT_EQ(Joined(ParseDevicePathName("h:80/" + kGuid + rest)),
              "h:80 h 80 " + kGuid + " 00-1b-2C 10.0.0.1 255.0.0.0");
    const std::string start = "h:80/" + kGuid;
    for (const std::string& text :
         {"h/" + kGuid + rest, "h:123456/" + kGuid + rest, "h h:80/" + kGuid + rest, "h:80/G" + rest,
          start + "/00:1B/10.0.0.1/255.0.0.0", start + "/" + std::string(33, '0') + "/10.0.0.1/255.0.0.0",
          start + "/00/10.0.0.x/255.0.0.0", start + "/00/10.0.0.1/mask", start + rest + "/",
          start + rest + "/x", start + rest + "\n", start + rest + "\xFF", start})
        EXPECT_EQ(Joined(ParseDevicePathName(text)), "refused") << text;
}

}  // namespace
