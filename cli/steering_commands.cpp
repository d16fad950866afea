#include <algorithm>
#include <cstdio>

#include "cli/commands.h"
#include "cli/output.h"
#include "cli/remote.h"
#include "kel/text.h"
#include "kelcore/action_description.h"
#include "kelcore/error_codes.h"
#include "kelcore/ini_settings.h"
#include "kelcore/json.h"

namespace {

/// "; did you mean …?", when there is a setting of such a name.
KelString Suggestion(const KelString& name, const KelContainer& settings) {
    KelVector<KelString> names;
    for (std::size_t i = 0; i < settings.GetNameCount(); ++i)
        names.push_back(settings.GetName(i));
    const KelString nearest = NearestName(name, names);
    return nearest.empty() ? nearest : "; did you mean " + nearest + "?";
}

int GetSettings(const Remote& remote, bool json, const KelVector<KelString>& names) {
    KelContainer answer;
    if (const unsigned int result = remote.Call("FileStoreGetValues", answer); result != kKelOk)
        return ExitCodeOf(result);
    const KelContainer& values = answer.GetContainer("Values");
    for (const KelString& name : names)
        if (!values.Has(name))
            return Complain("no setting '" + name + "'; 'kel settings get' shows all" +
                            Suggestion(name, values));
    KelContainer list;
    std::uint32_t count = 0;
    for (std::size_t i = 0; i < values.GetNameCount(); ++i) {
        const KelString& name = values.GetName(i);
        if (!names.empty() && std::find(names.begin(), names.end(), name) == names.end()) continue;
        KelContainer item;
        item.SetString("Name", name);
        item.SetString("Value", values.GetString(name));
        list.SetContainer("Values", std::move(item), count++);
    }
    PrintList(list, json, {TextColumn("NAME", "Name"), TextColumn("VALUE", "Value")});
    return kExitDone;
}

/// Checks all assignments before the first takes effect.
int SetSettings(const Remote& remote, bool json, const KelVector<KelString>& assignments) {
    KelContainer known;
    if (const unsigned int result = remote.Call("FileStoreGetValues", known); result != kKelOk)
        return ExitCodeOf(result);
    KelContainer values;
    for (const KelString& assignment : assignments) {
        const auto equals = assignment.find('=');
        if (equals == KelString::npos || equals == 0) {
            Complain("'" + assignment + "' is not SETTING=VALUE");
            return kExitUsage;
        }
        const KelString name = assignment.substr(0, equals);
        if (!known.GetContainer("Values").Has(name))
            return Complain("no setting '" + name + "'" + Suggestion(name, known.GetContainer("Values")));
        values.SetString(name, assignment.substr(equals + 1));
    }
    KelContainer arguments;
    arguments.SetContainer("Values", std::move(values));
    const unsigned int result = remote.Call("FileStoreSetValues", arguments);
    for (std::uint32_t i = 0; i < ItemCount(arguments, "Notes"); ++i)
        std::fprintf(stderr, "kel: %s\n", Printable(arguments.GetString("Notes", {}, i)).c_str());
    if (result == kKelOk && json) std::puts("[]");
    return ExitCodeOf(result);
}

/// Appends value number `index` of `from` in `source` to the values of `name` in `target`.
void Append(const KelContainer& source, const KelString& from, std::uint32_t index, const KelString& name,
            KelContainer& target) {
    const std::uint32_t at = ItemCount(target, name);
    switch (source.GetType(from, index)) {
        case KelContainer::Type::Bool:
            return target.SetBool(name, source.GetBool(from, false, index), at);
        case KelContainer::Type::Int32:
            return target.SetInt32(name, source.GetInt32(from, 0, index), at);
        case KelContainer::Type::Int64:
            return target.SetInt64(name, source.GetInt64(from, 0, index), at);
        case KelContainer::Type::Container:
            return target.SetContainer(name, source.GetContainer(from, index), at);
        default:
            return target.SetString(name, source.GetString(from, {}, index), at);
    }
}

}  // namespace

