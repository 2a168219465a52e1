#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <iterator>
#include <cmath>
#include <filesystem>
#include <limits>
#include <string>

#include "Foundation/Value.h"
#include "support/TestSupport.h"

using corvina::Value;
using namespace corvina::test;

namespace {

// How many entries a folder holds.
long entries(const std::string& folder)
{
    return std::distance(std::filesystem::directory_iterator(folder), std::filesystem::directory_iterator());
}

Value sampleDocument()
{
    using D = Value::DictionaryType;
    using A = Value::ArrayType;
    return Value(D{
        {"VideoFile", Value("/tmp/video data.raw")},
        {"FrameRate", Value(29.97)},
        {"Width", Value(1920)},
        {"Negative", Value(int64_t{-42})},
        {"Huge", Value(std::numeric_limits<uint64_t>::max())},
        {"Flag", Value(true)},
        {"Created", Value::date(corvina::Date(std::chrono::seconds(978307200 + 86400)))},
        {"Blob", Value::data({0x0a, 0x1b, 0x2c, 0x3d, 0x4e})},
        {"Offsets", Value(A{Value(D{{"offset", Value(0)}, {"length", Value(144000)}}), Value(A{}), Value("x")})},
        {"Empty", Value(D{})},
        {"Unicode", Value("Café ☕")},
    });
}

}  // namespace

