#pragma once

#include <cstdint>

#include "kel/container.h"
#include "kel/types.h"

// The audit of a device: who changed its settings, windows, publications and devices, and how. Each admitted
// call from outside of an action that changes such is recorded, whether it succeeds or not, in
// data/Agent/audit.jsonl, readable by its owner only: a line of JSON before the call, and one with the result
// after it, joined by the number Id. So a change is on record even when the agent is killed in the middle of
// it. A file that has reached 1 MiB becomes audit.1.jsonl, and so on to audit.4.jsonl, the oldest. Any
// thread.

/// A call that is being recorded.
class AuditedCall {
  public:
    /// Records that the call begins: `arguments` with what the server has added to them. `device`: the name
    /// of the device that the call is passed on to; empty: this one. Texts are shortened, and neither the
    /// tree's password nor values that are named as secrets appear. The line is on the disk afterwards; a
    /// failure is logged.
    AuditedCall(const KelString& action, const KelContainer& arguments, const KelString& device = {});

    /// Records its end: `answer` with the text Message of a refusal.
    void End(unsigned int result, const KelContainer& answer) const;

  private:
    std::int64_t id_;
};

/// The calls from `since` on (seconds since the epoch), the oldest first, but of more than `limit` only the
/// latest: Time (int64, seconds since the epoch), Operator (what the command line says, which proves
/// nothing), Address (of the caller; "local": over the agent's own socket), Master (address of the master
/// whose operator calls through it; absent: none), Device (that the call was passed on to; absent: this one),
/// Action, Arguments (container), Result (int64; absent: the call is running, or the agent ended meanwhile),
/// Message.
KelVector<KelContainer> AuditRead(std::int64_t since, std::size_t limit);
