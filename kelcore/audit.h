#pragma once

#include <cstdint>

#include "kel/container.h"
#include "kel/types.h"

// The audit of a device: who changed its settings, windows, publications and devices, and how. One line of
// JSON for each admitted call from outside of an action that changes such, whether it succeeded or not, in
// data/Agent/audit.jsonl, readable by its owner only. A file that has reached 1 MiB becomes audit.1.jsonl,
// and so on to audit.4.jsonl, the oldest. Any thread.

/// Records a call that has ended: `arguments` with what the server has added to them, `answer` with the text
/// Message of a refusal. Texts are shortened, and neither the tree's password nor values that are named as
/// secrets appear. The line is on the disk afterwards; a failure is logged.
void AuditRecordCall(const KelString& action, const KelContainer& arguments, unsigned int result,
                     const KelContainer& answer);

/// The lines from `since` on (seconds since the epoch), the oldest first, but of more than `limit` only the
/// latest: Time (int64, seconds since the epoch), Operator (what the command line says, which proves
/// nothing), Address (of the caller; "local": over the agent's own socket), Action, Arguments (container),
/// Result (int64), Message.
KelVector<KelContainer> AuditRead(std::int64_t since, std::size_t limit);
