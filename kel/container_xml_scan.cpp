#include "kel/container_xml.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <optional>

#include "kel/format.h"
#include "kel/text.h"

namespace {

constexpr auto kEnd = std::string_view::npos;

/// Offset of the first byte that no XML text may hold, kEnd when there is none.
std::size_t FindBadByte(std::string_view xml) {
    for (std::size_t i = 0; i < xml.size(); ++i) {
        const auto byte = static_cast<unsigned char>(xml[i]);
        if (byte < 0x20 && byte != '\t' && byte != '\n' && byte != '\r') return i;
        // U+FFFE and U+FFFF
        if (byte == 0xEF && (xml.substr(i, 3) == "\xEF\xBF\xBE" || xml.substr(i, 3) == "\xEF\xBF\xBF"))
            return i;
    }
    return FindIllFormedUtf8(xml);
}

bool IsXmlCharacter(std::uint32_t code) {
    return code == 9 || code == 10 || code == 13 || (code >= 0x20 && code < 0xD800) ||
           (code >= 0xE000 && code < 0xFFFE) || (code >= 0x10000 && code <= 0x10FFFF);
}

/// True when `name` (the text between "&" and ";") stands for a character without any DOCTYPE.
bool IsCharacterReference(std::string_view name) {
    if (name == "amp" || name == "lt" || name == "gt" || name == "apos" || name == "quot") return true;
    if (name.size() < 2 || name[0] != '#') return false;
    const bool hex = name[1] == 'x';
    name.remove_prefix(hex ? 2 : 1);
    std::uint32_t code = 0;
    const char* end = name.data() + name.size();
    const auto [stop, error] = std::from_chars(name.data(), end, code, hex ? 16 : 10);
    return !name.empty() && error == std::errc() && stop == end && IsXmlCharacter(code);
}

class Scanner {
  public:
    Scanner(std::string_view xml, const XmlLimits& limits) : xml_(xml), limits_(limits) {}

    KelStatus Run() {
        while (!problem_) {
            const std::size_t next = xml_.find_first_of("<&", at_);
            if (next == kEnd) return {};
            at_ = next;
            xml_[at_] == '&' ? Reference() : Markup();
        }
        return XmlErrorAt(xml_, at_, *problem_);
    }

  private:
    bool StartsWith(std::string_view text) const { return xml_.substr(at_).starts_with(text); }

    void Fail(const char* problem) { problem_ = problem; }

    void CountOther() {
        if (others_++ == limits_.others) Fail("it has too many attributes, comments and CDATA sections");
    }

    void SkipBehind(std::string_view open, std::string_view close, const char* problem) {
        const std::size_t end = xml_.find(close, at_ + open.size());
        if (end == kEnd) return Fail(problem);
        at_ = end + close.size();
    }

    void Reference() {
        const std::size_t end = xml_.find(';', at_);
        // 16 characters are more than any reference takes without leading zeros.
        if (end == kEnd || end - at_ > 16 || !IsCharacterReference(xml_.substr(at_ + 1, end - at_ - 1)))
            return Fail("'&' begins no reference to a character that XML allows");
        at_ = end + 1;
    }

    void Markup() {
        if (StartsWith("</")) {
            if (depth_ == 0) return Fail("an end tag without its start tag");
            --depth_;
            return SkipBehind("</", ">", "an end tag does not end");
        }
        if (!StartsWith("<!") && !StartsWith("<?")) return StartTag();
        CountOther();
        if (problem_) return;
        if (StartsWith("<!--")) return SkipBehind("<!--", "-->", "a comment does not end");
        if (StartsWith("<![CDATA[")) return SkipBehind("<![CDATA[", "]]>", "a CDATA section does not end");
        if (StartsWith("<?")) return SkipBehind("<?", "?>", "a processing instruction does not end");
        Fail("DOCTYPE and other declarations are not accepted");
    }

    void StartTag() {
        if (depth_ == limits_.depth) return Fail("the elements are nested too deeply");
        if (elements_++ == limits_.elements) return Fail("it has too many values");
        const std::size_t start = at_++;
        while (!problem_ && at_ < xml_.size()) {
            const char c = xml_[at_];
            if (c == '>') {
                // "<x/>" has no inside.
                if (xml_[at_ - 1] != '/' || at_ - 1 == start) ++depth_;
                ++at_;
                return;
            }
            if (c == '<') return Fail("'<' inside a tag");
            c == '"' || c == '\'' ? QuotedValue(c) : static_cast<void>(++at_);
        }
        if (!problem_) Fail("a tag does not end");
    }

    void QuotedValue(char quote) {
        const char stops[] = {quote, '&', '<', '\0'};
        CountOther();
        ++at_;
        while (!problem_) {
            const std::size_t next = xml_.find_first_of(stops, at_);
            if (next == kEnd) return Fail("an attribute's value does not end");
            at_ = next;
            if (xml_[at_] == '<') return Fail("'<' inside an attribute's value");
            if (xml_[at_] == quote) {
                ++at_;
                return;
            }
            Reference();
        }
    }

    std::string_view xml_;
    XmlLimits limits_;
    std::size_t at_ = 0;
    std::size_t depth_ = 0;
    std::size_t elements_ = 0;
    std::size_t others_ = 0;
    std::optional<const char*> problem_;
};

}  // namespace

KelError XmlErrorAt(std::string_view xml, std::size_t offset, const KelString& problem) {
    const std::string_view before = xml.substr(0, std::min(offset, xml.size()));
    const auto line = std::count(before.begin(), before.end(), '\n') + 1;
    const std::size_t lineStart = before.rfind('\n');
    const std::size_t column = lineStart == kEnd ? before.size() + 1 : before.size() - lineStart;
    return {kKelFailure,
            KelFormat("The XML text is unusable at line %gd, column %gu: %S", line, column, problem)};
}

KelStatus ScanXml(std::string_view xml, const XmlLimits& limits) {
    const std::size_t bad = FindBadByte(xml);
    if (bad != kEnd) return XmlErrorAt(xml, bad, "a byte or character that XML does not allow");
    return Scanner(xml, limits).Run();
}
