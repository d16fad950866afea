#include "kel/container.h"

#include <algorithm>
#include <functional>
#include <unordered_map>
#include <utility>

#include "kel/container_xml.h"
#include "kel/file.h"
#include "kel/file_content.h"
#include "kel/text.h"

namespace {

/// Up to here a walk through the names is faster than the hash table.
constexpr std::size_t kMaxNamesWithoutIndex = 16;

struct NameHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view name) const { return std::hash<std::string_view>()(name); }
};

}  // namespace

struct KelContainer::Content {
    struct Entry {
        KelString name;
        KelVector<Value> values;
    };

    KelVector<Entry> entries;  ///< in order of first appearance
    std::unordered_map<KelString, std::size_t, NameHash, std::equal_to<>>
        positions;  ///< of each name in `entries`; empty while there are few

    const Entry* Find(std::string_view name) const {
        if (!positions.empty()) {
            const auto found = positions.find(name);
            return found == positions.end() ? nullptr : &entries[found->second];
        }
        for (const Entry& entry : entries)
            if (entry.name == name) return &entry;
        return nullptr;
    }

    Entry& FindOrAdd(std::string_view name) {
        if (const Entry* entry = Find(name)) return entries[static_cast<std::size_t>(entry - entries.data())];
        entries.push_back({KelString(name), {}});
        if (!positions.empty())
            positions.emplace(name, entries.size() - 1);
        else if (entries.size() > kMaxNamesWithoutIndex)
            for (std::size_t i = 0; i < entries.size(); ++i)
                positions.emplace(entries[i].name, i);
        return entries.back();
    }

    void Remove(std::string_view name) {
        const Entry* entry = Find(name);
        if (entry == nullptr) return;
        const auto position = entry - entries.data();
        if (const auto found = positions.find(name); found != positions.end()) positions.erase(found);
        entries.erase(entries.begin() + position);
        // The names behind the removed one have moved up.
        for (auto& [other, index] : positions)
            if (index > static_cast<std::size_t>(position)) --index;
    }
};

KelContainer::KelContainer() = default;
KelContainer::~KelContainer() = default;
KelContainer::KelContainer(KelContainer&& other) noexcept = default;
KelContainer& KelContainer::operator=(KelContainer&& other) noexcept = default;

KelContainer::KelContainer(const KelContainer& other) {
    if (!other.content_) return;
    content_ = std::make_unique<Content>();
    content_->positions = other.content_->positions;
    content_->entries.reserve(other.content_->entries.size());
    const auto copy = [](const auto& value) -> Value {
        if constexpr (std::is_same_v<std::decay_t<decltype(value)>, std::unique_ptr<KelContainer>>)
            return std::make_unique<KelContainer>(*value);
        else
            return value;
    };
    for (const Content::Entry& entry : other.content_->entries) {
        Content::Entry& mine = content_->entries.emplace_back();
        mine.name = entry.name;
        mine.values.reserve(entry.values.size());
        for (const Value& value : entry.values)
            mine.values.push_back(std::visit(copy, value));
    }
}

KelContainer& KelContainer::operator=(const KelContainer& other) {
    if (this != &other) *this = KelContainer(other);
    return *this;
}

bool KelContainer::operator==(const KelContainer& other) const {
    if (GetNameCount() != other.GetNameCount()) return false;
    const auto equal = [](const Value& left, const Value& right) {
        if (left.index() != right.index()) return false;
        const auto* inner = std::get_if<std::unique_ptr<KelContainer>>(&left);
        return inner != nullptr ? **inner == *std::get<std::unique_ptr<KelContainer>>(right) : left == right;
    };
    for (std::size_t i = 0; i < GetNameCount(); ++i) {
        const Content::Entry& left = content_->entries[i];
        const Content::Entry& right = other.content_->entries[i];
        if (left.name != right.name || !std::equal(left.values.begin(), left.values.end(),
                                                   right.values.begin(), right.values.end(), equal))
            return false;
    }
    return true;
}

void KelContainer::Clear() {
    content_.reset();
}

std::uint32_t KelContainer::Count(std::string_view name) const {
    const Content::Entry* entry = content_ ? content_->Find(name) : nullptr;
    return entry == nullptr ? kAbsent : static_cast<std::uint32_t>(entry->values.size());
}

std::size_t KelContainer::GetNameCount() const {
    return content_ ? content_->entries.size() : 0;
}

const KelString& KelContainer::GetName(std::size_t index) const {
    static const KelString kNone;
    return index < GetNameCount() ? content_->entries[index].name : kNone;
}

void KelContainer::Remove(std::string_view name) {
    if (content_) content_->Remove(name);
}

const KelContainer::Value* KelContainer::Find(std::string_view name, std::uint32_t index) const {
    const Content::Entry* entry = content_ ? content_->Find(name) : nullptr;
    return entry != nullptr && index < entry->values.size() ? &entry->values[index] : nullptr;
}

