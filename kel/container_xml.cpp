#include "kel/container_xml.h"

#include <pugixml.hpp>

#include <cstring>
#include <optional>
#include <utility>

#include "kel/base64.h"
#include "kel/format.h"
#include "kel/text.h"

namespace {

using Type = KelContainer::Type;

/// The attributes of a value, and a comment or CDATA section in it.
constexpr std::size_t kOthersPerValue = 4;

/// True when XML 1.0 can hold every character of `text`, references included.
bool XmlCanHold(std::string_view text) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if (byte < 0x20 && byte != '\t' && byte != '\n' && byte != '\r') return false;
        if (byte == 0xEF && (text.substr(i, 3) == "\xEF\xBF\xBE" || text.substr(i, 3) == "\xEF\xBF\xBF"))
            return false;
    }
    return IsValidUtf8(text);
}

class Writer {
  public:
    void Container(const KelContainer& container, std::size_t depth) {
        deepest_ = std::max(deepest_, depth);
        for (std::size_t i = 0; i < container.GetNameCount(); ++i) {
            const KelString& name = container.GetName(i);
            const std::uint32_t count = container.Count(name);
            for (std::uint32_t index = 0; index < count; ++index)
                Value(container, name, index, depth);
            values_ += count;
        }
    }

    std::size_t Deepest() const { return deepest_; }
    std::size_t Values() const { return values_; }
    KelString& Text() { return xml_; }

  private:
    void Value(const KelContainer& container, const KelString& name, std::uint32_t index, std::size_t depth) {
        xml_ += "<Value name=\"";
        Name(name);
        switch (container.GetType(name, index)) {
            case Type::Bool:
                xml_ += " type=\"bool\">";
                xml_ += container.GetString(name, {}, index);
                break;
            case Type::Int32:
                xml_ += " type=\"int32\">";
                xml_ += container.GetString(name, {}, index);
                break;
            case Type::Int64:
                xml_ += " type=\"int64\">";
                xml_ += container.GetString(name, {}, index);
                break;
            case Type::Container:
                xml_ += " type=\"container\">";
                Container(container.GetContainer(name, index), depth + 1);
                break;
            default:
                String(container.GetString(name, {}, index));
        }
        xml_ += "</Value>";
    }

    void Name(const KelString& name) {
        if (XmlCanHold(name)) {
            Escaped(name);
            xml_ += '"';
        } else {
            xml_ += Base64Encode(name);
            xml_ += "\" nameEncoding=\"base64\"";
        }
    }

    void String(const KelString& value) {
        if (XmlCanHold(value)) {
            xml_ += " type=\"string\">";
            Escaped(value);
        } else {
            xml_ += " type=\"string\" encoding=\"base64\">";
            xml_ += Base64Encode(value);
        }
    }

    void Escaped(std::string_view text) {
        for (const char c : text) {
            switch (c) {
                case '&':
                    xml_ += "&amp;";
                    break;
                case '<':
                    xml_ += "&lt;";
                    break;
                case '>':
                    xml_ += "&gt;";
                    break;
                case '"':
                    xml_ += "&quot;";
                    break;
                case '\'':
                    xml_ += "&apos;";
                    break;
                case '\t':
                    xml_ += "&#9;";
                    break;
                case '\n':
                    xml_ += "&#10;";
                    break;
                case '\r':
                    xml_ += "&#13;";
                    break;
                default:
                    xml_ += c;
            }
        }
    }

    KelString xml_;
    std::size_t deepest_ = 0;
    std::size_t values_ = 0;
};

class Reader {
  public:
    bool Container(const pugi::xml_node& element, KelContainer& container, std::size_t depth) {
        if (depth > KelContainer::kMaxDepth) return Fail(element, "the containers are nested too deeply");
        for (const pugi::xml_node& child : element.children()) {
            if (child.type() == pugi::node_pcdata || child.type() == pugi::node_cdata) {
                if (!Trim(child.value()).empty()) return Fail(child, "text outside of a value");
                continue;
            }
            if (std::strcmp(child.name(), "Value") != 0)
                return Fail(child, "an element other than \"Value\" in a container");
            if (!Value(child, container, depth)) return false;
        }
        return true;
    }

    KelError Error(std::string_view xml) const { return XmlErrorAt(xml, offset_, problem_); }

    bool Fail(const pugi::xml_node& node, KelString problem) {
        offset_ = node.offset_debug() > 0 ? static_cast<std::size_t>(node.offset_debug()) : 0;
        problem_ = std::move(problem);
        return false;
    }

