#include "cli/top.h"

#include <algorithm>

#include "cli/commands.h"
#include "cli/output.h"
#include "cli/terminal.h"
#include "kelcore/error_codes.h"
#include "kelcore/error_text.h"
#include "kelcore/file_values.h"

namespace {

/// An answer of one device is worth no longer wait in a view that is refreshed every second.
constexpr int kSeconds = 10;

KelString RateText(const KelContainer& transfer) {
    return transfer.Has("Rate") ? SizeText(transfer.GetInt64("Rate")) + "/s" : KelString();
}

KelString ShareText(const KelContainer& transfer) {
    const std::int64_t size = transfer.GetInt64(kValueFileSize);
    if (size <= 0 || !transfer.Has("TransferredBytes")) return {};
    const std::int64_t here = std::clamp<std::int64_t>(transfer.GetInt64("TransferredBytes"), 0, size);
    return std::to_string(static_cast<int>(static_cast<double>(here) / static_cast<double>(size) * 100)) +
           " %";
}

/// The sum of the rates of one direction, as text; empty when none is known.
KelString SumText(const KelContainer& state, bool upstream) {
    std::int64_t sum = 0;
    std::uint32_t count = 0;
    bool isKnown = false;
    for (std::uint32_t i = 0; i < ItemCount(state, "Transfers"); ++i) {
        const KelContainer& transfer = state.GetContainer("Transfers", i);
        if (transfer.GetBool(kValueUpstream) != upstream) continue;
        ++count;
        isKnown = isKnown || transfer.Has("Rate");
        sum += transfer.GetInt64("Rate");
    }
    if (count == 0) return "0";
    return std::to_string(count) + (isKnown ? ", " + SizeText(sum) + "/s" : "");
}

const KelVector<Column>& TransferColumns() {
    static const KelVector<Column> columns = {
        {"",
         [](const KelContainer& item) { return KelString(item.GetBool(kValueUpstream) ? "up" : "down"); }},
        TextColumn("TYPE", kValueFileType),
        TextColumn("LABEL", kValueFileLabel),
        NameColumn("FILE"),
        TextColumn("WITH", "Peer"),
        SizeColumn("SIZE", kValueFileSize),
        {"DONE", ShareText},
        {"RATE", RateText},
        TimeColumn("SINCE", "Since")};
    return columns;
}

KelString ClosedText(const KelContainer& waiting, const char* name, const char* direction) {
    if (!waiting.Has(name)) return {};
    const KelString until = TimeText(waiting.GetContainer(name).GetInt64("Until"));
    return KelString("the window ") + direction + " is closed" + (until.empty() ? "" : " until " + until);
}

void Join(KelString& text, const KelString& more) {
    if (!more.empty()) text += (text.empty() ? "" : "; ") + more;
}

}  // namespace

unsigned int ReadTopState(const Remote& remote, KelContainer& state) {
    state.Clear();
    const auto ask = [&remote, &state](const char* action, KelContainer& answer) {
        const unsigned int result = remote.CallQuietly(action, answer, kSeconds);
        if (result == kKelOk) return result;
        const KelString message = answer.GetString("Message");
        state.Clear();
        state.SetString("Message", message.empty() ? KelErrorText(result) : message);
        return result;
    };
    KelContainer transfers, waiting, relay;
    if (const unsigned int result = ask("FileStoreGetTransfers", transfers); result != kKelOk) return result;
    for (std::uint32_t i = 0; i < ItemCount(transfers); ++i)
        state.SetContainer("Transfers", transfers.GetContainer("Values", i), i);
    for (const bool upstream : {false, true}) {
        KelContainer counts;
        counts.SetBool("ListUpstream", upstream);
        counts.SetBool("CountsOnly", true);
        if (const unsigned int result = ask("FileStoreListFiles", counts); result != kKelOk) return result;
        state.SetContainer(upstream ? "FilesUpstream" : "Files", counts.GetContainer("Counts"));
    }
    if (const unsigned int result = ask("FileStoreGetWaiting", waiting); result != kKelOk) return result;
    state.SetContainer("Waiting", waiting.GetContainer("Values"));
    if (const unsigned int result = ask("RelayGetValues", relay); result != kKelOk) return result;
    state.SetContainer("Relay", relay.GetContainer("Values"));
    KelContainer windows;
    if (remote.CallQuietly("TransferWindowGetStatus", windows, kSeconds) == kKelOk) {
        state.SetString("WindowsText", WindowsLine(windows));
        const KelContainer named = WindowsForJson(windows, "Windows");
        for (std::uint32_t i = 0; i < ItemCount(named, "Windows"); ++i)
            state.SetContainer("Windows", named.GetContainer("Windows", i), i);
    }
    return kKelOk;
}

