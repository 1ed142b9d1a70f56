// The encoding layer: units, framed records, the unframed stream and list-directed text.
#include "records.hpp"
#include "testsupport.hpp"

namespace io = mod_zelmgrid::io;
using io::rstat;
using zt::bytes;

namespace {

class encoding : public zt::zelmtest {};

constexpr int u1 = 20;

}  // namespace

TEST_F(encoding, FramedRecordIsLengthDataLength) {
  io::open(u1, "f.dat", "unformatted", "unknown");
  io::rawwrite(io::getunit(u1), 3, 1.5f, 2.25);
  io::close(u1);
  EXPECT_EQ(zt::readfile("f.dat"), bytes().record(bytes().i4(3).r4(1.5f).r8(2.25)).b);
}

TEST_F(encoding, EmptyFramedRecordIsTwoZeroWordsAndReadsWithoutDisturbingTheNext) {
  io::open(u1, "f.dat", "unformatted", "unknown");
  io::rawwrite(io::getunit(u1));
  io::rawwrite(io::getunit(u1), 42);
  io::close(u1);
  EXPECT_EQ(zt::readfile("f.dat"), bytes().i4(0).i4(0).record(bytes().i4(42)).b);
  io::open(u1, "f.dat", "unformatted", "old");
  auto& u = io::getunit(u1);
  EXPECT_EQ(io::rawread(u), rstat::ok);
  int v = 0;
  EXPECT_EQ(io::rawread(u, v), rstat::ok);
  EXPECT_EQ(v, 42);
}

TEST_F(encoding, ReadingFewerItemsSkipsTheRestOfTheRecord) {
  zt::writefile("f.dat", bytes().record(bytes().i4(1).i4(2).i4(3)).record(bytes().i4(4)).b);
  io::open(u1, "f.dat", "unformatted", "old");
  auto& u = io::getunit(u1);
  int a = 0, b = 0;
  EXPECT_EQ(io::rawread(u, a), rstat::ok);
  EXPECT_EQ(io::rawread(u, b), rstat::ok);
  EXPECT_EQ(a, 1);
  EXPECT_EQ(b, 4);
}

TEST_F(encoding, ReadingMoreItemsThanTheRecordHoldsIsAnErrorAndKeepsEarlierItems) {
  zt::writefile("f.dat", bytes().record(bytes().i4(7).i4(8)).b);
  io::open(u1, "f.dat", "unformatted", "old");
  int a = 0, b = 0, c = -1;
  EXPECT_EQ(io::rawread(io::getunit(u1), a, b, c), rstat::error);
  EXPECT_EQ(a, 7);
  EXPECT_EQ(b, 8);
  EXPECT_EQ(c, -1);
  EXPECT_NE(io::lastreaderror().find("fewer data"), std::string::npos) << io::lastreaderror();
}

TEST_F(encoding, EndOfFileAtARecordBoundaryIsEnd) {
  zt::writefile("f.dat", bytes().record(bytes().i4(1)).b);
  io::open(u1, "f.dat", "unformatted", "old");
  int a = 0;
  EXPECT_EQ(io::rawread(io::getunit(u1), a), rstat::ok);
  EXPECT_EQ(io::rawread(io::getunit(u1), a), rstat::end);
}

TEST_F(encoding, DisagreeingLengthMarkersAreAnError) {
  zt::writefile("f.dat", bytes().i4(4).i4(9).i4(5).b);
  io::open(u1, "f.dat", "unformatted", "old");
  int a = 0;
  EXPECT_EQ(io::rawread(io::getunit(u1), a), rstat::error);
  EXPECT_NE(io::lastreaderror().find("length markers disagree"), std::string::npos);
}

