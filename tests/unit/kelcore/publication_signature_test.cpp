#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "kel/base64.h"
#include "signing_tree.h"

namespace {

using testing::HasSubstr;
using namespace std::string_literals;

constexpr std::int64_t kNow = 1'800'000'000;
const KelString kDevice = "ABCD0000-0000-0000-0000-000000000001";
const KelString kOther = "ABCD0000-0000-0000-0000-000000000002";
const KelPublication kPublication{{"T", "l", "n", "AB12"}, 5, KelString(64, 'a'), "p1", 1000, {kDevice}};

TEST(PublicationSignatureTest, EveryFieldIsSignedWithItsLength) {
    EXPECT_EQ(kPublication.SignedBytes(),
              "\0\0\0\x11kel publication 1\0\0\0\1T\0\0\0\1l\0\0\0\1n\0\0\0\4ab12\0\0\0\0015\0\0\0\x40"s +
                  KelString(64, 'a') + "\0\0\0\2p1\0\0\0\0041000\0\0\0\x24"s + kDevice);
}

TEST(PublicationSignatureTest, OnlyWhatTheMasterHasSignedIsAPublication) {
    const SigningTree tree(kDevice, kNow), otherTree(kDevice, kNow);
    const auto keys = tree.Keys();
    KelContainer good = kPublication.ToContainer();
    good.SetContainer("Signed", tree.Sign(kPublication));
    const auto changed = [](const char* name, const KelString& text) {
        return [=](FileKey&, KelContainer& info) {
            KelContainer values = info.GetContainer("Signed");
            values.SetString(name, text);
            info.SetContainer("Signed", std::move(values));
        };
    };
    const auto certificateOf = [](const KelCertificate& certificate) {
        return Base64Encode(SigningTree::Made(certificate.ToDer()));
    };
    struct {
        const char* name;
        std::function<void(FileKey&, KelContainer&)> change;
        const char* problem;
        std::int64_t now = kNow;
    } const cases[] = {
        {"nothing", [](FileKey&, KelContainer&) {}, ""},
        {"a checksum in lower case", [](FileKey& key, KelContainer&) { key.checksum = "ab12"; }, ""},
        {"the type", [](FileKey& key, KelContainer&) { key.type = "U"; }, "something else"},
        {"parts run together",
         [](FileKey& key, KelContainer&) {
             key = {"Tl", "", "n", "AB12"};
         },
         "something else"},
        {"the checksum", [](FileKey& key, KelContainer&) { key.checksum = "AB13"; }, "something else"},
        {"the publication", [](FileKey&, KelContainer& info) { info.SetString("PublicationId", "p2"); },
         "something else"},
        {"the time", [](FileKey&, KelContainer& info) { info.SetInt64("PublicationTime", 1001); },
         "something else"},
        {"no time", [](FileKey&, KelContainer& info) { info.Remove("PublicationTime"); }, "its time"},
        {"no signature at all", [](FileKey&, KelContainer& info) { info.Remove("Signed"); }, "not signed"},
        {"the size", changed("Size", "6"), "something else"},
        {"the digest", changed("Sha256", KelString(64, 'b')), "something else"},
        {"a digest that is none", changed("Sha256", "aa"), "SHA-256"},
        {"the device", changed("Device", kOther), "something else"},
        {"a device that is none", changed("Device", "x"), "its device"},
        {"the signature", changed("Signature", Base64Encode(KelString(64, 'x'))), "something else"},
        {"a short signature", changed("Signature", ""), "something else"},
        {"a certificate that is none", changed("Certificate", "MAA="), "no certificate"},
        {"that of another tree", changed("Certificate", certificateOf(otherTree.SigningCertificate())),
         "this tree's authority"},
        {"that of a device", changed("Certificate", certificateOf(tree.OwnCertificate())), "not for signing"},
        {"a clock that is years late", [](FileKey&, KelContainer&) {}, "set the clock", 86400},
    };
    for (const auto& item : cases) {
        FileKey key = kPublication.file;
        KelContainer info = good;
        item.change(key, info);
        const auto verified = VerifiedPublication(key, info, *keys, item.now);
        EXPECT_EQ(static_cast<bool>(verified), item.problem[0] == '\0') << item.name;
        EXPECT_THAT(verified ? "" : verified.Error().message, HasSubstr(item.problem)) << item.name;
    }
    const auto verified = VerifiedPublication(kPublication.file, good, *keys, kNow);
    EXPECT_TRUE(verified->IsFor(kDevice));
    EXPECT_FALSE(verified->IsFor(kOther));
    const auto revoked =
        VerifiedPublication(kPublication.file, good, *tree.Keys({tree.SigningCertificate()}), kNow);
    EXPECT_THAT(revoked ? "" : revoked.Error().message, HasSubstr("revoked"));
}

}  // namespace