void AddRates(const KelContainer& before, std::chrono::nanoseconds between, KelContainer& state) {
    const double seconds = std::chrono::duration<double>(between).count();
    if (seconds <= 0) return;
    for (std::uint32_t i = 0; i < ItemCount(state, "Transfers"); ++i) {
        KelContainer transfer = state.GetContainer("Transfers", i);
        if (!transfer.Has("TransferredBytes")) continue;
        for (std::uint32_t k = 0; k < ItemCount(before, "Transfers"); ++k) {
            const KelContainer& former = before.GetContainer("Transfers", k);
            if (former.GetInt32("FileId") != transfer.GetInt32("FileId") ||
                former.GetInt64("Since") != transfer.GetInt64("Since") || former.GetBool(kValueUpstream))
                continue;
            const std::int64_t bytes =
                transfer.GetInt64("TransferredBytes") - former.GetInt64("TransferredBytes");
            transfer.SetInt64("Rate", static_cast<std::int64_t>(
                                          static_cast<double>(std::max<std::int64_t>(bytes, 0)) / seconds));
        }
        state.SetContainer("Transfers", std::move(transfer), i);
    }
}

KelString HindranceText(const KelContainer& state) {
    const KelContainer& relay = state.GetContainer("Relay");
    const KelContainer& waiting = state.GetContainer("Waiting");
    KelString text;
    if (relay.GetString("Role") != "master" && !relay.GetBool("ParentSync")) {
        const KelString problem = relay.GetString("ParentProblem");
        Join(text, "the parent is out of sync" + (problem.empty() ? "" : ": " + problem));
    }
    Join(text, ClosedText(waiting, "WindowUp", "up"));
    Join(text, ClosedText(waiting, "WindowDown", "down"));
    if (waiting.Has("DiskFull"))
        Join(text, "the disk is full: " + waiting.GetContainer("DiskFull").GetString("WaitingFiles") +
                       " files wait");
    return text;
}

KelString TopText(const KelString& device, const KelContainer& state, std::size_t limit) {
    const KelString hindrance = HindranceText(state);
    KelString text;
    for (const auto& [name, value] : KelVector<std::pair<KelString, KelString>>{
             {"Device", device + "  " + TimeText(state.GetInt64("Time"))},
             {"Parent", ParentText(state.GetContainer("Relay"))},
             {"Files", QueueText(state.GetContainer("Files"))},
             {"Files going up", QueueText(state.GetContainer("FilesUpstream"))},
             {"Targets waiting", state.GetContainer("Waiting").GetString("WaitingTargets")},
             {"Windows", state.GetString("WindowsText")},
             {"Held up by", hindrance.empty() ? "nothing" : hindrance},
             {"Transfers", "down " + SumText(state, false) + "; up " + SumText(state, true)}}) {
        const KelString label = name + ":";
        text += label + KelString(17 - label.size(), ' ') + Printable(value) + "\n";
    }
    Table table = TableFor(TransferColumns());
    const std::size_t count = ItemCount(state, "Transfers");
    if (count == 0) return text;
    for (std::uint32_t i = 0; i < std::min(count, limit); ++i) {
        KelVector<KelString> cells;
        for (const Column& column : TransferColumns())
            cells.push_back(column.cell(state.GetContainer("Transfers", i)));
        table.AddRow(std::move(cells));
    }
    text += "\n" + table.Render();
    if (count > limit) text += std::to_string(count - limit) + " more\n";
    return text;
}

KelString TopTreeText(const KelVector<KelContainer>& devices) {
    Table table({"DEVICE", "ROLE", "DOWN", "UP", "TARGETS", "HELD UP BY"});
    table.Fit(TerminalWidth(), {0, 5});
    for (const KelContainer& device : devices) {
        const KelContainer& state = device.GetContainer("State");
        const bool hasAnswered = device.Has("State");
        table.AddRow({device.GetString("Name"), device.GetString("Role"),
                      hasAnswered ? SumText(state, false) : KelString(),
                      hasAnswered ? SumText(state, true) : KelString(),
                      state.GetContainer("Waiting").GetString("WaitingTargets"),
                      hasAnswered ? HindranceText(state) : device.GetString("Message")});
    }
    return table.Render();
}
