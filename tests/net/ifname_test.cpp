// SPDX-License-Identifier: Apache-2.0
#include "ifname.h"

#include "support/support.h"

#include <climits>
#include <cstring>

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
    EXPECT_EQ(good("eth0-1"), forward("ethernet0/1"));
    EXPECT_EQ(good("xe1-2_100"), forward("xethernet1/2.100"));
    EXPECT_EQ(good("xle3"), forward("xlethernet3"));
    EXPECT_EQ(good("ce4-0"), forward("cethernet4/0"));
    EXPECT_EQ(good("xxv5-1"), forward("xxvethernet5/1"));
    EXPECT_EQ(good("agg3"), forward("aggregate3"));
    EXPECT_EQ(good("red2_7"), forward("redundant2.7"));
    EXPECT_EQ(good("mgt0"), forward("MGT0"));
    EXPECT_EQ(good("ha1"), forward("HA1"));
    EXPECT_EQ(good("cellular0-1"), forward("cellular0/1"));
    EXPECT_EQ(good("wlan1"), forward("wlan1"));
    EXPECT_EQ(good("tunnel1"), forward("tunnel1"));
    EXPECT_EQ(good("eth0-1=2"), forward("ethernet0/1:2"));
    EXPECT_EQ(good("tunnel1-2_3=4"), forward("tunnel1/2.3:4"));
}

TEST(IfpName2UnixName, ABareHaBecomesUpperCase)
{
    EXPECT_EQ(good("HA"), forward("ha"));
    EXPECT_EQ(good("ha0"), forward("ha0"));
    EXPECT_EQ(good("ha"), forward("HA"));
    EXPECT_EQ(good("HA"), forward("ha", 0)) << "whatever the buffer's size";
}

TEST(IfpName2UnixName, WordsAreCaseSensitive)
{
    EXPECT_EQ(good("Ethernet0-1"), forward("Ethernet0/1"));
    EXPECT_EQ(good("mgt0"), forward("mgt0"));
    EXPECT_EQ(good(""), forward(""));
}

TEST(IfpName2UnixName, PppoeIsShortenedInSomeRowsOnly)
{
    EXPECT_EQ(good("eth0-2p1"), forward("ethernet0/2pppoe1"));
    EXPECT_EQ(good("xe2p"), forward("xethernet2pppoe"));
    EXPECT_EQ(good("xlep9"), forward("xlethernetpppoe9"));
    EXPECT_EQ(good("ce1p1"), forward("cethernet1pppoe1"));
    EXPECT_EQ(good("xxv1p1"), forward("xxvethernet1pppoe1"));
    EXPECT_EQ(good("cellular0p1"), forward("cellular0pppoe1"));
    EXPECT_EQ(good("wlan0p1"), forward("wlan0pppoe1"));
    EXPECT_EQ(good("agg1pppoe2"), forward("aggregate1pppoe2"));
    EXPECT_EQ(good("red1pppoe2"), forward("redundant1pppoe2"));
    EXPECT_EQ(good("mgt0pppoe2"), forward("MGT0pppoe2"));
    EXPECT_EQ(good("ha0pppoe2"), forward("HA0pppoe2"));
    EXPECT_EQ(good("pppoe1"), forward("pppoe1"));
    EXPECT_EQ(good("eth1p2pppoe3"), forward("ethernet1pppoe2pppoe3")) << "only the first one is shortened";
}

TEST(IfpName2UnixName, TheCopyIsCutAt31Characters)
{
    std::string digits(40, '7');
    EXPECT_EQ(good("eth" + digits.substr(0, 31 - 8)), forward("ethernet" + digits));
    EXPECT_EQ(good("agg" + digits), forward("aggregate" + digits)) << "rows of the given name are not cut";
    EXPECT_EQ(good("tunnel" + digits), forward("tunnel" + digits));
    EXPECT_EQ(good("cellular" + digits.substr(0, 31 - 8)), forward("cellular" + digits));
    EXPECT_EQ(good("eth0p" + digits.substr(0, 31 - 10)), forward("ethernet0pppoe" + digits));
    EXPECT_EQ(good("eth" + digits.substr(0, 31 - 8)), forward("ethernet" + digits + "pppoe1"));
    EXPECT_EQ(good("eth" + digits.substr(0, 22) + "p"), forward("ethernet" + digits.substr(0, 22) + "pppoe1"));
    EXPECT_EQ(good("eth" + digits.substr(0, 23)), forward("ethernet" + digits.substr(0, 23) + "pppoe1"));
}

