#include <cstdio>

#include "cli/call_arguments.h"
#include "cli/commands.h"
#include "cli/remote.h"
#include "kelcore/json.h"

namespace {

/// Appends the value at `index` of `from` in `source` to those of `name` in `target`.
void Append(const KelContainer& source, const KelString& from, std::uint32_t index, const KelString& name,
            KelContainer& target) {
    const std::uint32_t at = target.Has(name) ? target.Count(name) : 0;
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
        return KelError{1, "'" + text + "' is neither name=text nor name:=JSON"};
    if (text[equals - 1] != ':') {
        const KelString name = text.substr(0, equals);
        container.SetString(name, text.substr(equals + 1), container.Has(name) ? container.Count(name) : 0);
        return {};
    }
    const KelString name = text.substr(0, equals - 1);
    KelContainer parsed;
    if (auto status = ContainerFromJson("{\"value\":" + text.substr(equals + 1) + "}", parsed); !status)
        return KelError{1, "'" + text + "': " + status.Error().message};
    if (parsed.GetNameCount() > 1) return KelError{1, "'" + text + "': more than one JSON value"};
    const std::uint32_t count = parsed.Has("value") ? parsed.Count("value") : 0;
    for (std::uint32_t i = 0; i < count; ++i)
        Append(parsed, "value", i, name, container);
    return {};
}

int RunCall(const CommonOptions& common, const CallOptions& options) {
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
    if (result == 0 || !container.IsEmpty()) std::printf("%s\n", ContainerToJson(container).c_str());
    return ExitCodeOf(result);
}
