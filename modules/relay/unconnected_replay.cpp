#include "modules/relay/unconnected_replay.h"

#include <sys/stat.h>

#include <algorithm>
#include <string_view>
#include <utility>

#include "kel/directory.h"
#include "kel/file.h"
#include "kel/path.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_key.h"
#include "kelcore/file_values.h"

namespace {

constexpr std::int64_t kGraceSeconds = 60;  ///< an unusable request may still be being written
constexpr std::string_view kContentSuffix = ".xml";

struct Candidate {
    KelString path;
    std::int64_t changed = 0;      ///< seconds since the epoch
    std::int64_t nanoseconds = 0;  ///< the rest of it
};

/// Reads the time of the last change; false when it is not a regular file.
bool Examine(Candidate& candidate) {
    struct stat status {};
    if (stat(candidate.path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
    candidate.changed = status.st_ctim.tv_sec;
    candidate.nanoseconds = status.st_ctim.tv_nsec;
    return true;
}

/// The regular files of a folder, the oldest first; not the temporary ones that are still being written.
KelVector<Candidate> ListCandidates(const KelString& folder) {
    KelVector<Candidate> candidates;
    for (const KelString& name : DirList(folder)) {
        Candidate candidate{folder + "/" + name};
        if (!name.starts_with(kTempFilePrefix) && Examine(candidate))
            candidates.push_back(std::move(candidate));
    }
    std::stable_sort(candidates.begin(), candidates.end(), [](const Candidate& left, const Candidate& right) {
        return std::pair(left.changed, left.nanoseconds) < std::pair(right.changed, right.nanoseconds);
    });
    return candidates;
}

/// True for a file that is the content of the request next to it.
bool IsContentOfAnother(const KelString& path) {
    if (!path.ends_with(kContentSuffix)) return false;
    KelContainer request;
    return request.LoadFromFile(path.substr(0, path.size() - kContentSuffix.size())) &&
           request.Has(kValueFilePath);
}

KelString OwnDeviceUrl() {
    KelContainer answer;
    return CallLocal("FileStoreGetDeviceUrl", answer) == kKelOk ? answer.GetString("DeviceUrl") : KelString();
}

unsigned int CallStore(KelContainer arguments) {
    return CallLocal("FileStoreReceiveUnconnectedFile", arguments);
}

unsigned int HandOver(const UnconnectedRequest& request, const KelString& ownDeviceUrl) {
    KelContainer arguments = ReplayArguments(request, ownDeviceUrl);
    const unsigned int code = CallStore(arguments);
    if (code != kKelErrorGuidScheme) return code;
    // The request dates from before this device adopted its parent's scheme.
    arguments.SetString(kValueSourceDevice, ownDeviceUrl);
    return CallStore(std::move(arguments));
}

}  // namespace

void UnconnectedReplay::Run(const KelString& folder, std::int64_t now) {
    for (const char* kind : {"identity", "inventory"}) {
        const UnconnectedClaim claim(folder + "/" + kind, folder + "/claimed/" + kind);
        claim.GiveBack();  // what an interrupted run left
        for (Candidate& candidate : ListCandidates(folder + "/" + kind)) {
            if (stop_()) return;
            if (IsContentOfAnother(candidate.path)) continue;
            const auto request = ReadUnconnectedRequest(candidate.path);
            if (request) {
                Replay(*request, claim);
            } else if (Examine(candidate) && now - candidate.changed >= kGraceSeconds) {
                MoveAside(folder + "/damaged", candidate.path, request.Error().message);
            }
        }
    }
}

void UnconnectedReplay::Replay(const UnconnectedRequest& kept, const UnconnectedClaim& claim) {
    const KelString ownDeviceUrl = OwnDeviceUrl();
    if (ownDeviceUrl.empty()) return LogOnce("The file store does not report this device's URL");
    const auto request = claim.Take(kept);
    if (!request) {
        claim.GiveBack();
        return LogOnce(
            KelFormat("The kept request %S is not handed over: %S", kept.path, request.Error().message));
    }
    if (const unsigned int code = HandOver(*request, ownDeviceUrl); code != kKelOk) {
        claim.GiveBack();
        return LogOnce(KelFormat("The file store did not take the kept request %S, error %u; see its log",
                                 kept.path, code));
    }
    log_.Print("The kept file %S is on its way up\n", FileKey::Read(request->values).Text());
    problem_.clear();
    const bool isGone =
        FileDelete(request->path) && (request->contentPath.empty() || FileDelete(request->contentPath));
    if (!isGone)
        log_.Error("%S was handed over but cannot be removed; check the rights of its folder\n",
                   request->path);
}

void UnconnectedReplay::MoveAside(const KelString& folder, const KelString& path, const KelString& problem) {
    const KelString aside = folder + path.substr(path.rfind('/'));
    if (PathCreate(folder) && FileRename(path, aside)) {
        log_.Error("%S is no usable request and was moved to %S: %S\n", path, aside, problem);
    } else {
        LogOnce(KelFormat("%S is no usable request (%S) and cannot be moved to %S; remove it", path, problem,
                          aside));
    }
}

void UnconnectedReplay::LogOnce(const KelString& problem) {
    if (problem != problem_) log_.Warning("%S; tried again at the next check\n", problem);
    problem_ = problem;
}
