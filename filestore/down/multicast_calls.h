#pragma once

#include <cstdint>

#include "filestore/db/file_store_entry.h"
#include "kel/types.h"

// The calls around a multicast transfer: to the HTTP module of the device that listens, which is another one,
// except for ListenHere and what an empty URL stands for. Network, but for that; any thread; hold no lock.
namespace filestore {

inline constexpr const char* kValueMulticastAddress = "MulticastAddress";      // dotted IPv4
inline constexpr const char* kValueMulticastPort = "MulticastPort";            // int32
inline constexpr const char* kValueMulticastBlockSize = "MulticastBlockSize";  // int32, bytes

/// The blocks of a file that devices lack. One thread at a time.
class MissingBlocks {
  public:
    explicit MissingBlocks(const FileStoreEntry& file);

    /// Adds what a device names: "9" or "3-5". False for anything else and for blocks that do not exist.
    bool Add(const KelString& text);
    void Add(const MissingBlocks& other);
    void AddAll() { isMissing_.assign(isMissing_.size(), true); }

    std::size_t Count() const;
    std::size_t Total() const { return isMissing_.size(); }
    /// Their numbers, ascending.
    KelVector<std::uint32_t> Numbers() const;

  private:
    KelVector<bool> isMissing_;  ///< by number
};

/// What a device says about its reception.
struct Reception {
    enum class State : unsigned char {
        Completed,
        Incomplete,  ///< blocks are missing, or it is still verifying what it has
        Spoilt,      ///< it has to start again
        Failed,      ///< it does not answer, does not listen, or has not received anything
    };
    State state = State::Failed;
    MissingBlocks missing;
    unsigned int error = 0;  ///< of the call
};

/// Has the HTTP module of this device receive `file` into its FilePath. 0, or why it does not listen.
unsigned int ListenHere(const FileStoreEntry& file);

/// Asks a device that listens for `file`; with `differential` it names the blocks that it lacks.
Reception AskForReception(const KelString& deviceUrl, const FileStoreEntry& file, bool differential);

/// Has a device that had to drop what it received listen again. False when it does not.
bool ListenAgain(const KelString& deviceUrl, const FileStoreEntry& file);

/// Has a device, by an empty URL this one, listen to the group no more.
void StopListening(const KelString& deviceUrl, const KelString& address);

/// Has a device request the file, if it still waits for the transfer.
void ResetReception(const KelString& deviceUrl, const KelString& url);

}  // namespace filestore
