#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "kel/base64.h"
#include "kel/checksum.h"
#include "kel/file.h"
#include "kel/temp_folder.h"
#include "kel/text.h"
#include "kelcore/keys/authority.h"
#include "kelcore/keys/invitations.h"
#include "kelcore/keys/key_folder.h"

namespace {

using testing::HasSubstr;

constexpr std::int64_t kNow = 1'800'000'000;
constexpr std::int64_t kDay = KelIssuer::kDay;
const KelDeviceIdentity kRelay{"ABCD0000-0000-0000-0000-000000000001", KelDeviceRole::Relay};
const KelDeviceIdentity kClient{"ABCD0000-0000-0000-0000-000000000002", KelDeviceRole::Client};

/// The value of a result that has to be there.
template <class Value>
Value Made(KelResult<Value> result) {
    if (!result) throw std::runtime_error(result.Error().message);
    return std::move(*result);
}
template <class Value>
std::string ErrorOf(const KelResult<Value>& result) {
    return result ? "" : result.Error().message;
}

class KeysTest : public testing::Test {
  protected:
    KeysTest() {
        EXPECT_TRUE(authority_.Create(kNow));
        EXPECT_TRUE(authority_.Open());
    }

    KelKeyRing::Parts PartsOf(const KelKeyPair& key, const KelDeviceIdentity& device) const {
        return {key, device, Made(authority_.Issue(key.Get(), device, kNow)), authority_.Certificate(), {},
                {},  {}};
    }
    static std::shared_ptr<const KelKeyRing> RingOf(KelKeyRing::Parts parts) {
        return Made(KelKeyRing::Make(std::move(parts)));
    }

