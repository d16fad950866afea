#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <limits>

#include "kel/container.h"
#include "temp_folder.h"

namespace {

using testing::HasSubstr;

TEST(ContainerXml, EveryStringSurvivesAsValueAndAsName) {
    KelString allBytes;
    for (int i = 0; i < 256; ++i)
        allBytes += static_cast<char>(i);
    const KelString texts[] = {"",
                               " ",
                               "  lead and trail  ",
                               "\t",
                               "\r\n",
                               "\n\n",
                               "a\rb\r\nc",
                               "it's \"<&>\" ]]> &amp; &#10;",
                               KelString("zero\0byte", 9),
                               "bell\x07",
                               "\x1B[31m",
                               "\x7F",
                               "\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80",
                               "\xEF\xBF\xBE",
                               "\xEF\xBF\xBF",
                               "\xEF\xBB\xBF bom",
                               "\xC3",
                               "\xED\xA0\x80",
                               "<![CDATA[x]]>",
                               "<!--",
                               "<?xml",
                               "YWJj",
                               allBytes};
    KelContainer c;
    for (const KelString& text : texts) {
        c.SetString(text, text, KelContainer::kAbsent);
        c.SetString("list", text, KelContainer::kAbsent);
    }
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

struct BadXml {
    const char* name;
    KelString xml;
    const char* place;
};

class ContainerXmlRefuses : public testing::TestWithParam<BadXml> {};

TEST_P(ContainerXmlRefuses, NamesThePlaceAndIsLeftEmpty) {
    KelContainer c;
    c.SetString("before", "x");
    const KelStatus status = c.LoadFromXML(GetParam().xml);
    ASSERT_FALSE(status);
    EXPECT_NE(status.Error().code, 0U);
    EXPECT_THAT(status.Error().message, HasSubstr(GetParam().place));
    EXPECT_TRUE(c.IsEmpty());
}

KelString InContainer(const KelString& text) {
    return "<Container>\n " + text + "</Container>";
}

KelString Nested(const KelString& element, std::size_t count) {
    KelString xml = "<Container>";
    for (std::size_t i = 0; i < count; ++i)
        xml += element;
    return xml;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ContainerXmlRefuses,
    testing::Values(
        BadXml{"Doctype", "<!DOCTYPE Container [<!ENTITY a 'b'>]>\n<Container/>", "line 1, column 1"},
        BadXml{"Entity", InContainer("<Value name='a'>&file;</Value>"), "line 2, column 18"},
        BadXml{"EntityInAttribute", InContainer("<Value name='&a;'/>"), "line 2, column 15"},
        BadXml{"ZeroReference", InContainer("<Value name='a'>&#0;</Value>"), "line 2, column 18"},
        BadXml{"HugeReference", InContainer("<Value name='a'>&#99999999999;</Value>"), "line 2"},
        BadXml{"SurrogateReference", InContainer("<Value name='a'>&#xD800;</Value>"), "line 2"},
        BadXml{"BareAmpersand", InContainer("<Value name='a'>a & b</Value>"), "line 2, column 20"},
        BadXml{"ControlByte", InContainer("<Value name='a'>\x01</Value>"), "line 2, column 18"},
        BadXml{"ZeroByte", InContainer(KelString("\0", 1)), "line 2, column 2"},
        BadXml{"IllFormedUtf8", InContainer("<Value name='a'>\xC3(</Value>"), "line 2, column 18"},
        BadXml{"CutOff", "<Container>\n<Value name='a'>text", "line 2"},
        BadXml{"Mismatch", InContainer("<Value name='a'></Valu>"), "line 2"},
        BadXml{"TooManyEndTags", "<Container></Container></Container>", "line 1, column 24"},
        BadXml{"TwoRoots", "<Container/><Container/>", "line 1"}, BadXml{"OtherRoot", "<Box/>", "line 1"},
        BadXml{"NoElement", "only text", "line 1"},
        BadXml{"OtherElement", InContainer("<Item name='a'/>"), "line 2, column 3"},
        BadXml{"TextInContainer", InContainer("loose"), "line"},
        BadXml{"NoName", InContainer("<Value type='bool'>1</Value>"), "line 2"},
        BadXml{"UnknownType", InContainer("<Value name='a' type='float'>1</Value>"), "float"},
        BadXml{"BadBool", InContainer("<Value name='a' type='bool'>maybe</Value>"), "maybe"},
        BadXml{"Int32Overflow", InContainer("<Value name='a' type='int32'>2147483648</Value>"), "line 2"},
        BadXml{"EmptyInt", InContainer("<Value name='a' type='int64'/>"), "line 2"},
        BadXml{"BadBase64", InContainer("<Value name='a' encoding='base64'>A</Value>"), "line 2"},
        BadXml{"UnknownEncoding", InContainer("<Value name='a' encoding='hex'>41</Value>"), "line 2"},
        BadXml{"ElementInString", InContainer("<Value name='a'><b/></Value>"), "line 2"},
        BadXml{"Deep", Nested("<Value name='a' type='container'>", 5000), "nested"},
        BadXml{"DeepBehindQuotes", Nested("<Value name='/>' type='container'>", 5000), "nested"},
        BadXml{"TooLong", KelString(KelContainer::kMaxXmlBytes + 1, ' '), "67108864"}),
    [](const auto& bad) { return bad.param.name; });

TEST(ContainerXml, FilesAreReplacedWholeAndTemporaryOnesArePrivate) {
    const TempFolder folder;
    KelContainer c;
    c.SetString("k", "v");
    ASSERT_TRUE(c.SaveToFile(folder / "c.xml"));
    c.SetString("k", "w");
    ASSERT_TRUE(c.SaveToFile(folder / "c.xml"));
    KelContainer read;
    ASSERT_TRUE(read.LoadFromFile(folder / "c.xml"));
    EXPECT_TRUE(read == c);

    KelString path;
    ASSERT_TRUE(c.SaveToTempFile(path, folder.Path()));
    struct stat status {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600U);
    EXPECT_EQ(TempFolder::Read(path), c.SaveToXML());
    EXPECT_FALSE(c.SaveToTempFile(path, folder / "missing"));
    EXPECT_FALSE(read.LoadFromFile(folder / "missing.xml"));
    EXPECT_TRUE(read.IsEmpty());
}

}  // namespace