TEST_F(encoding, LongRecordsAreSplitIntoSubrecordsWithNegatedMarkers) {
  io::setmaxsubrecord(8);
  io::open(u1, "f.dat", "unformatted", "unknown");
  const int v[5] = {1, 2, 3, 4, 5};
  io::rawwrite(io::getunit(u1), io::items(v, 5));
  io::close(u1);
  // 20 bytes in sub-records of 8, 8 and 4.
  const auto expect = bytes().i4(-8).i4(1).i4(2).i4(8).i4(-8).i4(3).i4(4).i4(-8).i4(4).i4(5).i4(-4);
  EXPECT_EQ(zt::readfile("f.dat"), expect.b);
  io::open(u1, "f.dat", "unformatted", "old");
  int r[5] = {};
  EXPECT_EQ(io::rawread(io::getunit(u1), io::items(r, 5)), rstat::ok);
  EXPECT_EQ(r[4], 5);
}

TEST_F(encoding, ARecordOfExactlyTheLargestSubrecordIsNotSplit) {
  io::setmaxsubrecord(8);
  io::open(u1, "f.dat", "unformatted", "unknown");
  io::rawwrite(io::getunit(u1), 1, 2);
  io::close(u1);
  EXPECT_EQ(zt::readfile("f.dat"), bytes().record(bytes().i4(1).i4(2)).b);
}

TEST_F(encoding, SubrecordsAreReadAcrossItemBoundaries) {
  // A double split in the middle by a 6-byte sub-record.
  const double d = 3.75;
  char raw[8];
  std::memcpy(raw, &d, 8);
  const auto file = bytes().i4(-6).raw(raw, 6).i4(6).i4(2).raw(raw + 6, 2).i4(-2);
  zt::writefile("f.dat", file.b);
  io::open(u1, "f.dat", "unformatted", "old");
  double r = 0;
  EXPECT_EQ(io::rawread(io::getunit(u1), r), rstat::ok);
  EXPECT_EQ(r, 3.75);
}

// Sub-records against layouts built here (gfortran's own sub-records are compared in
// test_gridref): a record that is an exact multiple of the largest sub-record ends with a
// sub-record whose leading length is positive and trailing length negative.
TEST_F(encoding, ARecordOfAnExactMultipleOfTheSubrecordLength) {
  io::setmaxsubrecord(8);
  io::open(u1, "f.dat", "unformatted", "unknown");
  const int v[4] = {1, 2, 3, 4};
  io::rawwrite(io::getunit(u1), io::items(v, 4));
  io::rawwrite(io::getunit(u1));  // an empty record is not split
  io::rawwrite(io::getunit(u1), 9);
  io::close(u1);
  EXPECT_EQ(zt::readfile("f.dat"),
            bytes().i4(-8).i4(1).i4(2).i4(8).i4(8).i4(3).i4(4).i4(-8).i4(0).i4(0).i4(4).i4(9).i4(4).b);
  io::open(u1, "f.dat", "unformatted", "old");
  auto& u = io::getunit(u1);
  int r[4] = {};
  EXPECT_EQ(io::rawread(u, io::items(r, 4)), rstat::ok);
  EXPECT_EQ(r[3], 4);
  EXPECT_EQ(io::rawread(u), rstat::ok);
  int n = 0;
  EXPECT_EQ(io::rawread(u, n), rstat::ok);
  EXPECT_EQ(n, 9);
}

