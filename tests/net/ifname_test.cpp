// SPDX-License-Identifier: Apache-2.0
#include "ifname.h"

#include "support/support.h"

#include <climits>
#include <cstring>
#include <random>

using namespace support;

namespace {

struct Result {
    int code;
    std::string text;
    bool operator==(const Result &) const = default;
};

void PrintTo(const Result &r, std::ostream *os)
{
    *os << r.code << " \"" << r.text << '"';
}

template <typename Convert>
Result run(Convert convert, const char *name, int outsize)
{
    char out[128];
    std::memset(out, '#', sizeof out);
    int code = convert(name, out, outsize);
    out[sizeof out - 1] = '\0';
    return {code, out};
}

Result forward(const std::string &name, int outsize = 64)
{
    return run(ifpname2unixname, name.c_str(), outsize);
}

Result back(const std::string &name, int outsize = 64)
{
    return run(unixname2ifpname, name.c_str(), outsize);
}

Result good(const std::string &text)
{
    return {0, text};
}

} // namespace

TEST(IfpName2UnixName, EachRow)
{
    EXPECT_EQ(forward("ethernet0/1"), good("eth0-1"));
    EXPECT_EQ(forward("xethernet1/2.100"), good("xe1-2_100"));
    EXPECT_EQ(forward("xlethernet3"), good("xle3"));
    EXPECT_EQ(forward("cethernet4/0"), good("ce4-0"));
    EXPECT_EQ(forward("xxvethernet5/1"), good("xxv5-1"));
    EXPECT_EQ(forward("aggregate3"), good("agg3"));
    EXPECT_EQ(forward("redundant2.7"), good("red2_7"));
    EXPECT_EQ(forward("MGT0"), good("mgt0"));
    EXPECT_EQ(forward("HA1"), good("ha1"));
    EXPECT_EQ(forward("cellular0/1"), good("cellular0-1"));
    EXPECT_EQ(forward("wlan1"), good("wlan1"));
    EXPECT_EQ(forward("tunnel1"), good("tunnel1"));
    EXPECT_EQ(forward("ethernet0/1:2"), good("eth0-1=2"));
    EXPECT_EQ(forward("tunnel1/2.3:4"), good("tunnel1-2_3=4"));
}

TEST(IfpName2UnixName, HaAloneIsUpperCase)
{
    EXPECT_EQ(forward("ha"), good("HA"));
    EXPECT_EQ(forward("ha0"), good("ha0"));
    EXPECT_EQ(forward("HA"), good("ha"));
    EXPECT_EQ(forward("ha", 0), good("HA")) << "whatever the room";
}

TEST(IfpName2UnixName, AWordNeedsItsCase)
{
    EXPECT_EQ(forward("Ethernet0/1"), good("Ethernet0-1"));
    EXPECT_EQ(forward("mgt0"), good("mgt0"));
    EXPECT_EQ(forward(""), good(""));
}

TEST(IfpName2UnixName, PppoeIsShortenedInSomeRowsOnly)
{
    EXPECT_EQ(forward("ethernet0/2pppoe1"), good("eth0-2p1"));
    EXPECT_EQ(forward("xethernet2pppoe"), good("xe2p"));
    EXPECT_EQ(forward("xlethernetpppoe9"), good("xlep9"));
    EXPECT_EQ(forward("cethernet1pppoe1"), good("ce1p1"));
    EXPECT_EQ(forward("xxvethernet1pppoe1"), good("xxv1p1"));
    EXPECT_EQ(forward("cellular0pppoe1"), good("cellular0p1"));
    EXPECT_EQ(forward("wlan0pppoe1"), good("wlan0p1"));
    EXPECT_EQ(forward("aggregate1pppoe2"), good("agg1pppoe2"));
    EXPECT_EQ(forward("redundant1pppoe2"), good("red1pppoe2"));
    EXPECT_EQ(forward("MGT0pppoe2"), good("mgt0pppoe2"));
    EXPECT_EQ(forward("HA0pppoe2"), good("ha0pppoe2"));
    EXPECT_EQ(forward("pppoe1"), good("pppoe1"));
    EXPECT_EQ(forward("ethernet1pppoe2pppoe3"), good("eth1p2pppoe3")) << "the first one only";
}

TEST(IfpName2UnixName, TheCopyIsCutAt31Characters)
{
    std::string digits(40, '7');
    EXPECT_EQ(forward("ethernet" + digits), good("eth" + digits.substr(0, 31 - 8)));
    EXPECT_EQ(forward("aggregate" + digits), good("agg" + digits)) << "rows of the given name are not cut";
    EXPECT_EQ(forward("tunnel" + digits), good("tunnel" + digits));
    EXPECT_EQ(forward("cellular" + digits), good("cellular" + digits.substr(0, 31 - 8)));
    EXPECT_EQ(forward("ethernet0pppoe" + digits), good("eth0p" + digits.substr(0, 31 - 10)));
    EXPECT_EQ(forward("ethernet" + digits + "pppoe1"), good("eth" + digits.substr(0, 31 - 8)));
    EXPECT_EQ(forward("ethernet" + digits.substr(0, 22) + "pppoe1"), good("eth" + digits.substr(0, 22) + "p"));
    EXPECT_EQ(forward("ethernet" + digits.substr(0, 23) + "pppoe1"), good("eth" + digits.substr(0, 23)));
}

