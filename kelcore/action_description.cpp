#include "kelcore/action_description.h"

#include <array>
#include <utility>

#include "kelcore/action_db.h"

namespace {

/// The values that the description names, or those in its signature.
std::string_view InputsOf(const KelActionDescription& description) {
    if (description.inputs.IsGiven()) return description.inputs.Text();
    const std::string_view signature = description.signature;
    const std::size_t begin = signature.find('(');
    if (begin == std::string_view::npos) return {};
    return signature.substr(begin + 1, signature.rfind(')') - begin - 1);
}

void DescribeValues(std::string_view list, const char* name, KelContainer& description) {
    KelDescribedValue value;
    while (!list.empty() && TakeDescribedValue(list, value)) {
        KelContainer values;
        values.SetString("Type", KelString(value.type));
        values.SetString("Name", KelString(value.name));
        values.SetBool("Optional", value.isOptional);
        values.SetBool("Several", value.isSeveral);
        if (!value.remark.empty()) values.SetString("Remark", KelString(value.remark));
        DescribeValues(value.members, "Members", values);
        description.SetContainer(name, std::move(values), KelContainer::kAbsent);
    }
}

}  // namespace

bool Admits(const KelActionDescription& description, KelCallers caller) {
    const bool isOpenToObservers =
        !description.changes && Includes(description.callers, KelCallers::Operator);
    return Includes(description.callers | KelCallers::Local, caller) ||
           (isOpenToObservers && Includes(caller, KelCallers::Observer));
}

KelString CallersText(KelCallers callers) {
    static constexpr std::array<std::pair<KelCallers, const char*>, 7> kNames = {
        {{KelCallers::Local, "local"},
         {KelCallers::Parent, "parent"},
         {KelCallers::Child, "child"},
         {KelCallers::Operator, "operator"},
         {KelCallers::Observer, "observer"},
         {KelCallers::Stranger, "stranger"},
         {KelCallers::Scraper, "scraper"}}};
    KelString text;
    for (const auto& [one, name] : kNames)
        if (Includes(callers, one)) text += (text.empty() ? KelString() : KelString(", ")) + name;
    return text;
}

KelString SignatureOf(const KelActionDescription& description) {
    const KelString signature = description.signature;
    if (signature.find('(') != KelString::npos) return signature;
    KelString parameters;
    std::string_view list = description.inputs.Text();
    KelDescribedValue value;
    while (!list.empty() && TakeDescribedValue(list, value)) {
        if (!parameters.empty()) parameters += ", ";
        parameters.append(value.type).append(" ").append(value.name);
    }
    return signature + " (" + parameters + ")";
}

KelContainer DescribeAction(const KelActionDescription& description) {
    KelContainer values;
    const KelString signature = SignatureOf(description);
    values.SetString("Name", ActionNameOfSignature(signature));
    values.SetString("Signature", signature);
    values.SetString("Purpose", description.purpose.Text());
    DescribeValues(InputsOf(description), "Inputs", values);
    DescribeValues(description.outputs.Text(), "Outputs", values);
    values.SetString("Results", description.results);
    const KelCallers always =
        description.callers == KelCallers::Unstated ? KelCallers::Unstated : KelCallers::Local;
    values.SetString("Callers", CallersText(description.callers | always));
    values.SetBool("Changes", description.changes);
    return values;
}

KelString DescribedValuesText(const KelContainer& description, const KelString& name) {
    KelString text;
    const std::uint32_t count = description.Has(name) ? description.Count(name) : 0;
    for (std::uint32_t i = 0; i < count; ++i) {
        const KelContainer& value = description.GetContainer(name, i);
        if (i > 0) text += ", ";
        text += value.GetString("Type") + " " + value.GetString("Name");
        if (value.GetBool("Several")) text += "[]";
        if (value.GetBool("Optional")) text += "?";
        if (value.Has("Remark")) text += " (" + value.GetString("Remark") + ")";
        if (value.Has("Members")) text += " {" + DescribedValuesText(value, "Members") + "}";
    }
    return text;
}
