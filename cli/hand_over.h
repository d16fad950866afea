#pragma once

#include <cstdint>
#include <functional>

#include "cli/file_selection.h"
#include "cli/remote.h"
#include "kel/container.h"
#include "kel/result.h"
#include "kel/types.h"

// Files named on the command line, which `publish` and `send` hand over to the agent one after the other.

/// To wait for an answer at least: the agent copies and hashes the file before.
inline constexpr int kHandOverSeconds = 3600;

/// Refuses a part of a file key that no store accepts; `what` names it.
KelStatus CheckKeyPart(const char* what, const KelString& part);

/// A progress bar on stderr; shows nothing when stderr is not a terminal. One thread at a time.
class ProgressBar {
  public:
    /// `whole` in bytes.
    explicit ProgressBar(std::int64_t whole);
    /// Removes the bar.
    ~ProgressBar();
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    void Show(std::int64_t done, const KelString& what);

    /// The bar's text, `width` marks wide.
    static KelString Text(std::int64_t done, std::int64_t whole, std::size_t width);

  private:
    std::int64_t whole_;
    bool shown_;
};

/// How a command hands over a file.
struct HandOver {
    KelString action;
    std::function<KelContainer(const SourceFile& file)> arguments;
    /// The entry of a file that was taken in the list that the command prints; with FileSize.
    std::function<KelContainer(const SourceFile& file, KelContainer answer)> item;
    const char* done;  ///< "sent" or "published", for the message about a file that was not
};

/// Calls the action for each file, up to the first that is refused, with a progress bar. The items of the
/// files that were taken are appended to `taken` under "Values". An exit code.
int HandOverFiles(const Remote& remote, const KelVector<SourceFile>& files, const HandOver& handOver,
                  KelContainer& taken);
