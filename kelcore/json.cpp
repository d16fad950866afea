#include "kelcore/json.h"

#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>
#include <utility>

#include "kel/format.h"
#include "kel/text.h"

namespace {

using Json = nlohmann::json;

void AppendContainer(const KelContainer& container, KelString& out);

void AppendText(const KelString& text, KelString& out) {
    // Ill-formed UTF-8 becomes U+FFFD instead of an exception.
    out += Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
}

void AppendValue(const KelContainer& container, const KelString& name, std::uint32_t index, KelString& out) {
    switch (container.GetType(name, index)) {
        case KelContainer::Type::Bool:
            out += container.GetBool(name, false, index) ? "true" : "false";
            break;
        case KelContainer::Type::Int32:
        case KelContainer::Type::Int64:
            out += std::to_string(container.GetInt64(name, 0, index));
            break;
        case KelContainer::Type::Container:
            AppendContainer(container.GetContainer(name, index), out);
            break;
        case KelContainer::Type::String:
        case KelContainer::Type::None:
            AppendText(container.GetString(name, {}, index), out);
            break;
    }
}

void AppendContainer(const KelContainer& container, KelString& out) {
    out += '{';
    for (std::size_t i = 0; i < container.GetNameCount(); ++i) {
        const KelString& name = container.GetName(i);
        const std::uint32_t count = container.Count(name);
        if (i != 0) out += ',';
        AppendText(name, out);
        out += count == 1 ? ":" : ":[";
        for (std::uint32_t index = 0; index < count; ++index) {
            if (index != 0) out += ',';
            AppendValue(container, name, index, out);
        }
        if (count != 1) out += ']';
    }
    out += '}';
}

/// Builds containers from the events of the parser, so that depth is known before anything is built.
class ContainerBuilder : public nlohmann::json_sax<Json> {
  public:
    explicit ContainerBuilder(std::size_t maxValues) : valuesLeft_(maxValues) {}

    KelContainer TakeRoot() { return std::move(root_); }
    const KelString& Problem() const { return problem_; }

    bool null() override { return Refuse("null is no value"); }
    bool number_float(number_float_t, const string_t& text) override {
        return Refuse("the number " + text + " is no 64-bit integer");
    }
    bool binary(binary_t&) override { return Refuse("binary data is no value"); }

    bool boolean(bool value) override {
        return Place([&](Level& level) { level.container.SetBool(level.name, value, level.index); });
    }
    bool number_integer(number_integer_t value) override { return PlaceInteger(value); }
    bool number_unsigned(number_unsigned_t value) override {
        if (value > static_cast<number_unsigned_t>(std::numeric_limits<std::int64_t>::max()))
            return Refuse("the number " + std::to_string(value) + " is no 64-bit integer");
        return PlaceInteger(static_cast<std::int64_t>(value));
    }
    bool string(string_t& value) override {
        return Place(
            [&](Level& level) { level.container.SetString(level.name, std::move(value), level.index); });
    }

    bool start_object(std::size_t) override {
        if (levels_.size() == KelContainer::kMaxDepth) return Refuse("it is nested too deeply");
        levels_.emplace_back();
        return true;
    }
    bool end_object() override {
        KelContainer done = std::move(levels_.back().container);
        levels_.pop_back();
        if (levels_.empty()) {
            root_ = std::move(done);
            return true;
        }
        return Place(
            [&](Level& level) { level.container.SetContainer(level.name, std::move(done), level.index); });
    }
    bool key(string_t& name) override {
        Level& level = levels_.back();
        if (level.container.Has(name)) return Refuse("the name \"" + name + "\" is repeated");
        level.name = std::move(name);
        level.index = 0;
        return true;
    }
    bool start_array(std::size_t) override {
        if (levels_.empty()) return Refuse("an object is expected");
        if (levels_.back().inArray) return Refuse("an array within an array is no value");
        levels_.back().inArray = true;
        return true;
    }
    bool end_array() override {
        levels_.back().inArray = false;
        return true;
    }
    bool parse_error(std::size_t position, const std::string&,
                     const nlohmann::detail::exception& error) override {
        return Refuse(KelFormat("malformed at byte %gu: %s", position, error.what()));
    }

  private:
    struct Level {
        KelContainer container;
        KelString name;           // of the member that is being read
        std::uint32_t index = 0;  // of its next value
        bool inArray = false;
    };

    bool Refuse(KelString problem) {
        problem_ = std::move(problem);
        return false;
    }

    template <class Setter>
    bool Place(Setter set) {
        if (levels_.empty()) return Refuse("an object is expected");
        if (valuesLeft_ == 0) return Refuse("it has too many values");
        --valuesLeft_;
        set(levels_.back());
        ++levels_.back().index;
        return true;
    }

    bool PlaceInteger(std::int64_t value) {
        return Place([&](Level& level) {
            // JSON has one kind of integer; the narrowest type converts to all others.
            const auto narrow = static_cast<std::int32_t>(value);
            if (narrow == value) {
                level.container.SetInt32(level.name, narrow, level.index);
            } else {
                level.container.SetInt64(level.name, value, level.index);
            }
        });
    }

    KelVector<Level> levels_;  // the containers being read, outermost first
    KelContainer root_;
    KelString problem_;
    std::size_t valuesLeft_;
};

}  // namespace

KelString ContainerToJson(const KelContainer& container) {
    KelString json;
    AppendContainer(container, json);
    return json;
}

KelStatus ContainerFromJson(std::string_view json, KelContainer& container, std::size_t maxValues) {
    container.Clear();
    if (json.size() > KelContainer::kMaxXmlBytes) return KelError{kKelFailure, "JSON: the text is too long"};
    if (json.find_first_not_of(" \t\r\n") == std::string_view::npos) return {};
    ContainerBuilder builder(maxValues);
    if (!Json::sax_parse(json, &builder)) return KelError{kKelFailure, "JSON: " + builder.Problem()};
    container = builder.TakeRoot();
    return {};
}
