#include "cli/publication_watch.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <ctime>

#include "cli/hand_over.h"
#include "cli/output.h"
#include "kelcore/error_codes.h"

namespace {

constexpr std::chrono::milliseconds kPollPause{500};
constexpr std::size_t kBarWidth = 20;

volatile std::sig_atomic_t g_interrupted = 0;

/// While it exists, SIGINT ends the watching instead of the program, so that the counts reached so far are
/// still printed. One at a time.
class InterruptGuard {
  public:
    InterruptGuard() {
        g_interrupted = 0;
        struct sigaction action {};
        action.sa_handler = [](int) { g_interrupted = 1; };
        sigaction(SIGINT, &action, &previous_);
    }
    ~InterruptGuard() { sigaction(SIGINT, &previous_, nullptr); }
    InterruptGuard(const InterruptGuard&) = delete;
    InterruptGuard& operator=(const InterruptGuard&) = delete;

  private:
    struct sigaction previous_ {};
};

/// The progress shown on stderr: bars that are redrawn in place on a terminal, otherwise a line for each
/// change.
class WatchDisplay {
  public:
    explicit WatchDisplay(std::uint32_t count) : texts_(count) {}

    void Show(const KelContainer& published) {
        if (isTerminal_ && drawn_) std::fprintf(stderr, "\x1b[%zuA", texts_.size());
        for (std::uint32_t i = 0; i < texts_.size(); ++i) {
            const KelContainer& item = published.GetContainer("Values", i);
            const KelString text = Printable(WatchText(item));
            if (isTerminal_)
                std::fprintf(stderr, "\r\x1b[K%s  %s\n", Bar(item).c_str(), text.c_str());
            else if (text != texts_[i])
                std::fprintf(stderr, "%s\n", text.c_str());
            texts_[i] = text;
        }
        drawn_ = true;
    }

  private:
    static KelString Bar(const KelContainer& item) {
        return ProgressBar::Text(item.GetInt32("Delivered") + item.GetInt32("Failed"),
                                 item.GetInt32("Targets"), kBarWidth);
    }

    const bool isTerminal_ = isatty(STDERR_FILENO) == 1;
    bool drawn_ = false;
    KelVector<KelString> texts_;
};

/// Targets that are not waited for any more.
std::int32_t GivenUp(const KelContainer& publication) {
    return publication.GetInt32("Withdrawn") + publication.GetInt32("Removed");
}

/// Sleeps; returns early when a signal arrives.
void Sleep(std::chrono::nanoseconds time) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
    const timespec pause{seconds.count(), (time - seconds).count()};
    nanosleep(&pause, nullptr);
}

/// The combined state: going while one is going, otherwise failed when one failed.
PublicationState StateOfAll(const KelContainer& published) {
    PublicationState whole = PublicationState::Complete;
    for (std::uint32_t i = 0; i < ItemCount(published); ++i) {
        const PublicationState state = StateOf(published.GetContainer("Values", i));
        if (state == PublicationState::Going) return state;
        if (state == PublicationState::Failed) whole = state;
    }
    return whole;
}

}  // namespace

PublicationState StateOf(const KelContainer& publication) {
    const std::int32_t failed = publication.GetInt32("Failed") + GivenUp(publication);
    if (publication.GetString("State") == "stopped") return PublicationState::Failed;
    if (publication.GetInt32("Delivered") + failed < publication.GetInt32("Targets"))
        return PublicationState::Going;
    return failed > 0 ? PublicationState::Failed : PublicationState::Complete;
}

KelString WatchText(const KelContainer& publication) {
    KelString text = publication.GetString("File") + "  " +
                     std::to_string(publication.GetInt32("Delivered")) + " of " +
                     publication.GetString("Targets") + " delivered";
    const std::int32_t failed = publication.GetInt32("Failed");
    if (failed > 0) text += ", " + std::to_string(failed) + " failed";
    if (GivenUp(publication) > 0) text += ", " + std::to_string(GivenUp(publication)) + " withdrawn";
    const KelString stage = StageText(publication);
    return stage.empty() ? text : text + "; " + stage;
}

KelString StageText(const KelContainer& publication) {
    const KelString state = publication.GetString("State");
    const KelString place = publication.GetString("Stage") + " of " + publication.GetString("StageCount");
    if (state == "running") return "stage " + place;
    if (state == "stopped") return "stopped at stage " + place + ": " + publication.GetString("Reason");
    if (state == "withdrawn") return "withdrawn at stage " + place;
    return state.empty() ? state : "all " + publication.GetString("StageCount") + " stages complete";
}

KelContainer WatchArguments(const KelContainer& published) {
    KelContainer arguments;
    arguments.SetBool("CountsOnly", true);
    for (std::uint32_t i = 0; i < ItemCount(published); ++i)
        arguments.SetString("PublicationId", published.GetContainer("Values", i).GetString("PublicationId"),
                            i);
    return arguments;
}

void TakeCounts(const KelContainer& answer, KelContainer& published) {
    KelHash<KelString, std::uint32_t> known;
    for (std::uint32_t i = 0; i < ItemCount(answer); ++i)
        known.emplace(answer.GetContainer("Values", i).GetString("PublicationId"), i);
    for (std::uint32_t i = 0; i < ItemCount(published); ++i) {
        KelContainer item = published.GetContainer("Values", i);
        const auto found = known.find(item.GetString("PublicationId"));
        if (found == known.end()) continue;
        const KelContainer& now = answer.GetContainer("Values", found->second);
        for (const char* name :
             {"Targets", "Delivered", "Failed", "Withdrawn", "Removed", "Pending", "Stage", "StageCount"})
            if (now.Has(name)) item.SetInt32(name, now.GetInt32(name));
        for (const char* name : {"State", "Reason"})
            if (now.Has(name)) item.SetString(name, now.GetString(name));
        published.SetContainer("Values", std::move(item), i);
    }
}

std::chrono::nanoseconds WatchPause(std::chrono::nanoseconds asked) {
    return std::max<std::chrono::nanoseconds>(kPollPause, asked);
}

int WatchPublications(const Remote& remote, KelContainer& published) {
    if (!published.Has("Values")) return kExitDone;
    const InterruptGuard guard;
    WatchDisplay display(ItemCount(published));
    while (g_interrupted == 0) {
        KelContainer answer = WatchArguments(published);
        const auto begin = std::chrono::steady_clock::now();
        if (const unsigned int result = remote.Call("ConsoleListPublications", answer); result != kKelOk)
            return ExitCodeOf(result);
        const auto asked = std::chrono::steady_clock::now() - begin;
        TakeCounts(answer, published);
        display.Show(published);
        const PublicationState state = StateOfAll(published);
        if (state != PublicationState::Going)
            return state == PublicationState::Complete ? kExitDone : kExitFailed;
        Sleep(WatchPause(asked));
    }
    std::fputs("kel: the transfers continue; 'kel publications' shows their progress\n", stderr);
    return kExitFailed;
}
