// The stream reader against the tree reader: a document the stream reads must be the value the
// tree reads, whether it is taken value by value or item by item, and whatever the tree
// refuses the stream refuses too.
#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "Foundation/PropertyListStream.h"
#include "Foundation/Value.h"

using corvina::PropertyListStream;
using corvina::Value;
using Step = PropertyListStream::Step;

namespace {

// One value item by item: containers entered, dictionary fields in the usual spelling taken by
// the short path.
std::optional<Value> pull(PropertyListStream& stream)
{
    if (stream.enterArray()) {
        Value::ArrayType items;
        for (Step step; (step = stream.nextItem()) != Step::End;) {
            if (step == Step::Refused) return std::nullopt;
            auto item = pull(stream);
            if (!item) return std::nullopt;
            items.push_back(std::move(*item));
        }
        return Value(std::move(items));
    }
    if (stream.enterDictionary()) {
        Value::DictionaryType entries;
        std::string key;
        for (;;) {
            std::string_view plainKey;
            uint64_t number = 0;
            const auto plain = stream.nextPlainField(plainKey, number);
            if (plain == PropertyListStream::PlainField::End) return Value(std::move(entries));
            if (plain == PropertyListStream::PlainField::Field) {
                entries[std::string(plainKey)] = Value(number);
                continue;
            }
            const Step step = stream.nextKey(key);
            if (step == Step::Refused) return std::nullopt;
            if (step == Step::End) return Value(std::move(entries));
            auto item = pull(stream);
            if (!item) return std::nullopt;
            entries[key] = std::move(*item);
        }
    }
    Value whole;
    if (!stream.readValue(whole)) return std::nullopt;
    return whole;
}

// The root dictionary, its values pulled item by item.
std::optional<Value> pulled(const std::string& text)
{
    PropertyListStream stream(text);
    if (!stream.openRootDictionary()) return std::nullopt;
    Value::DictionaryType root;
    std::string key;
    for (Step step; (step = stream.nextKey(key)) != Step::End;) {
        std::optional<Value> value;
        if (step == Step::Refused || !(value = pull(stream))) return std::nullopt;
        root[key] = std::move(*value);
    }
    if (!stream.finish()) return std::nullopt;
    return Value(std::move(root));
}

std::string plist(const std::string& body)
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<!DOCTYPE plist PUBLIC \"-//Corvina//DTD PLIST 1.0//EN\" \"http://example.com/PropertyList-1.0.dtd\">\n"
           "<plist version=\"1.0\">\n<dict>\n" +
           body + "</dict>\n</plist>\n";
}

std::string repeated(const std::string& text, int times)
{
    std::string out;
    for (int i = 0; i < times; ++i) out += text;
    return out;
}

TEST(PropertyListStream, ReadsWhatTheTreeReadsAndRefusesWhatItRefuses)
{
    const struct {
        const char* name;
        std::string text;
        bool streams;
        bool treeReads;
    } cases[] = {
        {"scalars and entities",
         plist("<key>s</key><string>a &amp; b &lt;c&gt; &quot;&apos; &#233;&#x20AC;</string>"
               "<key>i</key><integer>-42</integer><key>u</key><integer>18446744073709551615</integer>"
               "<key>r</key><real> 2.5e3 </real><key>t</key><true/><key>f</key><false></false>"
               "<key>e</key><string/><key>k &amp; l</key><integer>0</integer>"),
         true, true},
        {"nested entries",
         plist("<key>a</key><array><dict><key>offset</key><integer>5</integer><key>length</key>"
               "<integer>18446744073709551615</integer></dict><dict/><array/><integer>+3</integer>"
               "<dict>\n\t<key>x</key>\n\t<integer>1</integer>\n\t<key>x</key><string>later</string>\n</dict></array>"
               "<key>d</key><dict><key>deep</key><array><array><dict/></array></array></dict>"),
         true, true},
        {"no prolog", "<dict><key>k</key><integer>1</integer></dict>", true, true},
        {"byte order mark, comments, declarations, spaced tags",
         "\xEF\xBB\xBF<?xml version='1.0'?><!-- note --><plist version=\"1.0\"><dict ><key >k</key >"
         "<!-- c --><integer>7</integer ></dict></plist>\n<!-- end -->\n",
         true, true},
        {"empty root", "<plist version=\"1.0\"><dict></dict></plist>", true, true},
        {"deep but within both limits", plist("<key>a</key>" + repeated("<array>", 200) + repeated("</array>", 200)),
         true, true},

        // Read by the tree only.
        {"date", plist("<key>d</key><date>2001-01-01T00:00:00Z</date>"), false, true},
        {"data", plist("<key>d</key><data>AAEC</data>"), false, true},
        {"octal and hexadecimal", plist("<key>o</key><integer>010</integer><key>h</key><integer>0x10</integer>"), false,
         true},
        {"number with an entity", plist("<key>n</key><integer>1&#48;</integer>"), false, true},
        {"CDATA", plist("<key>s</key><string><![CDATA[a<b]]></string>"), false, true},
        {"internal subset", "<!DOCTYPE plist [ <!ENTITY x \"y\"> ]><plist><dict><key>a</key><true/></dict></plist>",
         false, true},
        {"root array", "<plist version=\"1.0\"><array><integer>1</integer></array></plist>", false, true},
        {"deeper than the stream goes", plist("<key>a</key>" + repeated("<array>", 300) + repeated("</array>", 300)),
         false, true},

        {"empty key", plist("<key></key><integer>1</integer>"), false, true},
        {"key without a value", plist("<key>a</key>"), false, true},
        {"text after the document", plist("<key>a</key><true/>") + "junk", false, true},
        {"no closing plist", "<plist version=\"1.0\"><dict></dict>", false, true},

        // Refused by both.
        {"tags quoted in the document type",
         "<!DOCTYPE plist \"" + repeated("<dict>", 600) + "\"><plist><dict><key>a</key><true/></dict></plist>", false,
         false},
        {"tags in a comment", "<!--" + repeated("<array>", 600) + "--><dict><key>a</key><true/></dict>", false, false},
        {"end tag broken by a declaration", plist("<key>i</key><integer>5</inte<?g<ker>"), false, false},
        {"end tag misspelt", plist("<key>i</key><integer>4</integgggggger>"), false, false},
        {"end tag of another element", plist("<key>i</key><integer>4</real>"), false, false},
        {"unknown entity", plist("<key>s</key><string>a &bogus; b</string>"), false, false},
        {"character reference of nine characters", plist("<key>s</key><string>&#00000065;</string>"), false, false},
        {"character reference of eight", plist("<key>s</key><string>&#0000065;&#x10FFFF;</string>"), true, true},
        {"unclosed array", plist("<key>a</key><array><integer>1</integer>"), false, false},
        {"broken tag before an array", plist("<key>a</key><plist\t<array></array>"), false, false},
        {"closed by the wrong tag", "<dict><key>a</key><integer>1</integer></array>", false, false},
        {"loose declaration", "<?xml version=\"1.0\" encodin\"?><plist version=\"1.0\"><dict/></plist>", false, false},
        {"empty", "", false, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto tree = Value::fromPropertyListData(c.text.data(), c.text.size());
        EXPECT_EQ(bool(tree), c.treeReads);
        for (const auto& stream : {PropertyListStream::readRootDictionary(c.text), pulled(c.text)}) {
            EXPECT_EQ(bool(stream), c.streams);
            if (stream && tree) {
                EXPECT_TRUE(*stream == *tree) << stream->description() << "\n" << tree->description();
            }
        }
    }
}

}  // namespace