    TempFolder folder_;
    KelAuthority authority_{folder_ / "Authority"};
    KelInvitations invitations_{authority_, folder_ / "Authority/Invitations"};
    KelKeyPair relayKey_ = Made(KelKeyPair::Make());
    KelKeyPair clientKey_ = Made(KelKeyPair::Make());
};

TEST_F(KeysTest, APeerIsTrustedOnlyWithAValidCertificateOfTheAuthorityAndAsTheExpectedDevice) {
    const auto ring = RingOf(PartsOf(relayKey_, kRelay));
    const KelCertificate good = Made(authority_.Issue(clientKey_.Get(), kClient, kNow));
    const KelCertificate old = Made(authority_.Issue(clientKey_.Get(), kClient, kNow - 100 * kDay));
    const KelCertificate foreign = Made(Made(KelIssuer::Make(kNow)).Issue(clientKey_.Get(), kClient, kNow));
    const KelCertificate own = Made(MakePlaceholder(relayKey_, "anything"));
    const KelCertificate self = Made(MakePlaceholder(clientKey_, kClient.guid));
    struct {
        const char* name;
        const KelCertificate& certificate;
        KelPeerExpectation expected;
        std::int64_t now;
        const char* problem;
    } const cases[] = {
        {"good", good, {}, kNow, ""},
        {"a clock that is late by hours", good, {}, kNow - kDay / 2, ""},
        {"a clock without a date", good, {}, 86400, "1970-01-02"},
        {"the own clock is late", good, {}, kNow - 31 * kDay, "at least 30 days behind"},
        {"over", good, {}, kNow + 366 * kDay, "kel keys join"},
        {"the own certificate is over, too", good, {}, kNow + 366 * kDay, "probably ahead"},
        {"over before the own one", old, {}, kNow + 300 * kDay, "on which it is wrong"},
        {"of another authority", foreign, {}, kNow, "this tree's authority"},
        {"signed by itself", self, {}, kNow, "this tree's authority"},
        {"the own key", own, {}, kNow, ""},
        {"the expected device", good, {kClient.guid, good.Fingerprint(), false}, kNow, ""},
        {"another device", good, {kRelay.guid, {}, false}, kNow, kClient.guid.c_str()},
        {"another key", good, {kClient.guid, own.Fingerprint(), false}, kNow, "forget-parent"},
        {"a client as the parent", good, {{}, {}, true}, kNow, "a client"},
    };
    for (const auto& item : cases) {
        const KelTlsPeer peer =
            ring->Examine(item.certificate.Get(), KelTlsSide::Client, item.expected, item.now);
        EXPECT_EQ(peer.isVerified, item.problem[0] == '\0') << item.name << ": " << peer.problem;
        EXPECT_THAT(peer.problem, HasSubstr(item.problem)) << item.name;
        const KelString device = &item.certificate == &own ? kRelay.guid : kClient.guid;
        EXPECT_EQ(peer.guid, peer.isVerified ? device : "");
    }
}

TEST_F(KeysTest, ARevokedDeviceIsTrustedByNoRingThatKnowsTheListAndItsGuidIsFreeForAnotherKey) {
    const KelCertificate certificate = Made(authority_.Issue(clientKey_.Get(), kClient, kNow));
    const KelCertificate renewed =
        Made(authority_.Renew(Made(KelCertificateRequest::Make(clientKey_, kClient)), kNow + kDay));
    EXPECT_THAT(ErrorOf(authority_.Issue(relayKey_.Get(), kClient, kNow)), HasSubstr("kel keys revoke"));
    ASSERT_TRUE(authority_.Revoke(kClient.guid, kNow));
    EXPECT_FALSE(authority_.Revoke(kClient.guid, kNow)) << "it has none any more";
    EXPECT_THAT(ErrorOf(authority_.Renew(Made(KelCertificateRequest::Make(clientKey_, kClient)), kNow)),
                HasSubstr("kel keys join"));

    KelKeyRing::Parts parts = PartsOf(relayKey_, kRelay);
    parts.revoked = Made(authority_.Revoked());
    EXPECT_EQ(parts.revoked.Number(), 1);
    const auto ring = RingOf(std::move(parts));
    for (const KelCertificate& revoked : {certificate, renewed}) {
        const KelTlsPeer peer = ring->Examine(revoked.Get(), KelTlsSide::Client, {}, kNow);
        EXPECT_THAT(peer.problem, HasSubstr("revoked"));
    }
    const KelKeyPair next = Made(KelKeyPair::Make());
    const KelCertificate again = Made(authority_.Issue(next.Get(), kClient, kNow));
    EXPECT_TRUE(ring->Examine(again.Get(), KelTlsSide::Client, {}, kNow).isVerified);

    ASSERT_TRUE(authority_.Revoke(kClient.guid, kNow));
    EXPECT_EQ(Made(authority_.Revoked()).Number(), 2);
    EXPECT_EQ(Made(authority_.Revoked()).Count(), 3U);
    const KelIssuer stranger = Made(KelIssuer::Make(kNow));
    EXPECT_FALSE(KelRevocationList::FromPem(Made(stranger.ListRevoked({certificate}, 9, kNow)),
                                            authority_.Certificate()));
}

TEST_F(KeysTest, ANewKeyNeedsTheProofOfTheFormerOneAndEndsItOnceItIsInUse) {
    const KelCertificate former = Made(authority_.Issue(clientKey_.Get(), kClient, kNow));
    const KelKeyPair next = Made(KelKeyPair::Make());
    const KelCertificateRequest request = Made(KelCertificateRequest::Make(next, kClient));
    for (const KelString& proof : {KelString(), Made(relayKey_.Sign(request.Der())),
                                   Made(next.Sign(request.Der())), Made(clientKey_.Sign("another text"))})
        EXPECT_THAT(ErrorOf(authority_.Replace(request, proof, kNow)), HasSubstr("not signed"));
    EXPECT_THAT(ErrorOf(authority_.Renew(request, kNow)), HasSubstr("another key"));

    const KelString proof = Made(clientKey_.Sign(request.Der()));
    for (int i = 0; i < 2; ++i)  // the first answer may have been lost
        EXPECT_EQ(Made(authority_.Replace(request, proof, kNow)).Fingerprint(), KeyFingerprint(next.Get()));
    EXPECT_EQ(Made(authority_.Revoked()).Count(), 0U);
    const KelCertificate latest = Made(authority_.Renew(request, kNow));
    const KelRevocationList revoked = Made(authority_.Revoked());
    EXPECT_EQ(revoked.Count(), 1U);
    EXPECT_TRUE(revoked.Has(former.Serial()));
    EXPECT_EQ(authority_.Find(kClient.guid, kNow)->Serial(), latest.Serial());
}

TEST_F(KeysTest, ADeviceFillsNeitherTheFilesOfTheAuthorityNorTheListOfRevokedCertificates) {
    const KelCertificateRequest same = Made(KelCertificateRequest::Make(clientKey_, kClient));
    EXPECT_TRUE(authority_.Issue(clientKey_.Get(), kClient, kNow));
    for (int i = 0; i < 20; ++i)
        EXPECT_TRUE(authority_.Renew(same, kNow));
    EXPECT_NE(Made(authority_.Renew(same, kNow + kDay)).Serial(),
              authority_.Find(kClient.guid, kNow)->Serial());
    ASSERT_TRUE(authority_.Revoke(kClient.guid, kNow));
    EXPECT_EQ(Made(authority_.Revoked()).Count(), 11U);

    KelKeyPair key = relayKey_;
    EXPECT_TRUE(authority_.Issue(key.Get(), kRelay, kNow));
    const auto replace = [&](std::int64_t now) {
        const KelKeyPair next = Made(KelKeyPair::Make());
        const KelCertificateRequest request = Made(KelCertificateRequest::Make(next, kRelay));
        if (!authority_.Replace(request, Made(key.Sign(request.Der())), now)) return false;
        key = next;
        return static_cast<bool>(authority_.Renew(request, now));
    };
    for (int i = 0; i < 20; ++i)
        replace(kNow);
    EXPECT_LT(Made(authority_.Revoked()).Count(), 11U + 10);
    EXPECT_TRUE(replace(kNow + kDay));

    ASSERT_TRUE(
        FileWriteText(folder_ / "Authority/Revoked/" + kRelay.guid + ".pem", KelString(2 << 20, ' ')));
    EXPECT_FALSE(authority_.Revoke(kRelay.guid, kNow)) << "those of before cannot be read";
}

TEST_F(KeysTest, AnInvitationEnrolsAsManyDevicesAsItSaysAndNoneWithoutItsSecret) {
    const KelInvitation made =
        Made(invitations_.Make(kRelay.guid, {1, kNow + kDay, KelDeviceRole::Relay}, kNow));
    const KelInvitation read = Made(KelInvitation::FromToken(made.ToToken()));
    EXPECT_EQ(read.scheme, "ABCD");
    EXPECT_EQ(read.expires, kNow + kDay);
    EXPECT_EQ(read.ClockProblem(kNow), "");
    EXPECT_EQ(read.ClockProblem(kNow - 365 * kDay), "");
    EXPECT_THAT(read.ClockProblem(kNow - 367 * kDay), HasSubstr("too far ahead"));
    EXPECT_THAT(read.ClockProblem(kNow + kDay), HasSubstr("has ended"));
    EXPECT_EQ(read.authority, authority_.Certificate().Fingerprint());
    const auto request = Made(KelCertificateRequest::Make(clientKey_, kClient));
    const auto other = Made(KelCertificateRequest::Make(relayKey_, kRelay));
    const auto sent = [](const KelEnrolRequest& value) {
        return Made(KelEnrolRequest::FromContainer(value.ToContainer()));
    };

    KelInvitation guessed = read;
    guessed.secret[0] ^= 1;
    EXPECT_THAT(ErrorOf(invitations_.Enrol(KelEnrolRequest::Make(guessed, request), kNow)),
                HasSubstr("unknown"));
    KelEnrolRequest moved = KelEnrolRequest::Make(read, request);
    moved.request = other;  // what a relay could try with a request that it passes up
    EXPECT_THAT(ErrorOf(invitations_.Enrol(sent(moved), kNow)), HasSubstr("unknown"));
    EXPECT_THAT(ErrorOf(invitations_.Enrol(sent(KelEnrolRequest::Make(read, request)), kNow + kDay)),
                HasSubstr("is over"));

    for (int time = 0; time < 2; ++time) {  // the first answer was lost
        const KelCertificate certificate =
            Made(invitations_.Enrol(sent(KelEnrolRequest::Make(read, request)), kNow));
        EXPECT_EQ(Made(certificate.Identity()), kClient);
        EXPECT_EQ(certificate.Fingerprint(), KeyFingerprint(clientKey_.Get()));
    }
    EXPECT_THAT(ErrorOf(invitations_.Enrol(sent(KelEnrolRequest::Make(read, other)), kNow)),
                HasSubstr("as often as it may"));
    EXPECT_THAT(TempFolder::Read(folder_ / ("Authority/Invitations/" + read.id + ".xml")),
                testing::Not(HasSubstr(HexText(read.secret))));
    const KelInvitation ofClients = Made(invitations_.Make(kRelay.guid, {1, kNow + kDay}, kNow));
    EXPECT_THAT(ErrorOf(invitations_.Enrol(sent(KelEnrolRequest::Make(ofClients, other)), kNow)),
                HasSubstr("is for clients"));
}

TEST_F(KeysTest, WhatStrangersSendIsRefusedUnlessItIsExactlyOfItsForm) {
    const KelInvitation invitation =
        Made(invitations_.Make(kRelay.guid, {1, kNow + kDay, KelDeviceRole::Relay}, kNow));
    const KelString token = invitation.ToToken();
    for (std::size_t i = 0; i < token.size(); i += 7) {
        KelString damaged = token;
        damaged[i] = damaged[i] == 'A' ? 'B' : 'A';
        EXPECT_FALSE(KelInvitation::FromToken(damaged)) << i;
        EXPECT_FALSE(KelInvitation::FromToken(token.substr(0, i))) << i;
    }

    const auto request = Made(KelCertificateRequest::Make(clientKey_, kClient));
    const KelContainer good = KelEnrolRequest::Make(invitation, request).ToContainer();
    ASSERT_TRUE(KelEnrolRequest::FromContainer(good));
    KelString unsignedDer = request.Der();
    unsignedDer[unsignedDer.size() - 5] ^= 1;
    const auto master = Made(KelCertificateRequest::Make(clientKey_, {kClient.guid, KelDeviceRole::Master}));
    for (const auto& [name, value] : std::vector<std::pair<const char*, KelString>>{
             {"Invitation", ""},
             {"Invitation", "../../0123456789"},
             {"Proof", KelString(64, 'g')},
             {"Request", ""},
             {"Request", "?"},
             {"Request", Base64Encode(request.Der() + "x")},
             {"Request", Base64Encode(unsignedDer)},
             {"Request", Base64Encode(KelString(5000, '0'))},
             {"Request", Base64Encode(master.Der())},
             {"Request",
              Base64Encode(Made(KelCertificateRequest::Make(clientKey_, {"me", kClient.role})).Der())}}) {
        KelContainer bad = good;
        bad.SetString(name, value);
        EXPECT_FALSE(KelEnrolRequest::FromContainer(bad)) << name << " " << value.substr(0, 40);
    }
}

TEST_F(KeysTest, AFolderGivesTheRingAgainAndRefusesPartsOfAnother) {
    const KelKeyFolder keys(folder_ / "Keys");
    ASSERT_TRUE(keys.Create(kClient));
    EXPECT_FALSE(keys.Create(kClient)) << "a key is never overwritten";
    const auto fresh = Made(keys.Load());
    EXPECT_FALSE(fresh->IsEnrolled());
    const KelCertificate relay = Made(authority_.Issue(relayKey_.Get(), kRelay, kNow));
    EXPECT_THAT(fresh->Examine(relay.Get(), KelTlsSide::Client, {}, kNow).problem,
                HasSubstr("not been enrolled"));

    const KelCertificate own = Made(authority_.Issue(fresh->Get().key.Get(), kClient, kNow));
    const KelParentPin parent{{"10.0.0.1:1610"}, kRelay.guid, relay.Fingerprint(), relay.Serial()};
    ASSERT_TRUE(keys.SaveEnrolment(own, authority_.Certificate(), "ab12"));
    ASSERT_TRUE(authority_.Revoke(kRelay.guid, kNow));
    ASSERT_TRUE(keys.SaveRevoked(Made(authority_.Revoked())));
    ASSERT_TRUE(keys.SaveParent(parent));
    const auto ring = Made(keys.Load());
    EXPECT_TRUE(ring->IsEnrolled());
    EXPECT_EQ(ring->Get().groupKey, "ab12");
    EXPECT_EQ(ring->Get().revoked.Number(), 1);
    EXPECT_EQ(ring->Get().parent, parent);
    EXPECT_EQ(ring->ExpectedAt("10.0.0.1", 1610).fingerprint, relay.Fingerprint());
    EXPECT_TRUE(ring->ExpectedAt("10.0.0.1", 1611).guid.empty());

    for (const bool isInterrupted : {false, true}) {
        ASSERT_TRUE(keys.MakeNextKey());
        const KelKeyPair next = keys.LoadNextKey().value();
        ASSERT_TRUE(authority_.Revoke(kClient.guid, kNow));
        const KelCertificate certificate = Made(authority_.Issue(next.Get(), kClient, kNow));
        ASSERT_TRUE(isInterrupted ? keys.SaveCertificate(certificate) : keys.TakeNextKey(certificate));
        EXPECT_EQ(KeyFingerprint(Made(keys.Load())->Get().key.Get()), KeyFingerprint(next.Get()));
        EXPECT_FALSE(keys.LoadNextKey());
    }
    ASSERT_TRUE(keys.SaveCertificate(relay));
    EXPECT_THAT(ErrorOf(keys.Load()), HasSubstr("another key"));
    std::filesystem::permissions(folder_ / "Keys/key.pem", std::filesystem::perms(0644));
    EXPECT_THAT(ErrorOf(keys.Load()), HasSubstr("chmod 600"));
}

}  // namespace
