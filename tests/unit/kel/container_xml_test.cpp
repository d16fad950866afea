#include <gtest/gtest.h>

#include <limits>

#include "kel/container.h"
#include "temp_folder.h"

namespace {

TEST(ContainerXml, EveryStringSurvivesAsValueAndAsName) {
    KelContainer c;
    const auto add = [&c](std::initializer_list<KelString> texts) {
        for (const KelString& text : texts) {
            c.SetString(text, text, KelContainer::kAbsent);
            c.SetString("list", text, KelContainer::kAbsent);
        }
    };
    KelString allBytes;
    for (int i = 0; i < 256; ++i)
        allBytes += static_cast<char>(i);
    add({"", " ", "  lead and trail  ", "\t", "\r\n", "\n\n", "a\rb\r\nc", KelString("zero\0byte", 9)});
    add({"it's \"<&>\" ]]> &amp; &#10;", "<![CDATA[x]]>", "<!--", "<?xml", "YWJj", allBytes});
    add({"bell\x07", "\x1B[31m", "\x7F", "\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80", "\xEF\xBF\xBE"});
    add({"\xEF\xBF\xBF", "\xEF\xBB\xBF bom", "\xC3", "\xED\xA0\x80"});
    const KelString xml = c.SaveToXML();
    EXPECT_EQ(xml.find('\''), KelString::npos) << "the text must fit between single quotes";
    KelContainer read;
    const KelStatus status = read.LoadFromXML(xml);
    ASSERT_TRUE(status) << status.Error().message;
    EXPECT_TRUE(read == c);
    EXPECT_EQ(read.SaveToXML(), xml);
}

TEST(ContainerXml, TypesAndNestingSurvive) {
    KelContainer deepest;
    deepest.SetString("end", "here");
    for (std::size_t level = 2; level < KelContainer::kMaxDepth; ++level) {
        KelContainer outer;
        outer.SetContainer("in", std::move(deepest));
        deepest = std::move(outer);
    }
    KelContainer c;
    c.SetBool("b", true);
    c.SetBool("b", false, 1);
    c.SetInt32("i", std::numeric_limits<std::int32_t>::min());
    c.SetInt64("l", std::numeric_limits<std::int64_t>::max());
    c.SetString("i", "mixed types under one name", 1);
    c.SetContainer("empty", {});
    c.SetContainer("deep", deepest);
    KelContainer read;
    ASSERT_TRUE(read.LoadFromXML(c.SaveToXML()));
    EXPECT_TRUE(read == c);

    KelContainer tooDeep;
    tooDeep.SetContainer("x", c);
    EXPECT_FALSE(read.LoadFromXML(tooDeep.SaveToXML()));
    const TempFolder folder;
    EXPECT_FALSE(tooDeep.SaveToFile(folder / "deep.xml")) << "what cannot be read back is not saved";
}

TEST(ContainerXml, AcceptsOtherWritersForms) {
    KelContainer c;
    const KelStatus status = c.LoadFromXML(
        "\xEF\xBB\xBF<?xml version='1.0' encoding='UTF-8'?>\n<!-- > < -->\n<Container>\r\n"
        "  <Value name='a' type='string'>x<![CDATA[<y>&]]>&#x7A;<!-- no -->!</Value>\n"
        "  <Value type=\"int32\" name=\"n&lt;&apos;\"> 5 </Value>\n"
        "  <Value name=\"a\">2\r\n3</Value> <Value name='e'/>\n"
        "  <Value name='c' type='container'>\n</Value>\n"
        "  <Value name='a' type='bool'>1</Value>\n</Container>\n");
    ASSERT_TRUE(status) << status.Error().message;
    EXPECT_EQ(c.GetString("a"), "x<y>&z!");
    EXPECT_EQ(c.GetString("a", "", 1), "2\n3") << "line ends are normalised, interleaved names keep order";
    EXPECT_TRUE(c.GetBool("a", false, 2));
    EXPECT_EQ(c.GetInt32("n<'"), 5);
    EXPECT_EQ(c.Count("e"), 1U);
    EXPECT_TRUE(c.IsContainer("c"));
    ASSERT_TRUE(c.LoadFromXML(""));
    EXPECT_TRUE(c.IsEmpty());
}

/// A document of one element whose first character is at line 2, column 2.
KelString In(const KelString& element) {
    return "<Container>\n " + element + "</Container>";
}

/// The same with a string value; its text begins at column 18.
KelString Text(const KelString& text) {
    return In("<Value name='a'>" + text + "</Value>");
}

KelString Nested(const KelString& element, std::size_t count) {
    KelString xml = "<Container>";
    for (std::size_t i = 0; i < count; ++i)
        xml += element;
    return xml;
}

TEST(ContainerXml, RefusalsNameThePlaceAndLeaveNothing) {
    const std::pair<KelString, const char*> cases[] = {
        {"<!DOCTYPE Container [<!ENTITY a 'b'>]>\n<Container/>", "line 1, column 1"},
        {Text("&file;"), "line 2, column 18"},
        {In("<Value name='&a;'/>"), "line 2, column 15"},
        {Text("&#0;"), "line 2, column 18"},
        {Text("&#99999999999;"), "line 2"},
        {Text("&#xD800;"), "line 2"},
        {Text("a & b"), "line 2, column 20"},
        {Text("\x01"), "line 2, column 18"},
        {In(KelString("\0", 1)), "line 2, column 2"},
        {Text("\xC3("), "line 2, column 18"},
        {"<Container>\n<Value name='a'>text", "line 2"},
        {In("<Value name='a'></Valu>"), "line 2"},
        {"<Container></Container></Container>", "line 1, column 24"},
        {"<Container/><Container/>", "line 1"},
        {"<Box/>", "line 1"},
        {"only text", "line 1"},
        {In("<Item name='a'/>"), "line 2, column 3"},
        {In("loose"), "line"},
        {In("<Value type='bool'>1</Value>"), "line 2"},
        {In("<Value name='a' type='float'>1</Value>"), "float"},
        {In("<Value name='a' type='bool'>maybe</Value>"), "maybe"},
        {In("<Value name='a' type='int32'>2147483648</Value>"), "line 2"},
        {In("<Value name='a' type='int64'/>"), "line 2"},
        {In("<Value name='a' encoding='base64'>A</Value>"), "line 2"},
        {In("<Value name='a' encoding='hex'>41</Value>"), "line 2"},
        {Text("<b/>"), "line 2"},
        {Nested("<Value name='a' type='container'>", 5000), "nested"},
        {Nested("<Value name='/>' type='container'>", 5000), "nested"},
        {KelString(KelContainer::kMaxXmlBytes + 1, ' '), "67108864"},
    };
    for (const auto& [xml, place] : cases) {
        SCOPED_TRACE(xml.substr(0, 60));
        KelContainer c;
        c.SetString("before", "x");
        const KelStatus status = c.LoadFromXML(xml);
        EXPECT_FALSE(status);
        EXPECT_NE(status.Error().code, 0U);
        EXPECT_NE(status.Error().message.find(place), KelString::npos) << status.Error().message;
        EXPECT_TRUE(c.IsEmpty());
    }
}

TEST(ContainerXml, NoMorePiecesAreBuiltThanTheValuesAllow) {
    const auto repeat = [](const char* piece, int times) {
        KelString text;
        for (int i = 0; i < times; ++i)
            text += piece;
        return text;
    };
    const KelString inner = "<Value name='c' type='container'><Value name='i'/></Value>";
    for (const auto& [content, isAllowed] : std::initializer_list<std::pair<KelString, bool>>{
             {repeat("<Value name='a'>1</Value>", 4), true},
             {repeat("<Value name='a'>1</Value>", 5), false},
             {inner + inner, true},
             {inner + inner + inner, false},
             {"<Value name='a'" + repeat(" x=''", 19) + "/>", true},
             {"<Value name='a'" + repeat(" x=''", 20) + "/>", false},
             {"<Value name='a'>" + repeat("b<![CDATA[]]>", 20) + "</Value>", false},
             {repeat("<!---->", 21), false},
             {repeat("<?x?>", 21), false}}) {
        KelContainer c;
        EXPECT_EQ(static_cast<bool>(c.LoadFromXML("<Container>" + content + "</Container>", 4)), isAllowed)
            << content;
        EXPECT_EQ(c.IsEmpty(), !isAllowed) << content;
    }
}

TEST(ContainerXml, FilesAreReadBackAndTemporaryOnesArePrivate) {
    const TempFolder folder;
    KelContainer c, read;
    c.SetString("k", "v");
    ASSERT_TRUE(c.SaveToFile(folder / "c.xml"));
    ASSERT_TRUE(read.LoadFromFile(folder / "c.xml"));
    EXPECT_TRUE(read == c);
    EXPECT_FALSE(read.LoadFromFile(folder / "missing.xml"));
    EXPECT_TRUE(read.IsEmpty());
    KelString path;
    ASSERT_TRUE(c.SaveToTempFile(path, folder.Path()));
    EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(0600));
    EXPECT_EQ(TempFolder::Read(path), c.SaveToXML());
    EXPECT_FALSE(c.SaveToTempFile(path, folder / "missing"));
}

}  // namespace