TEST(IfpName2UnixName, ACutResultIsAnErrorThatLeavesTheCutText)
{
    EXPECT_EQ(good("eth0-1"), forward("ethernet0/1", 7));
    EXPECT_EQ("", read_file(kConsole));
    EXPECT_EQ((Result{-1, "eth0/"}), forward("ethernet0/1", 6)) << "characters are not mapped then";
    EXPECT_EQ((Result{-1, "eth"}), forward("ethernet0/1", 4));
    EXPECT_EQ((Result{-1, "tunnel"}), forward("tunnel1", 7));
    EXPECT_EQ("Can not convert ifp name: ethernet0/1\n"
              "Can not convert ifp name: ethernet0/1\n"
              "Can not convert ifp name: tunnel1\n",
              read_file(kConsole));
}

TEST(IfpName2UnixName, OnlyACutOfTheLastCopyIsAnError)
{
    EXPECT_EQ(good("et"), forward("ethernet", 3));
    EXPECT_EQ((Result{-1, "et"}), forward("ethernet0", 3));
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

TEST(IfpName2UnixName, ANullNameIsReported)
{
    EXPECT_EQ(-1, run(ifpname2unixname, nullptr, 64).code);
    EXPECT_EQ("NULL ifp name, can not convert\n", read_file(kConsole));
}

TEST(UnixName2IfpName, CharactersAreRestoredAndWordsAreNot)
{
    EXPECT_EQ(good("eth0/1.5"), back("eth0-1_5"));
    EXPECT_EQ(good("eth0/1:2"), back("eth0-1=2"));
    EXPECT_EQ(good("agg3"), back("agg3"));
    EXPECT_EQ(good("ha"), back("ha"));
    EXPECT_EQ(good("ha"), back("ha", 0));
    EXPECT_EQ(good("HA"), back("HA"));
}

TEST(UnixName2IfpName, TheFirstSevenRowsAreShortenedHereToo)
{
    EXPECT_EQ(good("eth0/1"), back("ethernet0-1"));
    EXPECT_EQ(good("xe0"), back("xethernet0"));
    EXPECT_EQ(good("xle0"), back("xlethernet0"));
    EXPECT_EQ(good("ce0"), back("cethernet0"));
    EXPECT_EQ(good("xxv0"), back("xxvethernet0"));
    EXPECT_EQ(good("agg0"), back("aggregate0"));
    EXPECT_EQ(good("red0"), back("redundant0"));
    EXPECT_EQ(good("MGT0"), back("MGT0"));
    EXPECT_EQ(good("HA0"), back("HA0"));
    EXPECT_EQ(good("cellular0"), back("cellular0"));
    EXPECT_EQ(good("eth0pppoe1"), back("ethernet0pppoe1")) << "the word is not shortened";
}

TEST(UnixName2IfpName, LongNamesAreNotCut)
{
    std::string digits(40, '7');
    EXPECT_EQ(good("eth" + digits), back("ethernet" + digits));
}

TEST(UnixName2IfpName, FailuresAreReported)
{
    EXPECT_EQ(good("eth0/1"), back("eth0-1", 7));
    EXPECT_EQ((Result{-1, "eth0-"}), back("eth0-1", 6));
    EXPECT_EQ(-1, run(unixname2ifpname, nullptr, 64).code);
    EXPECT_EQ("Can not convert linux name: eth0-1\nNULL unix name, can not convert\n", read_file(kConsole));
}

TEST(IfpName2Vfg, TheNumberAfterTheFirstColon)
{
    EXPECT_EQ(17, ifpname2vfg("ethernet0/1:17"));
    EXPECT_EQ(0, ifpname2vfg("ethernet0/1"));
    EXPECT_EQ(0, ifpname2vfg(nullptr));
    EXPECT_EQ(0, ifpname2vfg(":"));
    EXPECT_EQ(12, ifpname2vfg("a:12:34"));
    EXPECT_EQ(-3, ifpname2vfg("a:-3"));
    EXPECT_EQ(0, ifpname2vfg("a:0x10"));
    EXPECT_EQ(1, ifpname2vfg("a:4294967297")) << "truncated to 32 bits";
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
        EXPECT_EQ(c >= 'A' && c <= 'Z' ? c + 32 : c, static_cast<unsigned char>(lower[0]));
        EXPECT_EQ(c >= 'a' && c <= 'z' ? c - 32 : c, static_cast<unsigned char>(upper[0]));
    }
}
