#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <memory>
#include <thread>

#include "cli/commands.h"
#include "cli/output.h"
#include "cli/remote.h"
#include "cli/terminal.h"
#include "cli/top.h"
#include "kelcore/error_codes.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kRefresh{1};
/// Fewer than the calls that the master passes on at once, so that others get through.
constexpr std::size_t kMostThreads = 3;

/// One of the two views, which is read again and again.
class TopView {
  public:
    virtual ~TopView() = default;
    /// Reads the state, with the rates since the last time. A result; when it is not 0, Problem says why.
    virtual unsigned int Read() = 0;
    virtual KelString Text() const = 0;
    virtual KelContainer Json() const = 0;
    KelString Problem() const { return problem_; }

  protected:
    KelString problem_;
};

/// The state of a device with that of the time before, of which the rates are made.
class Sample {
  public:
    unsigned int Read(const Remote& remote) {
        KelContainer state;
        const unsigned int result = ReadTopState(remote, state);
        const Clock::time_point now = Clock::now();
        if (result == kKelOk) AddRates(state_, now - time_, state);
        state.SetInt64("Time", std::time(nullptr));
        state_ = std::move(state);
        time_ = now;
        return result;
    }
    const KelContainer& State() const { return state_; }

  private:
    KelContainer state_;
    Clock::time_point time_ = Clock::now();
};

class DeviceView : public TopView {
  public:
    DeviceView(const Remote& remote, std::size_t limit) : remote_(remote), limit_(limit) {}

    unsigned int Read() override {
        const unsigned int result = sample_.Read(remote_);
        problem_ = remote_.Address() + ": " + sample_.State().GetString("Message");
        return result;
    }
    KelString Text() const override { return TopText(remote_.Address(), sample_.State(), limit_); }
    KelContainer Json() const override {
        KelContainer list;
        list.SetContainer("Values", sample_.State());
        return list;
    }

  private:
    const Remote& remote_;
    std::size_t limit_;
    Sample sample_;
};

class TreeView : public TopView {
  public:
    TreeView(const Remote& remote, std::size_t limit) : remote_(remote), limit_(limit) {}

    unsigned int Read() override {
        KelContainer answer;
        const unsigned int result = remote_.CallQuietly("ConsoleListDevices", answer);
        problem_ = result == kKelErrorUnknownAction ? "only the master knows the tree"
                                                    : remote_.Address() + " does not answer";
        if (result != kKelOk) return result;
        devices_.clear();
        for (const DeviceRow& row : OrderByParent(answer)) {
            KelContainer device = answer.GetContainer("Values", row.index);
            device.SetString("Name", KelString(std::size_t{row.depth} * 2, ' ') + device.GetString("Name"));
            if (devices_.size() < limit_) devices_.push_back(std::move(device));
        }
        ReadDevices();
        return kKelOk;
    }
    KelString Text() const override { return TimeText(std::time(nullptr)) + "\n" + TopTreeText(devices_); }
    KelContainer Json() const override {
        KelContainer list;
        for (const KelContainer& device : devices_) {
            KelContainer item = device.GetContainer("State");
            for (const char* name : {"Name", "GUID", "Role", "Message"})
                if (device.Has(name)) item.SetString(name, device.GetString(name));
            item.SetString("Name",
                           item.GetString("Name").substr(item.GetString("Name").find_first_not_of(' ')));
            list.SetContainer("Values", std::move(item), KelContainer::kAbsent);
        }
        return list;
    }

  private:
    /// Side by side, so that one that does not answer holds up only what its thread does next.
    void ReadDevices() {
        KelVector<Sample*> samples;
        for (const KelContainer& device : devices_)
            samples.push_back(&samples_[device.GetString("GUID")]);
        std::atomic<std::size_t> next = 0;
        const auto work = [this, &samples, &next] {
            for (std::size_t i = next++; i < devices_.size(); i = next++) {
                const Remote remote = remote_.For(devices_[i].GetString("GUID"));
                if (samples[i]->Read(remote) == kKelOk)
                    devices_[i].SetContainer("State", samples[i]->State());
                else
                    devices_[i].SetString("Message", samples[i]->State().GetString("Message"));
            }
        };
        KelVector<std::jthread> threads;
        while (threads.size() + 1 < std::min(kMostThreads, devices_.size()))
            threads.emplace_back(work);
        work();
    }

    const Remote& remote_;
    std::size_t limit_;
    KelVector<KelContainer> devices_;
    KelHash<KelString, Sample> samples_;  ///< by GUID
};

/// Two states a moment apart, so that there are rates.
int ShowOnce(TopView& view, bool json) {
    for (const bool isSecond : {false, true}) {
        if (const unsigned int result = view.Read(); result != kKelOk) {
            Complain(view.Problem());
            return ExitCodeOf(result);
        }
        if (!isSecond) std::this_thread::sleep_for(kRefresh);
    }
    if (json)
        PrintJson(view.Json());
    else
        std::fputs(view.Text().c_str(), stdout);
    return kExitDone;
}

int ShowAgain(TopView& view) {
    if (const unsigned int result = view.Read(); result != kKelOk) {
        Complain(view.Problem());
        return ExitCodeOf(result);
    }
    const LiveScreen screen;
    for (unsigned int result = kKelOk;; result = view.Read()) {
        screen.Show(result == kKelOk ? view.Text() : "kel: " + Printable(view.Problem()) + "\n");
        if (!screen.Wait(kRefresh)) return kExitDone;
    }
}

}  // namespace

int RunCommand(const CommonOptions& common, const TopOptions& options) {
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    const auto limit = static_cast<std::size_t>(options.limit);
    std::unique_ptr<TopView> view;
    if (options.tree)
        view = std::make_unique<TreeView>(*remote, limit);
    else
        view = std::make_unique<DeviceView>(*remote, limit);
    return options.once || common.json ? ShowOnce(*view, common.json) : ShowAgain(*view);
}
