#pragma once

#include <cstdint>

#include "kel/container.h"
#include "kel/types.h"

namespace filestore {

/// Decides whether the caller with these arguments may upload under `url`: kKelOk for the device that has
/// offered the file, and for a URL that is none of the upstream folder; else kKelAnswerNotExpected, with the
/// reason in the log. From any thread.
unsigned int CheckUploadSender(const KelString& url, const KelContainer& arguments);

/// Decides whether an upload of `size` bytes under the URL path `url` may begin: kKelAnswerExpected when a
/// row waits for it, kKelOk when the URL is none of the upstream store or the file has arrived already.
/// Otherwise, with the reason in the log, as CheckUpload. From any thread.
unsigned int ExpectUpload(const KelString& url, std::int64_t size);

/// Decides whether an upload is accepted, before it is put in place and answered: `content` is the path of
/// what has come under the URL path `url`. kKelOk when size and MD5 are those of the row that waits for it,
/// or when the URL is none of the upstream store. Otherwise, with the reason in the log:
/// kKelAnswerNotExpected when no row names the URL, kKelAnswerOtherContent for other content and for an
/// archive that cannot be unpacked, kKelErrorNotAvailable when row or content cannot be read now. Reads the
/// whole content: hold no lock. From any thread.
unsigned int CheckUpload(const KelString& url, const KelString& content);

}  // namespace filestore