  private:
    bool Value(const pugi::xml_node& element, KelContainer& container, std::size_t depth) {
        const pugi::xml_attribute nameAttribute = element.attribute("name");
        if (!nameAttribute) return Fail(element, "a value without a name");
        KelString name = nameAttribute.value();
        if (!Decode(element, "nameEncoding", name)) return false;

        const std::string_view type = element.attribute("type").as_string("string");
        if (type == "container") {
            KelContainer inner;
            if (!Container(element, inner, depth + 1)) return false;
            // kAbsent is beyond every index, so the value is appended to those of its name.
            container.SetContainer(name, std::move(inner), KelContainer::kAbsent);
            return true;
        }
        KelString text;
        for (const pugi::xml_node& child : element.children()) {
            if (child.type() != pugi::node_pcdata && child.type() != pugi::node_cdata)
                return Fail(child, "an element inside a plain value");
            text += child.value();
        }
        if (type == "string") {
            if (!Decode(element, "encoding", text)) return false;
            container.SetString(name, std::move(text), KelContainer::kAbsent);
            return true;
        }
        return Scalar(element, container, name, type, Trim(text));
    }

    bool Scalar(const pugi::xml_node& element, KelContainer& container, const KelString& name,
                std::string_view type, const KelString& text) {
        if (type == "bool") {
            const bool isTrue = text == "true" || text == "1";
            if (!isTrue && text != "false" && text != "0") return Fail(element, "not a bool: " + text);
            container.SetBool(name, isTrue, KelContainer::kAbsent);
            return true;
        }
        if (type != "int32" && type != "int64")
            return Fail(element, "unknown type \"" + KelString(type) + "\"");
        const std::optional<std::int64_t> number = ParseInt64(text);
        if (!number || (type == "int32" && !std::in_range<std::int32_t>(*number)))
            return Fail(element, "not an integer of type " + KelString(type) + ": " + text);
        if (type == "int32")
            container.SetInt32(name, static_cast<std::int32_t>(*number), KelContainer::kAbsent);
        else
            container.SetInt64(name, *number, KelContainer::kAbsent);
        return true;
    }

    bool Decode(const pugi::xml_node& element, const char* attribute, KelString& text) {
        const pugi::xml_attribute encoding = element.attribute(attribute);
        if (!encoding) return true;
        std::optional<KelString> bytes;
        if (std::strcmp(encoding.value(), "base64") == 0) bytes = Base64Decode(Trim(text));
        if (!bytes) return Fail(element, "a value that is not in the encoding it is marked with");
        text = std::move(*bytes);
        return true;
    }

    std::size_t offset_ = 0;
    KelString problem_;
};

}  // namespace

KelString ContainerToXml(const KelContainer& container) {
    Writer writer;
    writer.Text() = "<Container>";
    writer.Container(container, 1);
    writer.Text() += "</Container>";
    return std::move(writer.Text());
}

KelResult<KelString> ContainerToLoadableXml(const KelContainer& container) {
    Writer writer;
    writer.Text() = "<Container>";
    writer.Container(container, 1);
    writer.Text() += "</Container>";
    if (writer.Deepest() > KelContainer::kMaxDepth)
        return KelError{kKelFailure,
                        KelFormat("A container of %gu levels cannot be saved: at most %gu are allowed",
                                  writer.Deepest(), KelContainer::kMaxDepth)};
    if (writer.Values() > KelContainer::kMaxValues)
        return KelError{kKelFailure,
                        KelFormat("A container of %gu values cannot be saved: at most %gu are allowed",
                                  writer.Values(), KelContainer::kMaxValues)};
    if (writer.Text().size() > KelContainer::kMaxXmlBytes)
        return KelError{kKelFailure,
                        KelFormat("A container of %gu bytes of XML cannot be saved: at most %gu are allowed",
                                  writer.Text().size(), KelContainer::kMaxXmlBytes)};
    return std::move(writer.Text());
}

KelResult<KelContainer> ContainerFromXml(std::string_view xml, std::size_t maxValues) {
    KelContainer container;
    if (xml.size() > KelContainer::kMaxXmlBytes)
        return KelError{kKelFailure, KelFormat("An XML text of %gu bytes is refused: at most %gu are allowed",
                                               xml.size(), KelContainer::kMaxXmlBytes)};
    if (xml.empty()) return container;
    // The innermost container's plain values are one element deeper than it. The outermost one is no value.
    const XmlLimits limits{KelContainer::kMaxDepth + 1, maxValues + 1, kOthersPerValue * (maxValues + 1)};
    if (const KelStatus status = ScanXml(xml, limits); !status) return status.Error();

    // parse_ws_pcdata_single: blanks alone are the text of a value, but not between elements.
    pugi::xml_document document;
    const pugi::xml_parse_result parsed =
        document.load_buffer(xml.data(), xml.size(),
                             pugi::parse_escapes | pugi::parse_cdata | pugi::parse_eol |
                                 pugi::parse_wconv_attribute | pugi::parse_ws_pcdata_single,
                             pugi::encoding_utf8);
    if (!parsed)
        return XmlErrorAt(xml, parsed.offset > 0 ? static_cast<std::size_t>(parsed.offset) : 0,
                          parsed.description());
    Reader reader;
    const pugi::xml_node root = document.document_element();
    const bool ok = std::strcmp(root.name(), "Container") != 0 || root.next_sibling()
                        ? reader.Fail(root, "the text is not one element \"Container\"")
                        : reader.Container(root, container, 1);
    if (!ok) return reader.Error(xml);
    return container;
}
