// Property lists and files that try to hang, crash or exhaust the reader.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <fstream>

#include "Foundation/Error.h"
#include "Foundation/FileHandle.h"
#include "Foundation/Value.h"
#include "support/TestSupport.h"

using corvina::Value;

namespace {

// A binary list of `count` arrays; array i refers to the objects `refs(i)` returns.
std::string binaryArrays(uint32_t count, const std::function<std::vector<uint32_t>(uint32_t)>& refs)
{
    std::string out = "bplist00";
    std::vector<uint32_t> offsets;
    for (uint32_t i = 0; i < count; ++i) {
        offsets.push_back(static_cast<uint32_t>(out.size()));
        const auto children = refs(i);
        out += static_cast<char>(0xA0 | children.size());
        for (uint32_t c : children) out += std::string{char(c >> 24), char(c >> 16), char(c >> 8), char(c)};
    }
    const uint64_t table = out.size();
    for (uint32_t o : offsets) out += std::string{char(o >> 24), char(o >> 16), char(o >> 8), char(o)};
    std::string trailer(32, '\0');
    trailer[6] = trailer[7] = 4;
    for (int i = 0; i < 8; ++i) {
        trailer[8 + i] = char(uint64_t(count) >> (56 - 8 * i));
        trailer[24 + i] = char(table >> (56 - 8 * i));
    }
    return out + trailer;
}

corvina::Result<Value> parse(const std::string& bytes)
{
    return Value::fromPropertyListData(bytes.data(), bytes.size());
}

TEST(HostilePropertyLists, BinaryNestingCyclesAndBlowUpsAreRefused)
{
    const auto chain = [](uint32_t n) {
        return [n](uint32_t i) { return i + 1 < n ? std::vector<uint32_t>{i + 1} : std::vector<uint32_t>{}; };
    };
    // A modest depth reads; 100,000 levels, a cycle and a doubling ladder do not.
    const auto fine = parse(binaryArrays(200, chain(200)));
    ASSERT_TRUE(fine);
    EXPECT_EQ((*fine)[0][0][0].type(), Value::Type::Array);
    const auto deep = parse(binaryArrays(100000, chain(100000)));
    ASSERT_FALSE(deep);
    EXPECT_NE(deep.error().localizedDescription.find("nests too deeply"), std::string::npos);
    EXPECT_FALSE(parse(binaryArrays(3, [](uint32_t i) { return std::vector<uint32_t>{(i + 1) % 3}; })));
    EXPECT_FALSE(parse(binaryArrays(60, [](uint32_t i) {
        return i + 1 < 60 ? std::vector<uint32_t>{i + 1, i + 1} : std::vector<uint32_t>{};
    })));
    // A reference outside the object table.
    EXPECT_FALSE(parse(binaryArrays(2, [](uint32_t) { return std::vector<uint32_t>{7}; })));
}

TEST(HostilePropertyLists, Utf16XmlReadsInBothByteOrders)
{
    const std::u16string xml =
        u"<?xml version=\"1.0\" encoding=\"UTF-16\"?><plist version=\"1.0\"><dict>"
        u"<key>name</key><string>caf\u00e9 \U0001F3AC</string><key>n</key><integer>7</integer>"
        u"</dict></plist>";
    const Value doc(Value::DictionaryType{{"name", Value("caf\u00e9 \U0001F3AC")}, {"n", Value(7)}});
    for (const bool bigEndian : {false, true}) {
        for (const bool mark : {true, false}) {
            std::string bytes = mark ? (bigEndian ? "\xFE\xFF" : "\xFF\xFE") : "";
            for (const char16_t u : xml)
                bytes += bigEndian ? std::string{char(u >> 8), char(u)} : std::string{char(u), char(u >> 8)};
            EXPECT_EQ(parse(bytes).valueOr(Value()), doc) << bigEndian << mark;
        }
    }
}

TEST(HostileFiles, FifosNeverHoldUpAReader)
{
    corvina::test::TempDir dir;
    const std::string fifo = dir / "fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0644), 0);
    const auto read = Value::fromPropertyListFile(fifo);
    ASSERT_FALSE(read);
    EXPECT_EQ(read.error().localizedDescription, "It is a FIFO, not a regular file.");
    const auto handle = corvina::FileHandle::forReadingRegularFileAtPath(fifo);
    ASSERT_FALSE(handle);
    EXPECT_EQ(handle.error().localizedDescription, "It is a FIFO, not a regular file.");
    EXPECT_FALSE(corvina::FileHandle::forReadingRegularFileAtPath("/dev/zero"));
    // The general reader opens it without waiting for a writer.
    EXPECT_TRUE(corvina::FileHandle::forReadingAtPath(fifo));
}

}  // namespace