TEST(IfpName2UnixName, ACutResultIsAnErrorThatLeavesTheCutText)
{
    EXPECT_EQ(forward("ethernet0/1", 7), good("eth0-1"));
    EXPECT_EQ("", read_file(kConsole));
    EXPECT_EQ(forward("ethernet0/1", 6), (Result{-1, "eth0/"})) << "not mapped";
    EXPECT_EQ(forward("ethernet0/1", 4), (Result{-1, "eth"}));
    EXPECT_EQ(forward("tunnel1", 7), (Result{-1, "tunnel"}));
    EXPECT_EQ("Can not convert ifp name: ethernet0/1\n"
              "Can not convert ifp name: ethernet0/1\n"
              "Can not convert ifp name: tunnel1\n",
              read_file(kConsole));
}

TEST(IfpName2UnixName, OnlyTheLastCopyIsAskedWhetherItWasCut)
{
    EXPECT_EQ(forward("ethernet", 3), good("et"));
    EXPECT_EQ(forward("ethernet0", 3), (Result{-1, "et"}));
}

TEST(IfpName2UnixName, WithoutRoomNothingIsWritten)
{
    char out = '#';
    EXPECT_EQ(-1, ifpname2unixname("ethernet0", &out, 0));
    EXPECT_EQ(-1, ifpname2unixname("ethernet", &out, 0));
    EXPECT_EQ(-1, ifpname2unixname("", &out, 0));
    EXPECT_EQ(-1, ifpname2unixname("tunnel", &out, -5));
    EXPECT_EQ(-1, ifpname2unixname("tunnel", &out, INT_MIN));
    EXPECT_EQ('#', out);
    EXPECT_EQ(0, ifpname2unixname("", &out, 1));
    EXPECT_EQ('\0', out);
}

TEST(IfpName2UnixName, ANullNameIsSaid)
{
    EXPECT_EQ(-1, run(ifpname2unixname, nullptr, 64).code);
    EXPECT_EQ("NULL ifp name, can not convert\n", read_file(kConsole));
}

TEST(UnixName2IfpName, CharactersComeBackWordsDoNot)
{
    EXPECT_EQ(back("eth0-1_5"), good("eth0/1.5"));
    EXPECT_EQ(back("eth0-1=2"), good("eth0/1:2"));
    EXPECT_EQ(back("agg3"), good("agg3"));
    EXPECT_EQ(back("ha"), good("ha"));
    EXPECT_EQ(back("ha", 0), good("ha"));
    EXPECT_EQ(back("HA"), good("HA"));
}

TEST(UnixName2IfpName, TheFirstSevenRowsAreShortenedHereToo)
{
    EXPECT_EQ(back("ethernet0-1"), good("eth0/1"));
    EXPECT_EQ(back("xethernet0"), good("xe0"));
    EXPECT_EQ(back("xlethernet0"), good("xle0"));
    EXPECT_EQ(back("cethernet0"), good("ce0"));
    EXPECT_EQ(back("xxvethernet0"), good("xxv0"));
    EXPECT_EQ(back("aggregate0"), good("agg0"));
    EXPECT_EQ(back("redundant0"), good("red0"));
    EXPECT_EQ(back("MGT0"), good("MGT0"));
    EXPECT_EQ(back("HA0"), good("HA0"));
    EXPECT_EQ(back("cellular0"), good("cellular0"));
    EXPECT_EQ(back("ethernet0pppoe1"), good("eth0pppoe1")) << "nothing is rewritten";
}

TEST(UnixName2IfpName, LongNamesAreNotCut)
{
    std::string digits(40, '7');
    EXPECT_EQ(back("ethernet" + digits), good("eth" + digits));
}

TEST(UnixName2IfpName, FailuresAreSaid)
{
    EXPECT_EQ(back("eth0-1", 7), good("eth0/1"));
    EXPECT_EQ(back("eth0-1", 6), (Result{-1, "eth0-"}));
    EXPECT_EQ(-1, run(unixname2ifpname, nullptr, 64).code);
    EXPECT_EQ("Can not convert linux name: eth0-1\nNULL unix name, can not convert\n", read_file(kConsole));
}

TEST(IfpName2Vfg, TheNumberBehindTheFirstColon)
{
    EXPECT_EQ(17, ifpname2vfg("ethernet0/1:17"));
    EXPECT_EQ(0, ifpname2vfg("ethernet0/1"));
    EXPECT_EQ(0, ifpname2vfg(nullptr));
    EXPECT_EQ(0, ifpname2vfg(":"));
    EXPECT_EQ(12, ifpname2vfg("a:12:34"));
    EXPECT_EQ(-3, ifpname2vfg("a:-3"));
    EXPECT_EQ(0, ifpname2vfg("a:0x10"));
    EXPECT_EQ(1, ifpname2vfg("a:4294967297")) << "cut to 32 bits";
}

TEST(CaseConversion, IsBoundedAndStopsAtTheEnd)
{
    char text[] = "ABC";
    strllwr(text, 2);
    EXPECT_STREQ("abC", text);
    strllwr(text, 100);
    EXPECT_STREQ("abc", text);
    strlupr(text, 1);
    EXPECT_STREQ("Abc", text);
    strlupr(text, 0);
    EXPECT_STREQ("Abc", text);
    char beyond[] = "ab\0cd";
    strlupr(beyond, 5);
    EXPECT_EQ(std::string(beyond, 5), std::string("AB\0cd", 5));
    strllwr(nullptr, 5);
    strlupr(nullptr, 5);
}

TEST(CaseConversion, OnlyLettersOfTheAlphabetChange)
{
    for (int c = 1; c < 256; c++) {
        char lower[2] = {static_cast<char>(c), 0};
        char upper[2] = {static_cast<char>(c), 0};
        strllwr(lower, 1);
        strlupr(upper, 1);
        EXPECT_EQ(static_cast<unsigned char>(lower[0]), c >= 'A' && c <= 'Z' ? c + 32 : c);
        EXPECT_EQ(static_cast<unsigned char>(upper[0]), c >= 'a' && c <= 'z' ? c - 32 : c);
    }
}