TEST(Value, ConversionsTable)
{
    struct Row {
        const char* name;
        Value value;
        int64_t integer;
        int32_t i32;
        int16_t i16;
        double real;
        uint64_t u64;
        bool boolean;
    };
    const Row rows[] = {
        {"int 30", Value(30), 30, 30, 30, 30.0, 30, true},
        {"int 40000", Value(40000), 40000, 40000, -25536, 40000.0, 40000, true},
        {"int -1", Value(-1), -1, -1, -1, -1.0, std::numeric_limits<uint64_t>::max(), true},
        {"int 2^32+5", Value(int64_t{4294967301}), 4294967301, 5, 5, 4294967301.0, 4294967301, true},
        {"real 29.97", Value(29.97), 29, 29, 29, 29.97, 29, true},
        {"real -2.9", Value(-2.9), -2, -2, -2, -2.9, static_cast<uint64_t>(-2), true},
        {"real 0.4", Value(0.4), 0, 0, 0, 0.4, 0, true},
        {"bool yes", Value(true), 1, 1, 1, 1.0, 1, true},
        {"bool no", Value(false), 0, 0, 0, 0.0, 0, false},
        {"string 12abc", Value("12abc"), 12, 12, 12, 12.0, 12, true},
        {"string spaced", Value("  -7 "), -7, -7, -7, -7.0, static_cast<uint64_t>(-7), true},
        {"string real", Value("29.97fps"), 29, 29, 29, 29.97, 29, true},
        {"string big", Value("99999999999"), 99999999999, std::numeric_limits<int32_t>::max(),
         static_cast<int16_t>(99999999999), 99999999999.0, 99999999999, true},
        {"string yes", Value("YES"), 0, 0, 0, 0.0, 0, true},
        {"string 0", Value("000"), 0, 0, 0, 0.0, 0, false},
        {"string junk", Value("abc"), 0, 0, 0, 0.0, 0, false},
        {"string empty", Value(""), 0, 0, 0, 0.0, 0, false},
        {"none", Value(), 0, 0, 0, 0.0, 0, false},
        {"data", Value::data({1, 2}), 0, 0, 0, 0.0, 0, false},
        {"array", Value(Value::ArrayType{Value(1)}), 0, 0, 0, 0.0, 0, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(row.value.integerValue(), row.integer);
        EXPECT_EQ(row.value.intValue(), row.i32);
        EXPECT_EQ(row.value.shortValue(), row.i16);
        EXPECT_DOUBLE_EQ(row.value.doubleValue(), row.real);
        EXPECT_FLOAT_EQ(row.value.floatValue(), static_cast<float>(row.real));
        EXPECT_EQ(row.value.unsignedLongLongValue(), row.u64);
        EXPECT_EQ(row.value.boolValue(), row.boolean);
    }
    EXPECT_EQ(Value(std::numeric_limits<uint64_t>::max()).unsignedLongLongValue(),
              std::numeric_limits<uint64_t>::max());
    EXPECT_EQ(Value(std::nan("")).integerValue(), 0);
    EXPECT_EQ(Value(1e300).integerValue(), std::numeric_limits<int64_t>::max());
}

TEST(Value, StringValuesAndDescriptions)
{
    EXPECT_EQ(Value(29.97).stringValue(), "29.97");
    EXPECT_EQ(Value(30.0).stringValue(), "30");
    EXPECT_EQ(Value(-5).stringValue(), "-5");
    EXPECT_EQ(Value(std::numeric_limits<uint64_t>::max()).stringValue(), "18446744073709551615");
    EXPECT_EQ(Value(true).stringValue(), "1");
    EXPECT_EQ(Value::data({1}).stringValue(), "");

    EXPECT_EQ(Value().description(), "(null)");
    EXPECT_EQ(Value("plain text").description(), "plain text");
    EXPECT_EQ(Value::data({0x0a, 0x1b, 0x2c, 0x3d, 0x4e}).description(), "<0a1b2c3d 4e>");
    EXPECT_EQ(Value::data({}).description(), "<>");
    EXPECT_EQ(Value::date(corvina::Date(std::chrono::seconds(443779200))).description(), "1984-01-24 08:00:00 +0000");
    EXPECT_EQ(Value(Value::ArrayType{}).description(), "(\n)");
    EXPECT_EQ(Value(Value::DictionaryType{}).description(), "{\n}");

    using D = Value::DictionaryType;
    using A = Value::ArrayType;
    const Value doc(D{{"b", Value(A{Value("x y"), Value(1.5), Value(D{{"k", Value("")}})})},
                      {"a", Value("/tmp/a.mov")},
                      {"quote me", Value("say \"hi\"")}});
    EXPECT_EQ(doc.description(),
              "{\n"
              "    a = /tmp/a.mov;\n"
              "    b = (\n"
              "        \"x y\",\n"
              "        1.5,\n"
              "        {\n"
              "            k = \"\";\n"
              "        }\n"
              "    );\n"
              "    \"quote me\" = \"say \\\"hi\\\"\";\n"
              "}");
}

TEST(Value, AccessAndEquality)
{
    const Value doc = sampleDocument();
    EXPECT_EQ(doc.count(), 11u);
    EXPECT_EQ(doc.objectForKey("Missing"), nullptr);
    EXPECT_EQ(doc["Offsets"][0]["length"].integerValue(), 144000);
    EXPECT_TRUE(doc["Offsets"][7].isNone());
    EXPECT_TRUE(doc["Offsets"][-1].isNone());
    EXPECT_TRUE(doc["Width"]["nested"].isNone());
    EXPECT_TRUE(doc["Width"][0].isNone());
    EXPECT_EQ(doc["Width"].count(), 0u);

    EXPECT_FALSE(Value(1) == Value(1.0));
    EXPECT_FALSE(Value(1) == Value(true));
    EXPECT_FALSE(Value("1") == Value(1));
    EXPECT_TRUE(Value() == Value());
    EXPECT_TRUE(Value(std::numeric_limits<uint64_t>::max()) == Value(std::numeric_limits<uint64_t>::max()));
    EXPECT_TRUE(doc == sampleDocument());
    EXPECT_FALSE(Value(Value::ArrayType{Value(1)}) == Value(Value::ArrayType{Value(2)}));
}

TEST(Value, RoundTripsThroughXMLAndBinary)
{
    const Value doc = sampleDocument();
    const auto bin = doc.toBinaryPropertyList();
    for (const std::string& bytes : {doc.toXMLPropertyList(), std::string(bin.begin(), bin.end())}) {
        auto back = Value::fromPropertyListData(bytes.data(), bytes.size());
        ASSERT_TRUE(back);
        EXPECT_TRUE(*back == doc) << back->description();  // equal values of the same types
    }

    // Scalars and dates with sub-second parts survive too.
    const Value when = Value::date(corvina::Date(std::chrono::seconds(1700000000) + std::chrono::microseconds(250000)));
    const std::string whenXml = when.toXMLPropertyList();
    auto whenBack = Value::fromPropertyListData(whenXml.data(), whenXml.size());
    ASSERT_TRUE(whenBack);
    EXPECT_EQ(std::chrono::floor<std::chrono::seconds>(*whenBack->asDate()),
              std::chrono::floor<std::chrono::seconds>(*when.asDate()));
    EXPECT_EQ(Value().toXMLPropertyList(), "");
    EXPECT_TRUE(Value().toBinaryPropertyList().empty());
}

TEST(Value, ReadsPlatformWrittenXML)
{
    const std::string xml =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<plist version=\"1.0\"><dict>\n"
        "<key>when</key><date>1984-01-24T08:00:00Z</date>\n"
        "<key>r</key><real>23.976</real>\n"
        "<key>d</key><data>AAEC</data>\n"
        "</dict></plist>\n";
    auto v = Value::fromPropertyListData(xml.data(), xml.size());
    ASSERT_TRUE(v);
    EXPECT_EQ((*v)["when"].description(), "1984-01-24 08:00:00 +0000");
    EXPECT_EQ((*v)["r"].floatValue(), 23.976f);
    EXPECT_EQ((*v)["d"].description(), "<000102>");
}

TEST(Value, RejectsBadInput)
{
    TempDir folder;
    const Value doc = sampleDocument();
    const std::string xml = doc.toXMLPropertyList();
    const auto bin = doc.toBinaryPropertyList();
    const std::pair<const char*, std::string> rows[] = {
        {"empty", ""},
        {"garbage", "this is not a property list"},
        {"truncated xml", xml.substr(0, xml.size() / 2)},
        {"truncated binary", std::string(bin.begin(), bin.begin() + static_cast<long>(bin.size() / 2))},
        {"binary header only", "bplist00"},
        {"nul bytes", std::string(64, '\0')},
    };
    for (const auto& [name, bytes] : rows) {
        SCOPED_TRACE(name);
        const auto bad = Value::fromPropertyListData(bytes.data(), bytes.size());
        ASSERT_FALSE(bad);
        EXPECT_FALSE(bad.error().localizedDescription.empty());
        writeFile(folder / "bad.plist", bytes);
        EXPECT_FALSE(Value::fromPropertyListFile(folder / "bad.plist"));
    }
    // Hostile nesting is refused, not recursed into.
    std::string deep = "<plist version=\"1.0\">";
    for (int i = 0; i < 100000; ++i) deep += "<array>";
    for (int i = 0; i < 100000; ++i) deep += "</array>";
    deep += "</plist>";
    EXPECT_FALSE(Value::fromPropertyListData(deep.data(), deep.size()));

    const auto missing = Value::fromPropertyListFile(folder.path() + "/missing.plist");
    ASSERT_FALSE(missing);
    EXPECT_EQ(missing.error().domain, "NSPOSIXErrorDomain");
    EXPECT_EQ(missing.error().code, ENOENT);
    EXPECT_FALSE(Value::fromPropertyListFile(folder.path()));
    EXPECT_FALSE(Value::fromPropertyListData(nullptr, 10));

    // A valid list whose root is not a dictionary is still a value: the caller decides.
    writeFile(folder / "array.plist", Value(Value::ArrayType{Value(1)}).toXMLPropertyList());
    auto root = Value::fromPropertyListFile(folder / "array.plist");
    ASSERT_TRUE(root);
    EXPECT_EQ(root->type(), Value::Type::Array);
}

TEST(Value, WritesFilesAtomically)
{
    TempDir folder;
    const std::string target = folder.path() + "/settings.plist";
    const Value first(Value::DictionaryType{{"a", Value(1)}});
    const Value second(Value::DictionaryType{{"b", Value("two")}});

    ASSERT_TRUE(first.writeToFile(target, true));
    chmod(target.c_str(), 0640);
    ASSERT_TRUE(second.writeToFile(target, true));
    auto back = Value::fromPropertyListFile(target);
    ASSERT_TRUE(back);
    EXPECT_TRUE(*back == second);
    EXPECT_EQ(entries(folder.path()), 1);  // no temporary left
    struct stat st {};
    ASSERT_EQ(stat(target.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0640u);

    EXPECT_FALSE(Value().writeToFile(target, true));
    EXPECT_FALSE(first.writeToFile(folder.path() + "/no/such/folder/x.plist", true));
    EXPECT_FALSE(first.writeToFile("", true));
    EXPECT_EQ(entries(folder.path()), 1);
}