KelStatus AddCallArgument(const KelString& text, KelContainer& container) {
    const auto equals = text.find('=');
    if (equals == KelString::npos || equals == 0 || text.starts_with(":="))
        return KelError{kKelErrorBadInput, "'" + text + "' is neither name=text nor name:=JSON"};
    if (text[equals - 1] != ':') {
        const KelString name = text.substr(0, equals);
        container.SetString(name, text.substr(equals + 1), ItemCount(container, name));
        return {};
    }
    const KelString name = text.substr(0, equals - 1);
    KelContainer parsed;
    if (auto status = ContainerFromJson("{\"value\":" + text.substr(equals + 1) + "}", parsed); !status)
        return KelError{kKelErrorBadInput, "'" + text + "': " + status.Error().message};
    if (parsed.GetNameCount() > 1)
        return KelError{kKelErrorBadInput, "'" + text + "': more than one JSON value"};
    for (std::uint32_t i = 0; i < ItemCount(parsed, "value"); ++i)
        Append(parsed, "value", i, name, container);
    return {};
}

int RunCommand(const CommonOptions& common, const SettingsOptions& options) {
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    return options.assignments.empty() ? GetSettings(*remote, common.json, options.names)
                                       : SetSettings(*remote, common.json, options.assignments);
}

int RunCommand(const CommonOptions& common, const UploadOptions&) {
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    KelContainer call;
    const unsigned int result = remote->Call("FileStorePerformManualUpload", call);
    if (result == kKelOk && common.json) std::puts("[]");
    return ExitCodeOf(result);
}

namespace {

/// What an action takes and gives, as rows of Name and Value.
KelContainer ActionRows(const KelContainer& action) {
    KelContainer rows;
    const auto add = [&rows](const char* name, KelString value) {
        if (value.empty()) return;
        KelContainer row;
        row.SetString("Name", name);
        row.SetString("Value", std::move(value));
        rows.SetContainer("Values", std::move(row), KelContainer::kAbsent);
    };
    for (const char* name : {"Name", "Module", "Purpose"})
        add(name, action.GetString(name));
    for (const char* list : {"Inputs", "Outputs"})
        for (std::uint32_t i = 0; i < ItemCount(action, list); ++i) {
            KelContainer one;
            one.SetContainer(list, action.GetContainer(list, i));
            add(list == KelString("Inputs") ? "Takes" : "Gives", DescribedValuesText(one, list));
        }
    for (const char* name : {"Results", "Callers"})
        add(name, action.GetString(name));
    return rows;
}

int ListActions(const CommonOptions& common, const KelString& name) {
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    KelContainer answer;
    if (!name.empty()) answer.SetString("Name", name);
    if (const unsigned int result = remote->Call("AgentListActions", answer); result != kKelOk)
        return ExitCodeOf(result);
    if (name.empty() || common.json)
        PrintList(answer, common.json,
                  {ValueColumn("ACTION", "Name"), ValueColumn("CALLERS", "Callers"),
                   TextColumn("PURPOSE", "Purpose")});
    else
        PrintList(ActionRows(answer.GetContainer("Values")), false,
                  {TextColumn("NAME", "Name"), TextColumn("VALUE", "Value")});
    return kExitDone;
}

}  // namespace

int RunCommand(const CommonOptions& common, const CallOptions& options) {
    if (options.list) return ListActions(common, options.action);
    KelContainer container;
    for (const KelString& argument : options.arguments) {
        if (auto status = AddCallArgument(argument, container); !status) {
            Complain(status.Error());
            return kExitUsage;
        }
    }
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    const unsigned int result = remote->Call(options.action, container);
    if (result == kKelOk || !container.IsEmpty()) std::printf("%s\n", ContainerToJson(container).c_str());
    return ExitCodeOf(result);
}