// Items split between sub-records are written across the split; a read that takes part of a
// chain of sub-records skips the rest of the chain.
TEST_F(encoding, ItemsAreSplitBetweenSubrecordsAndPartialReadsSkipTheChain) {
  io::setmaxsubrecord(5);
  io::open(u1, "f.dat", "unformatted", "unknown");
  io::rawwrite(io::getunit(u1), 7, 2.5);
  io::rawwrite(io::getunit(u1), 8);
  io::close(u1);
  char d[8];
  const double two5 = 2.5;
  std::memcpy(d, &two5, 8);
  const auto first = bytes().i4(7).raw(d, 8);  // 12 bytes: sub-records of 5, 5 and 2
  EXPECT_EQ(zt::readfile("f.dat"), bytes()
                                       .i4(-5)
                                       .raw(first.b.data(), 5)
                                       .i4(5)
                                       .i4(-5)
                                       .raw(first.b.data() + 5, 5)
                                       .i4(-5)
                                       .i4(2)
                                       .raw(first.b.data() + 10, 2)
                                       .i4(-2)
                                       .i4(4)
                                       .i4(8)
                                       .i4(4)
                                       .b);
  io::open(u1, "f.dat", "unformatted", "old");
  auto& u = io::getunit(u1);
  int a = 0, b = 0;
  EXPECT_EQ(io::rawread(u, a), rstat::ok);
  EXPECT_EQ(io::rawread(u, b), rstat::ok);
  EXPECT_EQ(a, 7);
  EXPECT_EQ(b, 8);
}

// A record shorter than an item: the item keeps its value (no part of it is stored), the items
// before it are set.
TEST_F(encoding, ARecordEndingInsideAnItemLeavesThatItemUnchanged) {
  zt::writefile("f.dat", bytes().i4(3).text("abc").i4(3).record(bytes().r8(1.5).i4(0)).b);
  io::open(u1, "f.dat", "unformatted", "old");
  auto& u = io::getunit(u1);
  int a = 0x11111111;
  EXPECT_EQ(io::rawread(u, a), rstat::error);
  EXPECT_EQ(a, 0x11111111);
  EXPECT_NE(io::lastreaderror().find("(0 bytes read, 4 more wanted)"), std::string::npos)
      << io::lastreaderror();
  io::close(u1);
  io::open(u1, "f.dat", "unformatted", "old");
  EXPECT_EQ(io::rawread(u), rstat::ok);  // skips the 3-byte record
  double v[2] = {0, -1};
  EXPECT_EQ(io::rawread(u, io::items(v, 2)), rstat::error);
  EXPECT_EQ(v[0], 1.5);
  EXPECT_EQ(v[1], -1);
}

TEST_F(encoding, BinaryIsTheSameItemsUnframed) {
  io::open(u1, "f.dat", "binary", "unknown");
  io::rawwrite(io::getunit(u1), 3, 1.5f);
  io::rawwrite(io::getunit(u1));
  io::rawwrite(io::getunit(u1), 2.25);
  io::close(u1);
  EXPECT_EQ(zt::readfile("f.dat"), bytes().i4(3).r4(1.5f).r8(2.25).b);
}

TEST_F(encoding, BinaryReadWithTheWrongWidthMisplacesEveryLaterValue) {
  zt::writefile("f.dat", bytes().r8(1.0).r8(2.0).b);
  io::open(u1, "f.dat", "binary", "old");
  float a = 0, b = 0, c = 0, d = 0;
  auto& u = io::getunit(u1);
  EXPECT_EQ(io::rawread(u, a), rstat::ok);
  EXPECT_EQ(io::rawread(u, b), rstat::ok);
  // The two halves of the first double, then of the second.
  const double one = 1.0, two = 2.0;
  float halves[4];
  std::memcpy(halves, &one, 8);
  std::memcpy(halves + 2, &two, 8);
  EXPECT_EQ(std::memcmp(&a, &halves[0], 4), 0);
  EXPECT_EQ(std::memcmp(&b, &halves[1], 4), 0);
  EXPECT_NE(a, 1.0f);
  EXPECT_EQ(io::rawread(u, c, d), rstat::ok);
  EXPECT_EQ(std::memcmp(&c, &halves[2], 4), 0);
  EXPECT_EQ(std::memcmp(&d, &halves[3], 4), 0);
  EXPECT_NE(c, 2.0f);
  EXPECT_EQ(io::rawread(u, a), rstat::end);
}

