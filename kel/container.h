#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <variant>

#include "kel/result.h"
#include "kel/types.h"

/// An ordered set of named, typed values; a name may hold several values. It carries the arguments and
/// results of actions, and is kept in databases and files as XML.
///
/// Value types: string, bool, 32-bit and 64-bit integer, container. Reading a value as another type converts
/// it where that loses nothing (numbers and bools to text and back, integers to wider or fitting narrower
/// ones, 0 and 1 to bool); otherwise the default is returned. A container value is never converted.
///
/// XML form (UTF-8): <Container><Value name="N" type="string">text</Value>…</Container>, types "string",
/// "bool" (true, false), "int32", "int64", "container" (whose children are Value elements again); a missing
/// type means string. Every string and every name survives the round trip: tab, line feed and carriage return
/// are written as character references; a string that XML cannot hold (other control characters, U+FFFE,
/// U+FFFF, bytes that are no UTF-8) is written in base64 (RFC 4648) and marked by encoding="base64", a name
/// by nameEncoding="base64". An apostrophe is always written as a reference, so the text can stand between
/// single quotes in an SQL statement. Reading refuses a text over 64 MiB, more than a million values, more
/// than 64 containers inside each other, DOCTYPE, references other than to characters, elements and types not
/// named here, and bytes that are no UTF-8.
///
/// A plain value type: one thread at a time; copies are deep.
class KelContainer {
  public:
    static constexpr std::uint32_t kAbsent = 0xFFFFFFFF;
    static constexpr std::size_t kMaxDepth = 64;
    static constexpr std::size_t kMaxXmlBytes = std::size_t{64} << 20;
    /// Values that a text may hold in all, inner containers and their values included: what a container takes
    /// in memory depends on their number far more than on the length of the text.
    static constexpr std::size_t kMaxValues = 1'000'000;

    KelContainer();
    ~KelContainer();
    KelContainer(const KelContainer& other);
    KelContainer& operator=(const KelContainer& other);
    KelContainer(KelContainer&& other) noexcept;
    KelContainer& operator=(KelContainer&& other) noexcept;
    bool operator==(const KelContainer& other) const;

    void Clear();
    bool IsEmpty() const { return GetNameCount() == 0; }

    /// The number of values under `name`, kAbsent when there is none.
    std::uint32_t Count(std::string_view name) const;
    bool Has(std::string_view name) const { return Count(name) != kAbsent; }

    /// Names in order of first appearance.
    std::size_t GetNameCount() const;
    const KelString& GetName(std::size_t index) const;

    /// Removes every value under `name`.
    void Remove(std::string_view name);

    // Set: replaces the value at `index` of `name`; an index one past the last appends (larger ones append
    // too).
    void SetString(std::string_view name, KelString value, std::uint32_t index = 0);
    void SetBool(std::string_view name, bool value, std::uint32_t index = 0);
    void SetInt32(std::string_view name, std::int32_t value, std::uint32_t index = 0);
    void SetInt64(std::string_view name, std::int64_t value, std::uint32_t index = 0);
    void SetContainer(std::string_view name, KelContainer value, std::uint32_t index = 0);

    // Get: the value at `index` of `name`, or the default when it is absent or cannot be converted.
    KelString GetString(std::string_view name, std::string_view fallback = {}, std::uint32_t index = 0) const;
    bool GetBool(std::string_view name, bool fallback = false, std::uint32_t index = 0) const;
    std::int32_t GetInt32(std::string_view name, std::int32_t fallback = 0, std::uint32_t index = 0) const;
    std::int64_t GetInt64(std::string_view name, std::int64_t fallback = 0, std::uint32_t index = 0) const;
    /// An empty container when absent. The reference lives until this container changes.
    const KelContainer& GetContainer(std::string_view name, std::uint32_t index = 0) const;
    /// True when the value at `index` of `name` exists and is a container.
    bool IsContainer(std::string_view name, std::uint32_t index = 0) const;

    enum class Type : unsigned char { None, String, Bool, Int32, Int64, Container };
    Type GetType(std::string_view name, std::uint32_t index = 0) const;

    KelString SaveToXML() const;
    /// Replaces the content by what `xml` holds; on an error (its message names line and column) the
    /// container is left empty. An empty text gives an empty container.
    KelStatus LoadFromXML(std::string_view xml, std::size_t maxValues = kMaxValues);

    /// Saves the XML form, durably and atomically. A container that LoadFromXML would refuse for its depth or
    /// size is not saved.
    KelStatus SaveToFile(const KelString& path) const;
    /// On an error the container is left empty.
    KelStatus LoadFromFile(const KelString& path);

    /// Saves the XML form to a new file, readable by its owner only, in `folder` (the system's folder for
    /// temporary files when empty) and sets `path` to it. The caller removes the file.
    KelStatus SaveToTempFile(KelString& path, const KelString& folder = {}) const;

  private:
    struct Content;
    using Value = std::variant<KelString, bool, std::int32_t, std::int64_t, std::unique_ptr<KelContainer>>;

    const Value* Find(std::string_view name, std::uint32_t index) const;
    void Set(std::string_view name, std::uint32_t index, Value value);

    std::unique_ptr<Content> content_;  ///< null while nothing was ever set
};
