// The streaming job reader reads every document as the property-list tree does, or leaves it to it.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cmath>
#include <fstream>

#include "support/HelperRun.h"
#include "helper/MovieJob.h"

namespace corvina::helper {

using namespace corvina;
using corvina::test::TempDir;
using corvina::test::writeFile;

namespace {

void expectSameJob(const MovieJob& a, const MovieJob& b)
{
    EXPECT_EQ(a.tmpFilename, b.tmpFilename);
    EXPECT_EQ(a.tmpAudioFilename, b.tmpAudioFilename);
    EXPECT_EQ(a.destFilename, b.destFilename);
    EXPECT_EQ(a.formatType, b.formatType);
    EXPECT_EQ(a.audioFormat, b.audioFormat);
    EXPECT_TRUE(a.frameRate == b.frameRate || (std::isnan(a.frameRate) && std::isnan(b.frameRate)));
    EXPECT_EQ(a.fWidth, b.fWidth);
    EXPECT_EQ(a.fHeight, b.fHeight);
    EXPECT_EQ(*a.videoEntries, *b.videoEntries);
    EXPECT_EQ(*a.audioEntries, *b.audioEntries);
}

std::string plist(const std::string& body)
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
           "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
           "<plist version=\"1.0\">\n<dict>\n" +
           body + "</dict>\n</plist>\n";
}

// The stream makes of a document what the tree makes, or (unless it must stream) gives up.
void expectStreamedAsTheTreeReadsIt(const std::string& text, bool mustStream)
{
    const auto tree = Value::fromPropertyListData(text.data(), text.size());
    const auto streamed = MovieJob::readXMLDocument(text.data(), text.size());
    EXPECT_TRUE(streamed || !mustStream);
    if (!tree || !tree->asDictionary()) {
        EXPECT_FALSE(streamed);
    } else if (streamed) {
        expectSameJob(*streamed, MovieJob::fromSettings(*tree));
    }
}

TEST(MovieJobReader, StreamsWhatTheTreeReads)
{
    const std::string documents[] = {
        // The usual document.
        plist("<key>tmpFilename</key><string>/tmp/v.raw</string>"
              "<key>tmpAudioFilename</key><string>/tmp/a.raw</string>"
              "<key>destFilename</key><string>/Movies/out &amp; more &lt;1&gt; &#233;&#x20AC;.mov</string>"
              "<key>formatType</key><integer>30</integer><key>audioFormat</key><integer>2</integer>"
              "<key>frameRate</key><real>29.97</real><key>fWidth</key><integer>1920</integer>"
              "<key>fHeight</key><integer>1080</integer>"
              "<key>offsetArray</key><array>"
              "<dict><key>offset</key><integer>0</integer><key>length</key><integer>120000</integer></dict>"
              "<dict><key>frameCount</key><integer>3</integer><key>length</key><integer>7</integer>"
              "<key>offset</key><integer>18446744073709551615</integer></dict>"
              "</array>"
              "<key>audioOffsetArray</key><array><dict><key>offset</key><integer>4</integer>"
              "<key>length</key><integer>19200</integer></dict></array>"),
        // Values of other types convert as the accessors convert them; comments are passed over.
        plist("<!-- carved --><key>formatType</key><string> 12abc</string><key>audioFormat</key><true/>"
              "<key>frameRate</key><integer>25</integer><key>fWidth</key><integer>40000</integer>"
              "<key>fHeight</key><real>-3.9</real><key>tmpFilename</key><integer>-17</integer>"
              "<key>destFilename</key><string/>"
              "<key>offsetArray</key><array><string>not a dictionary</string><dict/>"
              "<dict><key>offset</key><string>99</string><key>length</key><real>1e3</real>"
              "<key>frameCount</key><integer>-2</integer><key>extra</key><array><integer>1</integer></array></dict>"
              "<array/><false/></array>"
              "<key>audioOffsetArray</key><string>no array</string>"
              "<key>unused</key><dict><key>deep</key><array><dict/></array></dict>"),
        // Empty arrays: no entries.
        plist("<key>offsetArray</key><array/><key>audioOffsetArray</key><array>\n</array>"),
    };
    for (const auto& text : documents) {
        SCOPED_TRACE(text);
        expectStreamedAsTheTreeReadsIt(text, true);
    }
}

TEST(MovieJobReader, LeavesWhatItDoesNotKnowToTheTree)
{
    TempDir dir;
    const Value settings(Value::DictionaryType{
        {"tmpFilename", "/v.raw"},
        {"frameRate", 25.0},
        {"made", Value::date(Date{})},
        {"offsetArray",
         Value::ArrayType{Value::DictionaryType{{"offset", 5}, {"length", 6}, {"blob", Value::data({1, 2})}}}}});
    const std::string xml = settings.toXMLPropertyList();
    // Dates and data are the tree's business: the stream gives up, the file is still read.
    EXPECT_FALSE(MovieJob::readXMLDocument(xml.data(), xml.size()));
    const std::vector<uint8_t> binary = settings.toBinaryPropertyList();
    writeFile(dir / "xml.plist", xml);
    writeFile(dir / "binary.plist", std::string(binary.begin(), binary.end()));
    for (const char* name : {"xml.plist", "binary.plist"}) {
        SCOPED_TRACE(name);
        const auto job = MovieJob::readDocument(dir / name);
        ASSERT_TRUE(job);
        expectSameJob(*job, MovieJob::fromSettings(settings));
        EXPECT_EQ(job->documentPath, dir / name);
    }
}

TEST(MovieJobReader, LargeDocumentsBecomePackedTables)
{
    TempDir dir;
    constexpr size_t kEntries = 300000;
    {
        std::ofstream out(dir / "large.plist");
        out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
               "\t<key>audioOffsetArray</key>\n\t<array>\n";
        for (size_t i = 0; i < kEntries; ++i)
            out << "\t\t<dict>\n\t\t\t<key>length</key>\n\t\t\t<integer>4</integer>\n\t\t\t<key>offset</key>\n"
                   "\t\t\t<integer>"
                << i * 10 << "</integer>\n\t\t</dict>\n";
        out << "\t</array>\n\t<key>frameRate</key>\n\t<real>29.97</real>\n</dict>\n</plist>\n";
    }
    const auto job = MovieJob::readDocument(dir / "large.plist");
    ASSERT_TRUE(job);
    ASSERT_EQ(job->audioEntries->size(), kEntries);
    EXPECT_EQ(job->audioEntries->back(), (MediaEntry{(kEntries - 1) * 10, 4, 0}));
    EXPECT_EQ((*job->audioEntries)[12345], (MediaEntry{123450, 4, 0}));
    EXPECT_EQ(job->frameTiming(), corvina::FrameRate::ntsc(30));

    ASSERT_EQ(::truncate((dir / "large.plist").c_str(), 0), 0);
    const auto empty = MovieJob::readDocument(dir / "large.plist");
    ASSERT_FALSE(empty);
    EXPECT_EQ(empty.error().localizedDescription, "The data is empty.");
}

// Entries in and around their usual spelling, among enough plain ones to size the table from them.
TEST(MovieJobReader, EntrySpellingsReadAsTheTreeReadsThem)
{
    const std::string plain = "<dict><key>offset</key><integer>8</integer><key>length</key><integer>4</integer></dict>";
    // Each spelling, and whether the stream must read it itself.
    const std::pair<std::string, bool> spellings[] = {
        {"<dict>\n\t<key>length</key>\n\t<integer>4</integer>\n\t<key>offset</key>\n\t<integer>12</integer>\n</dict>",
         true},
        {"<dict><key>offset</key><integer>044</integer><key>length</key><integer>-010</integer></dict>", false},
        {"<dict><key>offset</key><integer>+5</integer><key>length</key><integer>-5</integer></dict>", false},
        {"<dict><key>offset</key><integer> 5 "
         "</integer><key>frameCount</key><integer>9223372036854775808</integer></dict>",
         false},
        {"<dict><key>offset</key><integer>18446744073709551616</integer></dict>", false},
        {"<dict><key>offset</key><integer>18446744073709551615</integer><key>offset</key><integer>3</integer></dict>",
         true},
        {"<dict><key>off&#115;et</key><integer>7</integer><key>length</key><integer>1&#48;</integer></dict>", false},
        {"<dict><key>offset</key><!-- c --><integer>1</integer><!-- d --></dict>", true},
        {"<dict ><key >offset</key><integer>2</integer ><key>length</key ><integer>3</integer></dict >", true},
        {"<dict><key>offset</key><string>5</string><key>length</key><real>6.5</real></dict>", true},
        {"<dict><key>offset</key><integer/><key>length</key><integer>1</integer></dict>", false},
        {"<dict><key></key><integer>3</integer><key/><integer>4</integer><key>Offset</key><integer>5</integer></dict>",
         false},
        {"<dict><key>offset</key><integer>0x10</integer></dict>", false},
        {"<dict><key>offset</key><integer>1</integer><key>length</key></dict>", false},
        {"<dict><key>offset</key><integer>1</integer>", false},
        {"<dict/>", true},
    };
    for (const auto& [spelling, mustStream] : spellings) {
        SCOPED_TRACE(spelling);
        std::string entries;
        for (int i = 0; i < 100; ++i) entries += plain;
        entries += spelling;
        for (int i = 0; i < 30; ++i) entries += plain;
        const std::string text = plist("<key>audioOffsetArray</key><array>" + entries +
                                       "</array><key>offsetArray</key><array>" + spelling + entries + "</array>");
        expectStreamedAsTheTreeReadsIt(text, mustStream);
    }
}

}  // namespace

}  // namespace corvina::helper