TEST_F(encoding, BinaryEndOfFileWhenFewerBytesRemainThanAReadNeeds) {
  zt::writefile("f.dat", bytes().i4(5).i4(6).b.substr(0, 6));
  io::open(u1, "f.dat", "binary", "old");
  int a = 0, b = -1;
  EXPECT_EQ(io::rawread(io::getunit(u1), a, b), rstat::end);
  EXPECT_EQ(a, 5);
  EXPECT_EQ(b, -1);
}

struct listcase {
  const char* text;
  int count;           // values asked for
  const char* expect;  // the values read, as "%g" separated by blanks ("_" for unchanged)
};

static void PrintTo(const listcase& c, std::ostream* os) {
  *os << ::testing::PrintToString(std::string(c.text));
}

class listinput : public zt::zelmtest, public ::testing::WithParamInterface<listcase> {};

TEST_P(listinput, ReadsValues) {
  const auto& c = GetParam();
  zt::writefile("f.txt", c.text);
  io::open(u1, "f.txt", "formatted", "old");
  double v[8];
  for (double& x : v) x = -99;
  ASSERT_EQ(io::listread(io::getunit(u1), io::items(v, c.count)), rstat::ok) << io::lastreaderror();
  std::string got;
  for (int i = 0; i < c.count; ++i) {
    char b[32];
    std::snprintf(b, sizeof b, "%g", v[i]);
    got += (i ? " " : "") + (v[i] == -99 ? std::string("_") : std::string(b));
  }
  EXPECT_EQ(got, c.expect);
}

INSTANTIATE_TEST_SUITE_P(table, listinput,
                         ::testing::Values(listcase{"1 2 3\n", 3, "1 2 3"}, listcase{"1,2,3\n", 3, "1 2 3"},
                                           listcase{" 1 , 2 ,3\n", 3, "1 2 3"},
                                           listcase{"1\n2\n\n3\n", 3, "1 2 3"}, listcase{"3*7\n", 3, "7 7 7"},
                                           listcase{"2*7 1\n", 3, "7 7 1"}, listcase{"1,,3\n", 3, "1 _ 3"},
                                           listcase{",2\n", 2, "_ 2"}, listcase{"2* 5\n", 3, "_ _ 5"},
                                           listcase{"1 2 / 9\n", 3, "1 2 _"},
                                           listcase{"1.5E2 2.5D-1 -3e+0\n", 3, "150 0.25 -3"},
                                           listcase{"1.5+2 +4 .5\n", 3, "150 4 0.5"},
                                           listcase{"1 2 3 4 5\n", 2, "1 2"},
                                           listcase{"\t1\t2\r\n", 2, "1 2"}));

TEST_F(encoding, ListReadDiscardsTheRestOfTheLastLineUsed) {
  zt::writefile("f.txt", "1 2 3\n4 5\n6\n");
  io::open(u1, "f.txt", "formatted", "old");
  auto& u = io::getunit(u1);
  int a[4] = {};
  EXPECT_EQ(io::listread(u, io::items(a, 4)), rstat::ok);  // crosses into line 2, drops "5"
  int b = 0;
  EXPECT_EQ(io::listread(u, b), rstat::ok);
  EXPECT_EQ(a[3], 4);
  EXPECT_EQ(b, 6);
}

TEST_F(encoding, ListReadOfNoValuesTakesOneLine) {
  zt::writefile("f.txt", "9 9\n7\n");
  io::open(u1, "f.txt", "formatted", "old");
  auto& u = io::getunit(u1);
  int a = 0;
  EXPECT_EQ(io::listread(u), rstat::ok);
  EXPECT_EQ(io::listread(u, a), rstat::ok);
  EXPECT_EQ(a, 7);
  EXPECT_EQ(io::listread(u), rstat::end);
}