void KelContainer::Set(std::string_view name, std::uint32_t index, Value value) {
    if (!content_) content_ = std::make_unique<Content>();
    KelVector<Value>& values = content_->FindOrAdd(name).values;
    if (index < values.size())
        values[index] = std::move(value);
    else
        values.push_back(std::move(value));
}

void KelContainer::SetString(std::string_view name, KelString value, std::uint32_t index) {
    Set(name, index, std::move(value));
}
void KelContainer::SetBool(std::string_view name, bool value, std::uint32_t index) {
    Set(name, index, value);
}
void KelContainer::SetInt32(std::string_view name, std::int32_t value, std::uint32_t index) {
    Set(name, index, value);
}
void KelContainer::SetInt64(std::string_view name, std::int64_t value, std::uint32_t index) {
    Set(name, index, value);
}
void KelContainer::SetContainer(std::string_view name, KelContainer value, std::uint32_t index) {
    Set(name, index, std::make_unique<KelContainer>(std::move(value)));
}

KelString KelContainer::GetString(std::string_view name, std::string_view fallback,
                                  std::uint32_t index) const {
    const Value* value = Find(name, index);
    if (value == nullptr) return KelString(fallback);
    if (const auto* text = std::get_if<KelString>(value)) return *text;
    if (const auto* flag = std::get_if<bool>(value)) return *flag ? "true" : "false";
    if (const auto* number = std::get_if<std::int32_t>(value)) return std::to_string(*number);
    if (const auto* number = std::get_if<std::int64_t>(value)) return std::to_string(*number);
    return KelString(fallback);
}

bool KelContainer::GetBool(std::string_view name, bool fallback, std::uint32_t index) const {
    if (const Value* value = Find(name, index)) {
        if (const auto* text = std::get_if<KelString>(value)) {
            if (*text == "true") return true;
            if (*text == "false") return false;
        }
    }
    // Of numbers, and of texts that hold one, only 0 and 1 are bools.
    const std::int64_t number = GetInt64(name, fallback ? 1 : 0, index);
    return number == 0 || number == 1 ? number == 1 : fallback;
}

std::int32_t KelContainer::GetInt32(std::string_view name, std::int32_t fallback, std::uint32_t index) const {
    const std::int64_t number = GetInt64(name, fallback, index);
    return std::in_range<std::int32_t>(number) ? static_cast<std::int32_t>(number) : fallback;
}

std::int64_t KelContainer::GetInt64(std::string_view name, std::int64_t fallback, std::uint32_t index) const {
    const Value* value = Find(name, index);
    if (value == nullptr) return fallback;
    if (const auto* number = std::get_if<std::int32_t>(value)) return *number;
    if (const auto* number = std::get_if<std::int64_t>(value)) return *number;
    if (const auto* flag = std::get_if<bool>(value)) return *flag ? 1 : 0;
    if (const auto* text = std::get_if<KelString>(value)) return ParseInt64(*text).value_or(fallback);
    return fallback;
}

const KelContainer& KelContainer::GetContainer(std::string_view name, std::uint32_t index) const {
    static const KelContainer kEmpty;
    const Value* value = Find(name, index);
    const auto* inner = value != nullptr ? std::get_if<std::unique_ptr<KelContainer>>(value) : nullptr;
    return inner != nullptr ? **inner : kEmpty;
}

bool KelContainer::IsContainer(std::string_view name, std::uint32_t index) const {
    return GetType(name, index) == Type::Container;
}

KelContainer::Type KelContainer::GetType(std::string_view name, std::uint32_t index) const {
    const Value* value = Find(name, index);
    // The alternatives of Value stand in the order of Type, behind None.
    return value == nullptr ? Type::None : static_cast<Type>(value->index() + 1);
}

KelString KelContainer::SaveToXML() const {
    return ContainerToXml(*this);
}

KelStatus KelContainer::LoadFromXML(std::string_view xml, std::size_t maxValues) {
    KelResult<KelContainer> loaded = ContainerFromXml(xml, maxValues);
    Clear();
    if (!loaded) return loaded.Error();
    *this = std::move(*loaded);
    return {};
}

KelStatus KelContainer::SaveToFile(const KelString& path) const {
    const KelResult<KelString> xml = ContainerToLoadableXml(*this);
    return xml ? FileWriteText(path, *xml) : KelStatus(xml.Error());
}

KelStatus KelContainer::LoadFromFile(const KelString& path) {
    const KelResult<KelString> xml = FileReadText(path, kMaxXmlBytes);
    if (xml) return LoadFromXML(*xml);
    Clear();
    return xml.Error();
}

KelStatus KelContainer::SaveToTempFile(KelString& path, const KelString& folder) const {
    const KelResult<KelString> xml = ContainerToLoadableXml(*this);
    if (!xml) return xml.Error();
    KelString created;
    const UniqueFd fd = FileCreateTemp(folder, created);
    if (!fd) return SystemError("A temporary file cannot be created in", folder);
    if (!FileWriteAll(fd.Get(), *xml)) {
        const KelError error = SystemError("A temporary file cannot be written:", created);
        FileDelete(created);
        return error;
    }
    path = created;
    return {};
}
