#include "kel/format.h"
#include "kelcore/error_codes.h"
#include "modules/keys/keys.h"

/// Another parent is learnt anew; one that has only another address by now stays known by its key.
void Keys::FollowParent(const ParentPlaces& parent) {
    if (parent.port == 0) return;
    KelParentPin pin = keeper_.Current()->Get().parent;
    if (pin.places.empty() || pin.places.front() != parent.written.front()) pin = {};
    pin.places = parent.written;
    if (const KelStatus taken = keeper_.TakeParent(pin); !taken)
        failures_.Failed(KelDebugLevel::Error, "parent",
                         "The parent cannot be noted: " + taken.Error().message);
    else
        failures_.Succeeded("parent", "The parent is noted again");
}

/// Asks the parent for a newer list, and learns by that who it is.
bool Keys::FetchRevoked(const ParentPlaces& parent) {
    const AgentSecurityKeys keys = keeper_.Current();
    KelContainer container;
    container.SetInt64("Known", keys->Get().revoked.Number());
    ParentCall call{keys, {}};
    if (CallParent(parent, "KeysGetRevoked", container, call) != kKelOk) {
        Log().Detail("The parent gives no list of revoked certificates: %S\n", call.problem);
        FollowReplacedParent(parent);
        return false;
    }
    NoteParent(call.peer);
    TakeList(container.GetString("Revoked"));
    return true;
}

/// A list of revoked certificates, which may be empty.
void Keys::TakeList(const KelString& pem) {
    const KelStatus taken = pem.empty() ? KelStatus() : keeper_.TakeRevoked(pem);
    if (taken)
        failures_.Succeeded("revoked", "The list of revoked certificates is good again");
    else
        failures_.Failed(KelDebugLevel::Error, "revoked",
                         "The list of revoked certificates is not used: " + taken.Error().message);
}

/// On the master, which has no parent to fetch it from.
void Keys::TakeOwnList() {
    const auto revoked = master_ ? master_->Revoked() : KelResult<KelRevocationList>(KelRevocationList());
    if (revoked) TakeList(revoked->Pem());
}

void Keys::NoteParent(const KelTlsPeer& peer) {
    KelParentPin pin = keeper_.Current()->Get().parent;
    const bool isNew = pin.guid.empty();
    if (!peer.isVerified || pin.serial == peer.serial) return;
    pin.guid = peer.guid;
    pin.fingerprint = peer.fingerprint;
    pin.serial = peer.serial;
    if (keeper_.TakeParent(pin) && isNew)
        Log().Print("The parent is %S, with the key %S\n", pin.guid, pin.fingerprint);
}

/// The parent may have been set up again, with another key. It is believed when the authority has revoked the
/// former one: the list that says so is signed, so any relay may bring it.
void Keys::FollowReplacedParent(const ParentPlaces& parent) {
    KelKeyRing::Parts parts = keeper_.Current()->Get();
    const KelParentPin former = parts.parent;
    if (former.serial.empty()) return;
    parts.parent = {parent.written, {}, {}, {}};
    const auto anyRelay = KelKeyRing::Make(parts);
    if (!anyRelay) return;
    KelContainer container;
    container.SetInt64("Known", parts.revoked.Number());
    ParentCall call{*anyRelay, {}};
    if (CallParent(parent, "KeysGetRevoked", container, call) != kKelOk) return;
    const KelString revoked = container.GetString("Revoked");
    if (!revoked.empty() && !keeper_.TakeRevoked(revoked)) return;
    const KelRevocationList& known = keeper_.Current()->Get().revoked;
    if (call.peer.guid == former.guid && !known.Has(call.peer.serial))  // the same device with a new key
        parts.parent = {parent.written, call.peer.guid, call.peer.fingerprint, call.peer.serial};
    if (!known.Has(former.serial) || !keeper_.TakeParent(parts.parent)) return;
    Log().Print("The certificate of the former parent, %S, was revoked; %S is there in its place\n",
                former.guid, call.peer.guid);
    thread_.Signal(0);
}
