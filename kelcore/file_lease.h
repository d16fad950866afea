#pragma once

#include "kel/types.h"

/// Which files are in use in this process, so that what removes files can wait for those who read, write or
/// send them. Users take a KelFileLease, removals a KelFileClaim; a name has any number of leases or one
/// claim. Names are absolute paths, or whatever else the modules agree on. Any thread.

/// Keeps a file from being removed for as long as it lives. A removal that has begun is waited for, so the
/// file may be gone afterwards; it takes a few milliseconds, but the caller must not hold a lock that the
/// removal needs.
class KelFileLease {
  public:
    KelFileLease() = default;  ///< of nothing
    explicit KelFileLease(KelString name);
    ~KelFileLease() { Release(); }
    KelFileLease(KelFileLease&& other) noexcept : name_(std::move(other.name_)) { other.name_.clear(); }
    KelFileLease& operator=(KelFileLease&& other) noexcept;
    KelFileLease(const KelFileLease&) = delete;
    KelFileLease& operator=(const KelFileLease&) = delete;

    /// The same without waiting: a lease of nothing when the file is being removed.
    static KelFileLease Try(KelString name);

    explicit operator bool() const { return !name_.empty(); }
    void Release();

    /// The names in use that begin with `prefix`.
    static KelVector<KelString> Names(const KelString& prefix);

  private:
    KelString name_;
};

/// Keeps others from using a file while it is removed. Never waits.
class KelFileClaim {
  public:
    /// False, with nothing changed, when the file is in use or being removed by another thread.
    explicit KelFileClaim(KelString name);
    ~KelFileClaim();
    KelFileClaim(KelFileClaim&& other) noexcept : name_(std::move(other.name_)) { other.name_.clear(); }
    KelFileClaim(const KelFileClaim&) = delete;
    KelFileClaim& operator=(const KelFileClaim&) = delete;
    KelFileClaim& operator=(KelFileClaim&&) = delete;

    explicit operator bool() const { return !name_.empty(); }

  private:
    KelString name_;
};