TEST_F(encoding, ListReadRejectsWhatDoesNotParse) {
  zt::writefile("f.txt", "1.5\nabc\n");
  io::open(u1, "f.txt", "formatted", "old");
  auto& u = io::getunit(u1);
  int a = 0;
  EXPECT_EQ(io::listread(u, a), rstat::error);  // an integer item does not take a real
  EXPECT_NE(io::lastreaderror().find("\"1.5\""), std::string::npos) << io::lastreaderror();
  float f = 0;
  EXPECT_EQ(io::listread(u, f), rstat::error);
  EXPECT_NE(io::lastreaderror().find("line 2"), std::string::npos) << io::lastreaderror();
}

TEST_F(encoding, AValueThatDoesNotParseLeavesItsItemUnchanged) {
  zt::writefile("f.txt", "12abc\n1.5x\n1.5.5\n");
  io::open(u1, "f.txt", "formatted", "old");
  auto& u = io::getunit(u1);
  int i = 7;
  float f = 2.5f;
  double d = 3.5;
  EXPECT_EQ(io::listread(u, i), rstat::error);
  EXPECT_EQ(io::listread(u, f), rstat::error);
  EXPECT_EQ(io::listread(u, d), rstat::error);
  EXPECT_EQ(i, 7);
  EXPECT_EQ(f, 2.5f);
  EXPECT_EQ(d, 3.5);
}

TEST_F(encoding, ListOutputLayout) {
  io::open(u1, "f.txt", "formatted", "unknown");
  auto& u = io::getunit(u1);
  io::listwrite(u, 1, -23);
  io::listwrite(u, 1.0f, -0.1f);
  io::listwrite(u, 0.1);
  io::listwrite(u, "Reading Zone ", 3, "...");
  io::close(u1);
  EXPECT_EQ(zt::lines(zt::readfile("f.txt")),
            (std::vector<std::string>{"           1         -23", "   1.00000000     -0.100000001    ",
                                      "  0.10000000000000001     ", " Reading Zone            3 ..."}));
}

TEST_F(encoding, ListOutputKeepsALongRecordOnOneLine) {
  io::open(u1, "f.txt", "formatted", "unknown");
  int v[10];
  for (int i = 0; i < 10; ++i) v[i] = i;
  io::listwrite(io::getunit(u1), io::items(v, 10));
  io::close(u1);
  const auto ls = zt::lines(zt::readfile("f.txt"));
  ASSERT_EQ(ls.size(), 1u);
  EXPECT_EQ(ls[0].size(), 120u);  // ten 12-column integers
  io::open(u1, "f.txt", "formatted", "old");
  int r[10] = {};
  EXPECT_EQ(io::listread(io::getunit(u1), io::items(r, 10)), rstat::ok);
  EXPECT_EQ(r[9], 9);
}

TEST_F(encoding, RealsReadBackUnchanged) {
  const float fs[] = {1.0f / 3, 3.4028235e38f, 1.4e-45f, -0.0f, 123456.789f};
  const double ds[] = {1.0 / 3, 1.7976931348623157e308, 4.9e-324, 0.1, -2.5e-300};
  io::open(u1, "f.txt", "formatted", "unknown");
  io::listwrite(io::getunit(u1), io::items(fs, 5));
  io::listwrite(io::getunit(u1), io::items(ds, 5));
  io::close(u1);
  io::open(u1, "f.txt", "formatted", "old");
  float rf[5];
  double rd[5];
  ASSERT_EQ(io::listread(io::getunit(u1), io::items(rf, 5)), rstat::ok);
  ASSERT_EQ(io::listread(io::getunit(u1), io::items(rd, 5)), rstat::ok);
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(std::memcmp(&rf[i], &fs[i], 4), 0) << i;
    EXPECT_EQ(std::memcmp(&rd[i], &ds[i], 8), 0) << i;
  }
}

