#pragma once

#include <atomic>
#include <cstdint>

#include "kel/types.h"

namespace filestore {

/// This device's parent, as the relay module knows it.
struct Parent {
    KelString name;
    KelString address;  ///< the name where no address is known
    KelString guid;
    std::uint32_t port = 0;
    bool isInSync = false;       ///< it has answered lately
    KelString problem;           ///< why not, when that is known
    std::int64_t since = 0;      ///< of isInSync, seconds since the epoch; 0: not known
    std::int64_t nextCheck = 0;  ///< when it is called again; the same unit

    /// True when it can be called: in sync and with a name or an address.
    bool IsKnown() const { return isInSync && !(name.empty() && address.empty()); }
    /// Where it is called: by its address when this device prefers addresses or knows no name, else by its
    /// name.
    KelString Host() const;
    /// Its call URL, with this agent's credentials.
    KelString CallUrl() const;
};

/// Asks the relay module; false when that fails. The one place that reads the parent's values.
bool ReadParent(Parent& parent);

/// Notices that the device has got another parent since this object was made. What the parent before has
/// answered is of no use then: it is recorded only under the mutex of the database, after a look here.
class ParentWatch {
  public:
    bool HasChanged() const;
    /// Has every watch notice a change; before the rows that depend on the parent are changed.
    static void NoteChange();

  private:
    const std::uint32_t begin_ = changes_;
    static std::atomic<std::uint32_t> changes_;
};

/// Where the sender of a file is called: the device that its row names, else the parent; empty while unknown.
KelString SenderUrl(const KelString& sourceDevice);

}  // namespace filestore
