#pragma once

#include "kel/types.h"
#include "kel/unique_fd.h"

/// The agent's own socket, below its root folder: calls over it are those of the device's operator.
inline constexpr const char* kAgentSocketFolder = "run";
inline constexpr const char* kAgentSocketName = "agent.sock";

/// How a Unix socket is addressed whatever the length of its path, which a socket address limits to about a
/// hundred bytes: through the open folder. Valid for as long as this exists, in this process.
class KelSocketPath {
  public:
    /// Of the socket `name` in `folder`. Without the folder, Text is empty and errno says why.
    KelSocketPath(const KelString& folder, const char* name);

    const KelString& Text() const { return text_; }
    int Folder() const { return folder_.Get(); }

  private:
    UniqueFd folder_;
    KelString text_;
};