TEST_F(encoding, AEditReadsAndPadsTwentyFiveCharacters) {
  zt::writefile("f.txt", "short\r\n0123456789012345678901234567890\n");
  io::open(u1, "f.txt", "formatted", "old");
  fortran::char25 a, b;
  EXPECT_EQ(io::aread(io::getunit(u1), io::text(a)), rstat::ok);
  EXPECT_EQ(io::aread(io::getunit(u1), io::text(b)), rstat::ok);
  EXPECT_EQ(a.view(), "short" + std::string(20, ' '));
  EXPECT_EQ(b.view(), "0123456789012345678901234");
  EXPECT_EQ(io::aread(io::getunit(u1), io::text(a)), rstat::end);
}

TEST_F(encoding, ReopeningTheConnectedFileKeepsThePosition) {
  io::open(u1, "f.dat", "unformatted", "unknown");
  io::rawwrite(io::getunit(u1), 1);
  io::open(u1, "f.dat", "unformatted", "unknown");
  io::rawwrite(io::getunit(u1), 2);
  io::close(u1);
  EXPECT_EQ(zt::readfile("f.dat"), bytes().record(bytes().i4(1)).record(bytes().i4(2)).b);
}

TEST_F(encoding, StatusUnknownReplacesAnExistingFileFromItsStart) {
  zt::writefile("f.dat", std::string(100, 'x'));
  io::open(u1, "f.dat", "binary", "unknown");
  io::rawwrite(io::getunit(u1), 7);
  io::close(u1);
  EXPECT_EQ(zt::readfile("f.dat"), bytes().i4(7).b);
}

TEST_F(encoding, StatusOldOnAMissingFileEndsTheRun) {
  try {
    io::open(u1, "missing.dat", "unformatted", "old");
    FAIL() << "open succeeded";
  } catch (const zt::iofailure& e) {
    EXPECT_NE(std::string(e.what()).find("missing.dat"), std::string::npos) << e.what();
    EXPECT_NE(std::string(e.what()).find("No such file"), std::string::npos) << e.what();
  }
}

TEST_F(encoding, AnInvalidFormEndsTheRun) {
  EXPECT_THROW(io::open(u1, "f.dat", std::string(40, ' '), "unknown"), zt::iofailure);
}

TEST_F(encoding, ClosingAnUnconnectedUnitIsHarmless) {
  io::close(77);
  EXPECT_FALSE(io::isconnected(77));
}

TEST_F(encoding, AFileConnectedToOneUnitCannotBeOpenedOnAnother) {
  io::open(u1, "f.dat", "unformatted", "unknown");
  EXPECT_THROW(io::open(u1 + 1, "f.dat", "unformatted", "old"), zt::iofailure);
}

TEST_F(encoding, ReadFromAnUnconnectedUnitIsAReadError) {
  int a = 0;
  EXPECT_EQ(io::rawread(io::getunit(55), a), rstat::error);
  EXPECT_EQ(io::listread(io::getunit(55), a), rstat::error);
}

TEST_F(encoding, WriteToAnUnconnectedUnitEndsTheRun) {
  EXPECT_THROW(io::listwrite(io::getunit(56), 1), zt::iofailure);
  EXPECT_THROW(io::rawwrite(io::getunit(56), 1), zt::iofailure);
}

TEST_F(encoding, ListReadOnAnUnformattedUnitIsAReadError) {
  zt::writefile("f.dat", bytes().record(bytes().i4(1)).b);
  io::open(u1, "f.dat", "binary", "old");
  int a = 0;
  EXPECT_EQ(io::listread(io::getunit(u1), a), rstat::error);
}

TEST_F(encoding, ProgressGoesToStandardOutput) {
  const std::string out = zt::capturestdout([] { io::print("Reading Grid Points in Zone ", 12, "..."); });
  EXPECT_EQ(out, " Reading Grid Points in Zone           12 ...\n");
}

TEST_F(encoding, EditIWritesAsterisksOnOverflow) {
  std::string s;
  io::editi(s, 3, 7);
  io::editi(s, 3, 1000);
  io::editi(s, 3, -12);
  EXPECT_EQ(s, "  7***-12");
}
