#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>

#include "Foundation/Format.h"

using corvina::format;

namespace {

struct Named {
    std::string name;
    std::string description() const { return "<" + name + ">"; }
};

}  // namespace

TEST(Format, Conversions)
{
    const std::string path = "/tmp/a b.mov";
    const std::optional<std::string> none;
    const std::optional<std::string> some = std::string("x");
    const Named named{"queue"};
    const char* nullText = nullptr;
    const struct {
        std::string got;
        const char* expected;
    } rows[] = {
        // Integers.
        {format("%d", 42), "42"},
        {format("%ld", int64_t{-9223372036854775807LL - 1}), "-9223372036854775808"},
        {format("%llu", std::numeric_limits<uint64_t>::max()), "18446744073709551615"},
        {format("%u", 3000000000u), "3000000000"},
        {format("%u", -1), "4294967295"},
        {format("%lu", int64_t{-1}), "18446744073709551615"},
        {format("%x", 255), "ff"},
        {format("%5d|", 42), "   42|"},
        {format("%-5d|", 42), "42   |"},
        {format("%05d", -42), "-0042"},
        {format("%+d", 5), "+5"},
        {format("% d", 5), " 5"},
        {format("%.3d", 7), "007"},
        {format("%.0d", 0), ""},
        {format("%0.2li:%0.2li:%0.2li;%0.2li", 1L, 2L, 3L, 24L), "01:02:03;24"},
        {format("%0.2li", 123L), "123"},
        {format("%hhd %hd %qd %zd %jd %td", 1, 2, 3, 4, 5, 6), "1 2 3 4 5 6"},
        {format("%d", true), "1"},
        {format("%d", uint8_t{200}), "200"},
        {format("%d", int8_t{-100}), "-100"},
        // Floating point.
        {format("%f", 1.5), "1.500000"},
        {format("%0.2f", 29.97), "29.97"},
        {format("%5.1f|", 3.14159), "  3.1|"},
        {format("%06.2f", -1.5), "-01.50"},
        {format("%+.1f", 2.0), "+2.0"},
        {format("%.0f", 2.5), "2"},
        {format("%f", 30), "30.000000"},
        {format("%.1f", uint64_t{7}), "7.0"},
        {format("%f", std::numeric_limits<double>::infinity()), "inf"},
        {format("%5.1f|", -std::numeric_limits<double>::infinity()), " -inf|"},
        {format("%.2f", 1e300).size() > 300 ? std::string("big") : std::string("small"), "big"},
        {format("%.1f", 2.0f), "2.0"},
        // Objects, strings and characters.
        {format("%@", path), "/tmp/a b.mov"},
        {format("%@", "literal"), "literal"},
        {format("%@", 42), "42"},
        {format("%@", uint64_t{18446744073709551615ULL}), "18446744073709551615"},
        {format("%@", 29.97), "29.97"},
        {format("%@", 30.0), "30"},
        {format("%@", 0.1), "0.1"},
        {format("%@", 29.97f), "29.97"},
        {format("%@", true), "1"},
        {format("%@", named), "<queue>"},
        {format("%@ %@", none, some), "(null) x"},
        {format("%@", nullptr), "(null)"},
        {format("%@", nullText), "(null)"},
        {format("%s", nullText), "(null)"},
        {format("%s", "abc"), "abc"},
        {format("%.2s", "abc"), "ab"},
        {format("%-5@|", std::string("ab")), "ab   |"},
        {format("%c%c", 'o', 'k'), "ok"},
        {format("%c", 65), "A"},
        {format("%3c|", 'z'), "  z|"},
        // Escapes, missing and mismatched arguments.
        {format("100%%"), "100%"},
        {format("%%d", 5), "%d"},
        {format("plain text"), "plain text"},
        {format(""), ""},
        {format("%d and %d", 1), "1 and "},
        {format("%@"), ""},
        {format("tail %"), "tail %"},
        {format("tail %0.2"), "tail %0.2"},
        {format("%k%d", 3), "%k3"},
        {format("%n", 3), "%n"},
        {format("%d", "text"), ""},
        {format("%f", std::string("text")), ""},
        {format("%d", 29.97), "29"},
        {format("%d", -29.97), "-29"},
        {format("%u", 1e30), "18446744073709551615"},
        {format("%d", std::numeric_limits<double>::quiet_NaN()), "0"},
        {format("%d %d", 1, 2, 3), "1 2"},
        {format("%99999999999d", 1).size() == 100000 ? std::string("clamped") : std::string("wide"), "clamped"},
        // Positional arguments.
        {format("%2$@ %1$@", "a", "b"), "b a"},
        {format("%1$@-%1$@", std::string("x")), "x-x"},
        {format("%2$0.2f/%1$d", 3, 1.5), "1.50/3"},
        {format("%3$@", 1, 2), ""},
    };
    for (size_t i = 0; i < std::size(rows); ++i) EXPECT_EQ(rows[i].got, rows[i].expected) << "row " << i;
}

