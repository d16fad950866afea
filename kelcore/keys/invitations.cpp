#include "kelcore/keys/invitations.h"

#include "kel/checksum.h"
#include "kel/directory.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kel/text.h"
#include "kelcore/error_codes.h"

namespace {

constexpr std::size_t kSchemeDigits = 4;

KelError Refused(const char* why) {
    return {kKelErrorBadInput, why};
}

}  // namespace

KelResult<KelInvitation> KelInvitations::Make(const KelString& guid, const Offer& offer,
                                              std::int64_t now) const {
    if (offer.uses < 1 || offer.uses > kMaxUses || offer.expires <= now)
        return Refused("an invitation needs an end in the future and 1 to 100000 uses");
    DropEnded(now);
    const KelInvitation invitation{guid.substr(0, kSchemeDigits), offer.expires, HexText(RandomBytes(8)),
                                   authority_.Certificate().Fingerprint(), RandomBytes(32)};
    KelContainer values;
    values.SetString("SecretHash", TextSha256(invitation.secret));
    values.SetInt64("Created", now);
    values.SetInt64("Expires", offer.expires);
    values.SetInt32("Uses", offer.uses);
    values.SetInt32("UsesLeft", offer.uses);
    values.SetString("Role", KelDeviceRoleName(offer.role));
    if (const KelStatus saved = values.SaveToFile(PathOf(invitation.id)); !saved) return saved.Error();
    return invitation;
}

KelResult<KelCertificate> KelInvitations::Enrol(const KelEnrolRequest& request, std::int64_t now) const {
    const KelString path = PathOf(request.invitation);
    KelContainer values;
    // One answer for all that a stranger could try out.
    if (!FileExists(path) || !values.LoadFromFile(path) ||
        !request.IsProvedBy(values.GetString("SecretHash")))
        return Refused("the invitation is unknown or over; make another one on the master: kel invite");
    if (values.GetInt64("Expires") <= now)
        return Refused("the invitation is over; make another one on the master: kel invite");
    const KelDeviceIdentity& device = request.request.Identity();
    if (device.role != KelDeviceRole::Client && values.GetString("Role") != KelDeviceRoleName(device.role))
        return Refused(
            "the invitation is for clients; make another one on the master: kel invite --role relay");
    const auto present = authority_.Find(device.guid, now);
    const bool isRepeated = present && present->Fingerprint() == request.request.Fingerprint();
    const std::int32_t left = values.GetInt32("UsesLeft");
    if (!isRepeated && left <= 0)
        return Refused("the invitation has been used as often as it may; make another one: kel invite");
    if (!isRepeated) {
        values.SetInt32("UsesLeft", left - 1);
        if (const KelStatus saved = values.SaveToFile(path); !saved) return saved.Error();
    }
    return authority_.Issue(request.request.PublicKey(), device, now);
}

void KelInvitations::DropEnded(std::int64_t now) const {
    for (const KelString& name : DirList(folder_)) {
        const KelString path = folder_ + "/" + name;
        KelContainer values;
        if (name.ends_with(".xml") && values.LoadFromFile(path) && values.GetInt64("Expires") <= now)
            FileDelete(path);
    }
}
