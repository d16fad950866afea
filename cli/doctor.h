#pragma once

#include <cstdint>

#include "kel/container.h"
#include "kel/types.h"

/// One thing that was looked at.
struct Finding {
    enum class State : unsigned char { Ok, Warning, Problem };

    KelString check;  ///< what was looked at, in one word
    State state = State::Ok;
    KelString message;  ///< what was found
    KelString advice;   ///< what to do; empty when nothing is wrong
};

/// What is wrong with the files of the root folder (absolute, without "/" at its end) and its disk.
KelVector<Finding> ExamineRoot(const KelString& root);

/// Of an agent that does not run: whether its address and port can be used, and whether its parent is
/// reached.
KelVector<Finding> ExamineStoppedAgent(const KelString& root);

/// What the values that a running agent gave for RelayGetValues say about its parent.
KelVector<Finding> ExamineParent(const KelContainer& relay);

/// When certificates end, by the values that a running agent gave for KeysGetValues; nothing in a plain tree.
KelVector<Finding> ExamineKeys(const KelContainer& keys, std::int64_t now);

/// Whether the agent, its parent and its children (the answer to RelayListChildren) go together with this
/// program. `running`: the version of the agent; `restart`: the command that starts it again.
KelVector<Finding> ExamineVersions(const KelString& running, const KelContainer& relay,
                                   const KelContainer& children, const KelString& restart);
