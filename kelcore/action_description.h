#pragma once

#include <string_view>

#include "kel/container.h"
#include "kel/types.h"
#include "kelcore/error_codes.h"

/// Who may call an action, and what a caller is: sets of classes.
enum class KelCallers : unsigned char {
    Unstated = 0,   ///< counts as Local
    Local = 1,      ///< this device's modules and its operator, who may always
    Parent = 2,     ///< the parent of this device
    Child = 4,      ///< the devices whose parent this one is
    Operator = 8,   ///< the operator of the tree, from the master
    Observer = 16,  ///< only of a caller: may call what an operator may, unless it changes anything
    Stranger = 32,  ///< in a tree with keys, a device that does not belong to it (yet)
    Scraper = 64,   ///< who connects to the port of the metrics, where there is one; proves nothing
};

constexpr KelCallers operator|(KelCallers one, KelCallers other) {
    return static_cast<KelCallers>(static_cast<unsigned int>(one) | static_cast<unsigned int>(other));
}

/// True when the sets have a class in common.
constexpr bool Includes(KelCallers callers, KelCallers one) {
    return (static_cast<unsigned int>(callers) & static_cast<unsigned int>(one)) != 0;
}

/// One value of a KelValueList.
struct KelDescribedValue {
    std::string_view type, name, remark, members;
    bool isSeveral = false;
    bool isOptional = false;
};

/// Takes the first value off `list`, with the comma behind it; false when the text is malformed.
constexpr bool TakeDescribedValue(std::string_view& list, KelDescribedValue& value) {
    const auto take = [&list](std::string_view text) {
        const bool isThere = list.starts_with(text);
        if (isThere) list.remove_prefix(text.size());
        return isThere;
    };
    const auto takeWord = [&list] {
        const std::string_view word = list.substr(0, list.find_first_of(" ,[]?(){}"));
        list.remove_prefix(word.size());
        return word;
    };
    const auto takeEnclosed = [&list](char open, char close) {
        std::size_t depth = 1, end = 0;
        for (; end < list.size(); ++end) {
            if (list[end] == open) ++depth;
            if (list[end] == close && --depth == 0) break;
        }
        const std::string_view inside = list.substr(0, end);
        list.remove_prefix(end < list.size() ? end + 1 : end);
        return depth == 0 ? inside : std::string_view();
    };
    value = {};
    value.type = takeWord();
    if (!take(" ")) return false;
    value.name = takeWord();
    value.isSeveral = take("[]");
    value.isOptional = take("?");
    if (take(" (")) value.remark = takeEnclosed('(', ')');
    if (take(" {")) value.members = takeEnclosed('{', '}');
    for (const std::string_view type : {"string", "bool", "int32", "int64", "container"})
        if (value.type == type) return !value.name.empty() && (list.empty() || (take(", ") && !list.empty()));
    return false;
}

constexpr bool IsValueList(std::string_view list) {
    KelDescribedValue value;
    while (!list.empty())
        if (!TakeDescribedValue(list, value) || !IsValueList(value.members)) return false;
    return true;
}

/// The values that an action reads or gives, as text between commas; a malformed one does not compile:
///
///     string FileType, int64 FileSize? (bytes), container Values[] {string Name, int64 Time}
///
/// "?": may be absent; "[]": the name holds several values; "{}": the values in a container; the name "*":
/// any name.
class KelValueList {
  public:
    constexpr KelValueList() = default;
    consteval KelValueList(const char* text) : text_(text) {
        if (!IsValueList(text)) throw "a list of values is malformed";
    }

    constexpr bool IsGiven() const { return text_ != nullptr; }
    constexpr std::string_view Text() const { return IsGiven() ? text_ : ""; }

  private:
    const char* text_ = nullptr;
};

/// A sentence, which cannot be left out.
class KelPurpose {
  public:
    consteval KelPurpose(const char* text) : text_(text) {
        if (!std::string_view(text).ends_with('.')) throw "a purpose is a sentence";
    }
    constexpr const char* Text() const { return text_; }

  private:
    const char* text_;
};

/// What an action is, for people, for scripts and for the tests that call every action; an action is
/// registered with it. All texts but the signature are literals.
struct KelActionDescription {
    /// "Name", or "Name (type name, …)" where others rely on a text that is not made of the inputs.
    const char* signature;
    KelPurpose purpose;
    KelValueList inputs = {};   ///< absent: those in the signature
    KelValueList outputs = {};  ///< when the result is 0
    const char* results = "";   ///< besides 0, as "1 an unusable value; 13 no such file"
    KelCallers callers = KelCallers::Unstated;
    bool changes = false;  ///< settings, windows, publications, devices or files, on behalf of an operator
    /// What other callers get. Some senders repeat a call until the result is final for them.
    unsigned int refusal = kKelErrorNotAvailable;
};

/// True when a caller of these classes may call the action.
bool Admits(const KelActionDescription& description, KelCallers caller);

/// The classes as a text, "local, parent"; empty for Unstated.
KelString CallersText(KelCallers callers);

/// The description as AgentListActions gives it: Name, Signature, Purpose, Inputs[i] and Outputs[i]{Type,
/// Name, Optional, Several (bool), Remark, Members[i]{the same}}, Results, Callers, Changes (bool).
KelContainer DescribeAction(const KelActionDescription& description);

/// The full signature, "Name (type name, …)".
KelString SignatureOf(const KelActionDescription& description);

/// A list of values in such a description, `name` being Inputs, Outputs or Members, as KelValueList has it.
KelString DescribedValuesText(const KelContainer& description, const KelString& name);
