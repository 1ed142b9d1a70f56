// Located read errors: every failed read names the file, its encoding, the record by number and by
// what it is, the byte offset and what was wrong. Files are written by the library and then cut,
// corrupted or edited at a known record, so that the whole account can be checked.
#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "gridgen.hpp"
#include "records.hpp"
#include "testsupport.hpp"

namespace io = mod_zelmgrid::io;
using namespace mod_zelmgrid;
using fortran::char25;
using fortran::char40;
using fortran::farray;
using fortran::index_t;
using zt::bytes;

namespace {

class readerrors : public zt::zelmtest {
 protected:
  const std::string& detail() const { return zt::services().lastdetail; }
  int failures() const { return zt::services().readerrors; }
};

// Two zones of 3 x 2 quadrilaterals: 12 nodes and 17 faces per zone.
zelmgen::grid twozones() {
  return zelmgen::quadtri(3, 2, false, 2);
}

void writegrid(const std::string& name, int code, bool wide) {
  auto g = twozones();
  writezelmgrid(char40(name), code, wide ? 1 : 0, g.ndim, g.nzones, g.ngridaux, g.x, g.nptsz, g.nfacesz,
                g.ncellsz, g.mnpfz, g.mfpcz, g.npf, g.ifnode, g.ifcell);
  io::close(4);
}

struct gridout {
  int ndim = 0, nzones = 0, ngridaux = 0;
  farray<float, 2> x;
  farray<int, 1> nptsz, nfacesz, ncellsz, mnpfz, mfpcz, npf;
  farray<int, 2> ifnode, ifcell;
  void read(const std::string& name, int code, bool wide) {
    readzelmgrid(char40(name), code, wide ? 1 : 0, ndim, nzones, ngridaux, x, nptsz, nfacesz, ncellsz, mnpfz,
                 mfpcz, npf, ifnode, ifcell, 1);
  }
};

// Where each record of a grid file starts, from the grid's own counts: records are numbered from 1
// (header 1, zone counts 2, then per zone its nodes and its faces).
struct gridrecords {
  std::vector<long long> start;  // start[r] is the offset of record r (start[0] unused)
  std::vector<int> first;        // first[k]: record number of zone k's node 1
  zelmgen::grid g = twozones();
  gridrecords(bool framed, int realbytes) {
    const long long frame = framed ? 8 : 0;
    long long at = 0;
    auto add = [&](long long data) {
      start.push_back(at);
      at += data + frame;
    };
    start.push_back(0);
    add(12);
    add(20LL * g.nzones);
    first.push_back(0);
    index_t f = 1;
    for (int k = 1; k <= g.nzones; ++k) {
      first.push_back(static_cast<int>(start.size()));
      for (int i = 0; i < g.nptsz(k); ++i) add(static_cast<long long>(g.ndim) * realbytes);
      for (int i = 0; i < g.nfacesz(k); ++i, ++f) add(4 + 4LL * g.npf(f) + 8);
    }
    start.push_back(at);  // the end of the file
  }
  int node(int k, int i) const { return first[static_cast<std::size_t>(k)] + i - 1; }
  int face(int k, int i) const { return first[static_cast<std::size_t>(k)] + g.nptsz(k) + i - 1; }
  long long offset(int record) const { return start[static_cast<std::size_t>(record)]; }
};

void poke(std::string& s, std::size_t at, std::int32_t v) {
  std::memcpy(&s[at], &v, 4);
}

std::string at(const std::string& file, const char* form, int record, const std::string& what,
               long long byte) {
  return "\"" + file + "\" (" + form + ", unit 13), record " + std::to_string(record) + " (" + what +
         ") at byte " + std::to_string(byte) + ": ";
}

// ---- grid files ---------------------------------------------------------------------------------

TEST_F(readerrors, GridFramedEndOfFileInsideZone2Face17) {
  writegrid("g.unf", unformatted, false);
  const gridrecords r(true, 4);
  std::string s = zt::readfile("g.unf");
  ASSERT_EQ(static_cast<long long>(s.size()), r.start.back());
  const int rec = r.face(2, 17);
  s.resize(static_cast<std::size_t>(r.offset(rec) + 10));  // cut inside the face's data
  zt::writefile("g.unf", s);
  gridout g;
  g.read("g.unf", unformatted, false);
  EXPECT_EQ(failures(), 1);
  EXPECT_EQ(detail(), at("g.unf", "unformatted", rec, "zone 2 face 17", r.offset(rec)) +
                          "the file ends inside a record (truncated file)");
}

TEST_F(readerrors, GridFramedLengthMarkersDisagreeAtZone1Node3) {
  writegrid("g.unf", unformatted, false);
  const gridrecords r(true, 4);
  std::string s = zt::readfile("g.unf");
  const int rec = r.node(1, 3);
  poke(s, static_cast<std::size_t>(r.offset(rec) + 12), 9);  // trailing marker 8 -> 9
  zt::writefile("g.unf", s);
  gridout g;
  g.read("g.unf", unformatted, false);
  EXPECT_EQ(detail(), at("g.unf", "unformatted", rec, "zone 1 node 3", r.offset(rec)) +
                          "length markers disagree: leading 8, trailing 9");
}

TEST_F(readerrors, GridFramedRecordShorterThanItsItemsAtZone2Node5) {
  writegrid("g.unf", unformatted, false);
  const gridrecords r(true, 4);
  std::string s = zt::readfile("g.unf");
  // Node 5 of zone 2 becomes a record of one real: leading 4, the real, trailing 4, and 4 bytes
  // left over before the next record (which the reader never gets to).
  const int rec = r.node(2, 5);
  const auto n = static_cast<std::size_t>(r.offset(rec));
  poke(s, n, 4);
  poke(s, n + 8, 4);
  zt::writefile("g.unf", s);
  gridout g;
  g.read("g.unf", unformatted, false);
  EXPECT_EQ(detail(),
            at("g.unf", "unformatted", rec, "zone 2 node 5", r.offset(rec)) +
                "the record holds fewer data than the statement reads (4 bytes read, 4 more wanted)");
}

TEST_F(readerrors, GridBinaryEndOfFileInZone2Face17) {
  writegrid("g.bin", binary, true);
  const gridrecords r(false, 8);
  std::string s = zt::readfile("g.bin");
  ASSERT_EQ(static_cast<long long>(s.size()), r.start.back());
  const int rec = r.face(2, 17);
  s.resize(static_cast<std::size_t>(r.offset(rec) + 6));  // the count and 2 bytes of the two nodes
  zt::writefile("g.bin", s);
  gridout g;
  g.read("g.bin", binary, true);
  EXPECT_EQ(failures(), 1);
  EXPECT_EQ(detail(), "\"g.bin\" (binary, unit 13), record " + std::to_string(rec) +
                          " (zone 2 face 17) at byte " + std::to_string(r.offset(rec)) +
                          ": end of file: 2 bytes left where the statement reads 8");
}

TEST_F(readerrors, GridFormattedValueThatDoesNotParseNamesTheText) {
  auto one = zelmgen::quadtri(3, 2, false, 1);
  writezelmgrid(char40("g.txt"), formatted, 0, one.ndim, one.nzones, one.ngridaux, one.x, one.nptsz,
                one.nfacesz, one.ncellsz, one.mnpfz, one.mfpcz, one.npf, one.ifnode, one.ifcell);
  io::close(4);
  auto lines = zt::lines(zt::readfile("g.txt"));
  ASSERT_GT(lines.size(), 5u);
  lines[4] = " 1.5x 2.0";  // line 5: header, counts, then node 3
  std::string text;
  for (const auto& l : lines) text += l + "\n";
  zt::writefile("g.txt", text);
  gridout g;
  g.read("g.txt", formatted, false);
  EXPECT_EQ(failures(), 1);
  EXPECT_TRUE(detail().find("\"g.txt\" (formatted, unit 13), line 5 (zone 1 node 3) at byte ") == 0)
      << detail();
  EXPECT_NE(detail().find(": cannot read \"1.5x\" as a real"), std::string::npos) << detail();
}

TEST_F(readerrors, GridHeaderReaderEndOfFileInTheZoneCounts) {
  zt::writefile("h.unf", bytes().record(bytes().i4(2).i4(3).i4(0)).record(bytes().i4(1).i4(2)).b);
  int ndim = 0, nzones = 0, aux = 0;
  farray<int, 1> nptsz, ncellsz;
  readzelmgridheader(char40("h.unf"), unformatted, ndim, nzones, aux, nptsz, ncellsz);
  EXPECT_EQ(failures(), 1);
  EXPECT_EQ(
      detail(),
      "\"h.unf\" (unformatted, unit 14), record 2 (zone counts) at byte 20: the record holds fewer data "
      "than the statement reads (8 bytes read, 4 more wanted)");
}

// ---- restart files ---------------------------------------------------------------------------

// Three variables over zones of 4 and 3 cells.
void writerestart(const std::string& name, int code, bool wide) {
  mod_gridvars::numrstrtvar = 3;
  farray<int, 1> n;
  (void)n.allocate(2);
  n(1) = 4;
  n(2) = 3;
  farray<float, 2> q;
  (void)q.allocate(3, 7);
  for (index_t i = 0; i < q.size(); ++i) q.data()[i] = static_cast<float>(i);
  writezelmrstrtfile(char40(name), code, wide ? 1 : 0, 2, n, q);
}

void readrestart(const std::string& name, int code, bool wide) {
  mod_gridvars::numrstrtvar = 3;
  mod_gridvars::readallvars = 1;
  farray<int, 1> n;
  (void)n.allocate(2);
  n(1) = 4;
  n(2) = 3;
  farray<float, 2> q;
  readzelmrstrtfile(char40(name), code, wide ? 1 : 0, 2, n, q);
}

TEST_F(readerrors, RestartFramedEndOfFileAtVariable3Zone2) {
  writerestart("r.unf", unformatted, true);
  std::string s = zt::readfile("r.unf");
  // Header 24 + 24 + 32 bytes, then per variable records of 4 and 3 8-byte values (40 and 32 bytes).
  const std::size_t var3zone2 = 80 + 2 * 72 + 40;
  ASSERT_EQ(s.size(), var3zone2 + 32);
  s.resize(var3zone2);
  zt::writefile("r.unf", s);
  readrestart("r.unf", unformatted, true);
  EXPECT_EQ(failures(), 1);
  EXPECT_EQ(detail(), "\"r.unf\" (unformatted, unit 15), record 9 (variable 3 zone 2) at byte " +
                          std::to_string(var3zone2) + ": end of file");
}

TEST_F(readerrors, RestartFormattedValueThatDoesNotParseAtVariable2Zone1) {
  writerestart("r.txt", formatted, false);
  auto lines = zt::lines(zt::readfile("r.txt"));
  ASSERT_EQ(lines.size(), 9u);
  lines[5] = " 1.0 2.0 three 4.0";  // variable 2, zone 1
  std::string text;
  for (const auto& l : lines) text += l + "\n";
  zt::writefile("r.txt", text);
  readrestart("r.txt", formatted, false);
  EXPECT_EQ(failures(), 1);
  EXPECT_TRUE(detail().find("\"r.txt\" (formatted, unit 15), line 6 (variable 2 zone 1) at byte ") == 0)
      << detail();
  EXPECT_NE(detail().find(": cannot read \"three\" as a real"), std::string::npos) << detail();
}

TEST_F(readerrors, RestartBinaryHeaderCutShort) {
  writerestart("r.bin", binary, false);
  zt::writefile("r.bin", zt::readfile("r.bin").substr(0, 18));
  readrestart("r.bin", binary, false);
  // The first real of record 2 is read; 2 bytes are left for the second.
  EXPECT_EQ(detail(),
            "\"r.bin\" (binary, unit 15), record 2 (header record 2) at byte 12: end of file: 2 bytes "
            "left where the statement reads 4");
}

TEST_F(readerrors, RealWithManySignsIsAValueThatDoesNotParse) {
  // Every sign after a digit asks for an exponent letter in the parser's rewrite: a long run of
  // them once wrote past the rewrite buffer.
  std::string value = "1";
  for (int i = 0; i < 140; ++i) value += "-1";
  writerestart("r.txt", formatted, false);
  auto lines = zt::lines(zt::readfile("r.txt"));
  lines[3] = " " + value;  // variable 1, zone 1
  std::string text;
  for (const auto& l : lines) text += l + "\n";
  zt::writefile("r.txt", text);
  readrestart("r.txt", formatted, false);
  EXPECT_EQ(failures(), 1);
  EXPECT_TRUE(detail().find("\"r.txt\" (formatted, unit 15), line 4 (variable 1 zone 1) at byte ") == 0)
      << detail();
  EXPECT_NE(detail().find(": cannot read \"1-1-1-1"), std::string::npos) << detail();
}

TEST_F(readerrors, RepeatCountOverAHugeZoneIsPassedOverAtOnce) {
  // The pix reader passes over the six fixed variables to reach the free count. A zone that the
  // caller says has two billion nodes, given in one line of text per variable by a repeat count,
  // is passed over without parsing the value two billion times.
  std::string text = " 1.0 1.4 287.0\n 1.0 1.0 1.0\nsome pix file text       \n";
  for (int v = 1; v <= 6; ++v) text += " 2000000000*1.5\n";
  text += " 0\n";
  zt::writefile("p.txt", text);
  farray<int, 1> n;
  (void)n.allocate(1);
  n(1) = 2000000000;
  mod_gridvars::readallvars = 0;
  farray<float, 2> p;
  fortran::allocationlimit = 1 << 20;  // the value row is refused; reading it is not what is tested
  const auto t0 = std::chrono::steady_clock::now();
  readzelmpixfile(char40("p.txt"), formatted, 0, 1, n, p);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  fortran::allocationlimit = SIZE_MAX;
  EXPECT_EQ(failures(), 0) << detail();
  EXPECT_EQ(mod_zelmgrid::nfree, 0);
  EXPECT_LT(seconds, 2.0);
}

TEST_F(readerrors, RepeatCountFillsEveryElementItCovers) {
  zt::writefile("v.txt", " 3*2.5 , 2* 7 4*-1 /\n");
  io::open(21, "v.txt", "formatted", "old");
  double v[12];
  for (double& x : v) x = 9.0;
  EXPECT_EQ(io::listread(io::getunit(21), io::items(v, 12)), io::rstat::ok);
  io::close(21);
  const double expect[12] = {2.5, 2.5, 2.5, 9.0, 9.0, 7.0, -1.0, -1.0, -1.0, -1.0, 9.0, 9.0};
  for (int i = 0; i < 12; ++i) EXPECT_EQ(v[i], expect[i]) << i;
}

// ---- pix files ---------------------------------------------------------------------------------

void writepix(const std::string& name, int code, int nfree) {
  mod_gridvars::npixvar = 6 + nfree;
  mod_zelmgrid::nfree = nfree;
  for (int k = 1; k <= nfree; ++k)
    strfree(static_cast<std::size_t>(k)) = char25("label " + std::to_string(k));
  farray<int, 1> n;
  (void)n.allocate(1);
  n(1) = 2;
  farray<float, 2> p;
  (void)p.allocate(6 + nfree, 2);
  for (index_t i = 0; i < p.size(); ++i) p.data()[i] = static_cast<float>(i);
  writezelmpixfile(char40(name), code, 0, 1, n, p);
}

void readpix(const std::string& name, int code) {
  mod_gridvars::readallvars = 1;
  farray<int, 1> n;
  (void)n.allocate(1);
  n(1) = 2;
  farray<float, 2> p;
  readzelmpixfile(char40(name), code, 0, 1, n, p);
}

TEST_F(readerrors, PixFramedEndOfFileInTheLabelOfFreeVariable2) {
  writepix("p.unf", unformatted, 3);
  std::string s = zt::readfile("p.unf");
  // H1, H2 20 bytes each, H3 33, six value records of 16, the count 12, then labels of 33 bytes.
  const std::size_t label2 = 20 + 20 + 33 + 6 * 16 + 12 + 33;
  s.resize(label2 + 10);
  zt::writefile("p.unf", s);
  readpix("p.unf", unformatted);
  EXPECT_EQ(failures(), 1);
  EXPECT_EQ(detail(), "\"p.unf\" (unformatted, unit 13), record 12 (label of free variable 2) at byte " +
                          std::to_string(label2) + ": the file ends inside a record (truncated file)");
}

TEST_F(readerrors, PixFormattedValueThatDoesNotParseAtVariable8) {
  writepix("p.txt", formatted, 2);
  auto lines = zt::lines(zt::readfile("p.txt"));
  // H1, H2, H3, six value lines, the count, two labels, then variables 7 and 8.
  ASSERT_EQ(lines.size(), 14u);
  lines[13] = " 1.0 *2";
  std::string text;
  for (const auto& l : lines) text += l + "\n";
  zt::writefile("p.txt", text);
  readpix("p.txt", formatted);
  EXPECT_EQ(failures(), 1);
  EXPECT_TRUE(detail().find("\"p.txt\" (formatted, unit 13), line 14 (variable 8 zone 1) at byte ") == 0)
      << detail();
  EXPECT_NE(detail().find(": invalid repeat count in \"*2\""), std::string::npos) << detail();
}

TEST_F(readerrors, PixNextVariableReaderNamesItsVariable) {
  writepix("p.unf", unformatted, 0);
  std::string s = zt::readfile("p.unf");
  s.resize(20 + 20 + 33 + 3 * 16 + 7);  // inside variable 4
  zt::writefile("p.unf", s);
  mod_gridvars::readallvars = 0;
  farray<int, 1> n;
  (void)n.allocate(1);
  n(1) = 2;
  farray<float, 2> p;
  readzelmpixfile(char40("p.unf"), unformatted, 0, 1, n, p);
  // A raw file is left at its start: the header records come first for the next-variable reader.
  for (int ivar = 1; ivar <= 7 && failures() == 0; ++ivar)
    readnextzelmpixvar(ivar, char40("p.unf"), unformatted, 0, 1, n, p);
  EXPECT_EQ(failures(), 1);
  EXPECT_TRUE(detail().find("\"p.unf\" (unformatted, unit 13), record ") == 0) << detail();
  EXPECT_NE(detail().find(" (variable "), std::string::npos) << detail();
  EXPECT_NE(detail().find(" zone 1) at byte "), std::string::npos) << detail();
}

// ---- the bundled services print the account -------------------------------------------------------

TEST_F(readerrors, EveryAccountEndsWithACause) {
  writegrid("g.unf", unformatted, false);
  std::string s = zt::readfile("g.unf");
  const gridrecords r(true, 4);
  s.resize(static_cast<std::size_t>(r.offset(r.node(1, 2)) + 2));
  zt::writefile("g.unf", s);
  gridout g;
  g.read("g.unf", unformatted, false);
  const std::string& d = detail();
  ASSERT_FALSE(d.empty());
  EXPECT_NE(d.find("\"g.unf\""), std::string::npos);
  EXPECT_NE(d.find("(unformatted, unit 13)"), std::string::npos);
  EXPECT_NE(d.find("record 4 (zone 1 node 2)"), std::string::npos) << d;
  EXPECT_NE(d.find("at byte " + std::to_string(r.offset(r.node(1, 2)))), std::string::npos) << d;
  EXPECT_EQ(d.substr(d.rfind(": ")), ": the file ends inside a record's length marker (truncated file)") << d;
}

}  // namespace
