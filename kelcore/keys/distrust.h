#pragma once

#include <cstddef>

#include "kel/debug.h"
#include "kel/mutex.h"
#include "kel/types.h"
#include "kelcore/failure_log.h"

/// The header of an answer with status 401 in which a server says why the caller's certificate proves
/// nothing.
inline constexpr const char* kCertificateProblem = "kel-certificate-problem";
inline constexpr std::size_t kMaxCertificateProblem = 400;  ///< bytes; longer ones are cut off

/// `problem` as the value of that header: printable, on one line.
KelString CertificateProblemLine(const KelString& problem);

/// Places ("host:port") at which trust fails, by the certificate of the device there or by that of this one.
/// The log gets a line when it begins and when it ends; who could not call a device finds out why. Any
/// thread.
class KelDistrust {
  public:
    explicit KelDistrust(const KelDebug& log) : log_(log) {}

    /// `line` is for the log, `reason` for ProblemAt.
    void Note(const KelString& place, KelString reason, const KelString& line);
    /// The device there is trusted, and trusts this one.
    void Clear(const KelString& place);
    /// The last call has failed for another reason.
    void Forget(const KelString& place);

    /// Why the device at this place was not called successfully last; empty when trust was not the reason.
    KelString ProblemAt(const KelString& place) const;

  private:
    static constexpr std::size_t kMostPlaces = 1000;

    KelFailureLog log_;
    mutable KelMutex mutex_;
    KelHash<KelString, KelString> problems_ KEL_GUARDED_BY(mutex_);
};

/// That of the HTTP client.
KelDistrust& Distrust();