TEST(Format, PointersAndAppend)
{
    int x = 0;
    const std::string p = format("%p", static_cast<const void*>(&x));
    EXPECT_EQ(p.rfind("0x", 0), 0u);
    EXPECT_GT(p.size(), 2u);
    EXPECT_EQ(format("%p", nullptr), "0x0");

    std::string out = "Video format is ";
    corvina::appendFormat(out, "ProRes 422 %ix%i", 1920, 1080);
    EXPECT_EQ(out, "Video format is ProRes 422 1920x1080");
    corvina::appendFormat(out, "!");
    EXPECT_EQ(out, "Video format is ProRes 422 1920x1080!");
}

// The measure of a plain format agrees with the text the formatter makes, at every digit-count
// boundary and sign; anything that is not plain is left to the formatter.
TEST(Format, PlainMeasureMatchesTheText)
{
    using corvina::FormatArg;
    auto check = [](std::string_view fmt, std::initializer_list<FormatArg> args) {
        const std::span<const FormatArg> list(args.begin(), args.size());
        const std::string text = corvina::formatv(fmt, list);
        const auto m = corvina::measurePlainFormat(fmt, list);
        ASSERT_TRUE(m) << fmt;
        EXPECT_EQ(m->length, text.size()) << fmt << " -> " << text;
        const auto visible = [](char c) { return c > ' ' && c < 0x7f; };
        EXPECT_EQ(m->visibleEnds, !text.empty() && visible(text.front()) && visible(text.back())) << fmt;
    };
    uint64_t u = 1;
    for (int digits = 1; digits <= 20; ++digits, u = u * 10) {
        for (uint64_t v : {u - 1, u, u + 1, u * 9 + (u - 1)}) {
            check("sample %u,%u...", {FormatArg(v), FormatArg(uint64_t{7})});
            check("%lu", {FormatArg(v)});
            const auto s = static_cast<int64_t>(v);
            check("%d|%lld", {FormatArg(s), FormatArg(-s)});
        }
    }
    check("%i", {FormatArg(std::numeric_limits<int64_t>::min())});
    check("%u", {FormatArg(std::numeric_limits<uint64_t>::max())});
    check("File: %@ (%s) 100%% done", {FormatArg("a b"), FormatArg(std::string_view("x"))});
    check("%@%@", {FormatArg(""), FormatArg("")});
    check("%@|%@", {FormatArg(" lead"), FormatArg("trail\n")});
    check(" %u ", {FormatArg(1u)});
    check("%s", {FormatArg("\xc2\xa0")});
    check("", {});
    check("no conversions", {FormatArg(1)});  // extra arguments are ignored by both

    const char* notPlain[] = {"%5u", "%-u", "%.2u", "%1$u", "%x", "%f", "%c", "%p", "%u %u", "50%", "%l%", "%lls"};
    for (const char* fmt : notPlain)
        EXPECT_FALSE(corvina::measurePlainFormat(fmt, std::initializer_list<FormatArg>{FormatArg(1u)})) << fmt;
    // The argument must be of the conversion's own kind.
    EXPECT_FALSE(corvina::measurePlainFormat("%u", std::initializer_list<FormatArg>{FormatArg(-1)}));
    EXPECT_FALSE(corvina::measurePlainFormat("%d", std::initializer_list<FormatArg>{FormatArg(1u)}));
    EXPECT_FALSE(corvina::measurePlainFormat("%@", std::initializer_list<FormatArg>{FormatArg(1.5)}));
}
