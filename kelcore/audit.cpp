#include "kelcore/audit.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <mutex>
#include <utility>

#include "kel/file.h"
#include "kel/format.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kel/unique_fd.h"
#include "kelcore/agent.h"
#include "kelcore/call_origin.h"
#include "kelcore/failure_log.h"
#include "kelcore/json.h"
#include "kelcore/tree_passwords.h"

namespace {

constexpr off_t kMostBytes = off_t{1} << 20;
constexpr int kOldFiles = 4;
constexpr std::size_t kMostTextBytes = 1000;  ///< of one value; a window of 168 rates fits
constexpr std::uint32_t kMostValues = 100;    ///< of one name
constexpr int kMostLevels = 8;
constexpr const char* kHidden = "***";

/// Guards the files.
std::mutex& FileMutex() {
    static std::mutex mutex;
    return mutex;
}

KelFailureLog& Failures() {
    static KelFailureLog failures(CoreLog());
    return failures;
}

/// The file that is written, and the older ones by their age.
KelString PathOf(int age) {
    const KelString name = age == 0 ? KelString("audit.jsonl") : KelFormat("audit.%d.jsonl", age);
    return KelAgentGetDataDir() + "Agent/" + name;
}

bool IsSecret(const KelString& name) {
    const KelString lower = ToLowerText(name);
    return std::ranges::any_of(
        KelVector<KelString>{"password", "secret", "token"},
        [&lower](const KelString& word) { return lower.find(word) != KelString::npos; });
}

KelString ShownText(KelString text) {
    const KelPasswordPair passwords = TreePasswords().Get();
    for (const KelString& password : {passwords.current, passwords.former})
        for (std::size_t at = 0; !password.empty() && (at = text.find(password, at)) != KelString::npos;)
            text.replace(at, password.size(), kHidden);
    if (text.size() <= kMostTextBytes) return text;
    return text.substr(0, kMostTextBytes) +
           KelFormat("... (%lu bytes)", static_cast<unsigned long>(text.size()));
}

KelContainer Shown(const KelContainer& values, int levels = kMostLevels) {
    KelContainer shown;
    for (std::size_t i = 0; levels > 0 && i < std::min<std::size_t>(values.GetNameCount(), kMostValues);
         ++i) {
        const KelString& name = values.GetName(i);
        const KelString shownName = ShownText(name);
        for (std::uint32_t k = 0; k < std::min(values.Count(name), kMostValues); ++k) {
            if (values.IsContainer(name, k))
                shown.SetContainer(shownName, Shown(values.GetContainer(name, k), levels - 1), k);
            else
                shown.SetString(shownName,
                                IsSecret(name) ? kHidden : ShownText(values.GetString(name, {}, k)), k);
        }
    }
    return shown;
}

void Rotate() {
    for (int age = kOldFiles; age > 0; --age)
        if (FileExists(PathOf(age - 1))) FileRename(PathOf(age - 1), PathOf(age));
}

bool Append(const KelString& line) {
    const std::lock_guard lock(FileMutex());
    if (!PathCreate(KelAgentGetDataDir() + "Agent")) return false;
    struct stat status {};
    if (stat(PathOf(0).c_str(), &status) == 0 && status.st_size >= kMostBytes) Rotate();
    const UniqueFd file(open(PathOf(0).c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0600));
    if (!file) return false;
    // A line that a full disk has cut short is ended, so that it spoils no other.
    const off_t end = lseek(file.Get(), 0, SEEK_END);
    char last = '\n';
    if (end > 0 && pread(file.Get(), &last, 1, end - 1) != 1) return false;
    const KelString text = (last == '\n' ? "" : "\n") + line + "\n";
    return write(file.Get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
           fdatasync(file.Get()) == 0;
}

KelString ReadFile(int age) {
    const std::lock_guard lock(FileMutex());
    const auto text = FileReadText(PathOf(age), std::uint64_t{4} * kMostBytes);
    return text ? *text : KelString();
}

void Record(const KelContainer& line) {
    if (Append(ContainerToJson(line)))
        Failures().Succeeded("audit", "The audit can be written again");
    else
        Failures().Failed(KelDebugLevel::Error, "audit",
                          KelFormat("The audit %S cannot be written; changes are not recorded", PathOf(0)));
}

/// The time in nanoseconds, or a little more: never the same twice, whenever the agent is started again.
std::int64_t NextId() {
    static std::mutex mutex;
    static std::int64_t last = 0;
    const std::lock_guard lock(mutex);
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    last = std::max<std::int64_t>(last + 1, std::chrono::nanoseconds(now).count());
    return last;
}

/// Puts the results of calls, by their numbers, into the line of the one that `call` begins.
void TakeResult(KelContainer& call, KelHash<std::int64_t, KelContainer>& results) {
    if (!call.Has("Id")) return;
    if (const auto result = results.find(call.GetInt64("Id")); result != results.end()) {
        call.SetInt64("Result", result->second.GetInt64("Result"));
        if (result->second.Has("Message")) call.SetString("Message", result->second.GetString("Message"));
        results.erase(result);
    }
    call.Remove("Id");
}

}  // namespace

AuditedCall::AuditedCall(const KelString& action, const KelContainer& arguments, const KelString& device)
    : id_(NextId()) {
    KelContainer asked = arguments;
    asked.Remove(kActionRequestInfo);
    KelContainer line;
    line.SetInt64("Id", id_);
    line.SetInt64("Time", std::time(nullptr));
    const KelCallOrigin origin = CallOriginOf(arguments);
    line.SetString("Operator", origin.operatorName);
    line.SetString("Address", origin.address.empty() ? "local" : origin.address);
    if (!origin.master.empty()) line.SetString("Master", ShownText(origin.master));
    if (!device.empty()) line.SetString("Device", device);
    line.SetString("Action", action);
    line.SetContainer("Arguments", Shown(asked));
    Record(line);
}

void AuditedCall::End(unsigned int result, const KelContainer& answer) const {
    KelContainer line;
    line.SetInt64("Id", id_);
    line.SetInt64("Result", result);
    if (result != 0) line.SetString("Message", ShownText(answer.GetString("Message")));
    Record(line);
}

KelVector<KelContainer> AuditRead(std::int64_t since, std::size_t limit) {
    KelVector<KelContainer> calls;
    KelHash<std::int64_t, KelContainer> results;  // whose calls are yet to come: the latest lines are first
    for (int age = 0; age <= kOldFiles && calls.size() < limit; ++age) {
        const KelVector<KelString> found = SplitText(ReadFile(age), '\n');
        for (auto line = found.rbegin(); line != found.rend() && calls.size() < limit; ++line) {
            KelContainer values;
            if (line->empty() || !ContainerFromJson(*line, values)) continue;
            if (values.Has("Time") && values.GetInt64("Time") >= since) {
                TakeResult(values, results);
                calls.push_back(std::move(values));
            } else if (values.Has("Id") && !values.Has("Time")) {
                results[values.GetInt64("Id")] = std::move(values);
            }
        }
    }
    std::ranges::reverse(calls);
    return calls;
}
