#pragma once

#include <atomic>
#include <chrono>
#include <optional>

#include "kel/container.h"
#include "kel/mutex.h"
#include "kel/periodic_thread.h"
#include "kelcore/failure_log.h"
#include "kelcore/module.h"
#include "modules/keys/key_keeper.h"
#include "modules/keys/master_keys.h"
#include "modules/keys/parent_calls.h"

/// The keys module, of devices of a tree with keys: it has this device enrolled with an invitation, renews
/// its certificate, passes the list of revoked certificates down and requests of the devices below up; on the
/// master, it is the authority. Its actions are listed in Register.
///
/// Every result but 0 comes with a text Message.
class Keys final : public KelModule {
  public:
    Keys();
    ~Keys() override;

  protected:
    void Register(const char* handle) override;
    bool Initialise() override;
    bool Activate() override;
    void Cleanup() override;
    void Unregister() override;
    std::span<const IniSetting> IniSettings() const override;

  private:
    // keys_actions.cpp
    void RegisterMaster(const char* handle);
    unsigned int Enrol(KelContainer* arguments);
    unsigned int EnrolAnyone(KelContainer* arguments);
    unsigned int Renew(KelContainer* arguments);
    unsigned int GetRevoked(KelContainer* arguments);
    unsigned int GetValues(KelContainer* arguments);
    unsigned int Join(KelContainer* arguments);
    unsigned int ForgetParent(KelContainer* arguments);
    unsigned int RenewKey(KelContainer* arguments);
    unsigned int Invite(KelContainer* arguments);
    unsigned int Revoke(KelContainer* arguments);
    unsigned int List(KelContainer* arguments);
    unsigned int Sign(KelContainer* arguments);
    unsigned int PassUp(const char* action, KelContainer* arguments, std::span<const char* const> results);
    unsigned int Fail(KelContainer* arguments, const KelError& error);

    // The thread's work.
    bool Step();

    // keys_certificate.cpp
    KelString JoinProblem() const;
    void NoteJoinProblem(const KelString& problem);
    bool JoinTree(const KelString& token);
    KelStatus TakeAnswer(const KelContainer& answer, const KelString& authority, const ParentPlaces& parent,
                         const KelTlsPeer& peer);
    void ExamineOwnCertificate(const KelKeyRing& keys, std::int64_t now);
    bool RenewWhenDue(const KelKeyRing& keys, const ParentPlaces& parent, std::int64_t now);
    KelResult<KelCertificate> AskForNextKey(const KelKeyPair& next, const ParentPlaces& parent,
                                            std::int64_t now);
    bool FollowNextKey(const ParentPlaces& parent, std::int64_t now);

    // keys_parent.cpp
    void FollowParent(const ParentPlaces& parent);
    bool FetchRevoked(const ParentPlaces& parent);
    void TakeList(const KelString& pem);
    void TakeOwnList();
    void NoteParent(const KelTlsPeer& peer);
    void FollowReplacedParent(const ParentPlaces& parent);

    KeyKeeper keeper_;
    std::optional<MasterKeys> master_;  ///< from Initialise on, on the master
    KelFailureLog failures_;
    mutable KelMutex mutex_;
    KelString joinProblem_ KEL_GUARDED_BY(mutex_);  ///< what the last try to join has failed by
    std::atomic<int> enrolments_ = 0;               ///< that are being worked on
    /// When the last certificate came: one that is due again at once, by a wrong clock, has to wait for a
    /// day.
    std::optional<std::chrono::steady_clock::time_point> renewed_;
    /// The certificate is for a new key: renewing it once shows the authority that the former one is not
    /// needed any more.
    bool mustConfirm_ = false;
    std::atomic<std::uint32_t> checkSeconds_ = 0;
    std::atomic<std::uint32_t> retrySeconds_ = 0;
    KelPeriodicThread thread_;
};

/// True when two thirds of a certificate's time are over, at `now` in seconds since the epoch.
bool IsRenewalDue(const KelCertificate& certificate, std::int64_t now);
