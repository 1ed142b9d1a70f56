// Grid files that cannot be read: truncated at each kind of record, read with the wrong precision
// flag or the wrong encoding, garbage, empty and missing. Each read ends in dispfilereaderror with
// a message that names the file, the encoding, the record and the cause; the routine returns at
// once and leaves its unit connected. A missing file ends the run at the open.
#include <random>

#include "records.hpp"
#include "refgrid.hpp"

namespace io = mod_zelmgrid::io;
using namespace mod_zelmgrid;
using fortran::farray;

namespace {

// One record of a grid file: what the messages call it, and the file offset where it ends.
struct recordend {
  std::string label;
  std::int64_t end;
};

// Writes the grid record by record in the layout that readzelmgrid reads (in the formatted
// encoding each zone's counts on a line of their own) and returns where each record ends.
std::vector<recordend> writelayout(const zt::grid& g, const std::string& file, int filetype, bool wide) {
  constexpr int u = 30;
  const bool text = filetype == formatted;
  io::open(u, file, text ? "formatted" : filetype == binary ? "binary" : "unformatted", "unknown");
  io::unit& out = io::getunit(u);
  std::vector<recordend> ends;
  auto mark = [&](std::string label) { ends.push_back({std::move(label), out.position()}); };
  text ? io::listwrite(out, g.ndim, g.nzones, g.ngridaux) : io::rawwrite(out, g.ndim, g.nzones, g.ngridaux);
  mark("grid header");
  if (text) {
    for (int k = 1; k <= g.nzones; ++k) {
      io::listwrite(out, g.nptsz(k), g.nfacesz(k), g.ncellsz(k), g.mnpfz(k), g.mfpcz(k));
      mark("zone counts of zone " + std::to_string(k));
    }
  } else {
    io::rawout s(out);
    for (int k = 1; k <= g.nzones; ++k)
      for (int v : {g.nptsz(k), g.nfacesz(k), g.ncellsz(k), g.mnpfz(k), g.mfpcz(k)}) s.item(v);
    s.finish();
    mark("zone counts");
  }
  int node = 0, f = 0;
  for (int k = 1; k <= g.nzones; ++k) {
    for (int i = 1; i <= g.nptsz(k); ++i) {
      ++node;
      if (text) {
        io::listwrite(out, io::items(&g.x(1, node), g.ndim));
      } else if (wide) {
        double w[8];
        for (int d = 1; d <= g.ndim; ++d) w[d - 1] = g.x(d, node);
        io::rawwrite(out, io::items(w, g.ndim));
      } else {
        io::rawwrite(out, io::items(&g.x(1, node), g.ndim));
      }
      mark("zone " + std::to_string(k) + " node " + std::to_string(i));
    }
    for (int j = 1; j <= g.nfacesz(k); ++j) {
      ++f;
      const auto nodes = io::items(&g.ifnode(1, f), g.npf(f));
      if (text)
        io::listwrite(out, g.npf(f), nodes, g.ifcell(1, f), g.ifcell(2, f));
      else
        io::rawwrite(out, g.npf(f), nodes, g.ifcell(1, f), g.ifcell(2, f));
      mark("zone " + std::to_string(k) + " face " + std::to_string(j));
    }
  }
  io::close(u);
  return ends;
}

std::int64_t endof(const std::vector<recordend>& ends, const std::string& label) {
  for (const auto& e : ends)
    if (e.label == label) return e.end;
  ADD_FAILURE() << "no record " << label;
  return 0;
}

struct badcase {
  int filetype;
  bool wide;
};
const char* encodingword(int filetype) {
  return filetype == unformatted ? "unformatted" : filetype == binary ? "binary" : "formatted";
}
void PrintTo(const badcase& c, std::ostream* os) {
  *os << encodingword(c.filetype) << (c.wide ? " r8" : " r4");
}
std::string badcasename(const ::testing::TestParamInfo<badcase>& i) {
  return std::string(encodingword(i.param.filetype)) + (i.param.wide ? "8" : "4");
}

class badgrid : public zt::zelmtest, public ::testing::WithParamInterface<badcase> {
 protected:
  void SetUp() override {
    zt::zelmtest::SetUp();
    io::setstdout(nullptr);
  }
  // The one read failure's message names the file, the encoding, the record and the cause.
  static void expectreported(const std::string& record, const std::string& cause, int filetype, int unit) {
    EXPECT_EQ(zt::services().readerrors, 1);
    const std::string& m = zt::services().lastdetail;
    EXPECT_NE(m.find("\"bad.dat\" (" + std::string(encodingword(filetype)) + ", unit " +
                     std::to_string(unit) + ")"),
              std::string::npos)
        << m;
    EXPECT_NE(m.find("(" + record + ")"), std::string::npos) << m;
    EXPECT_NE(m.find(cause), std::string::npos) << m;
    EXPECT_TRUE(io::isconnected(unit));  // a failed read leaves the file connected
  }
};

// What each encoding says about a file that ends inside a record.
std::string truncation(int filetype) {
  return filetype == unformatted ? "truncated file" : "end of file";
}

}  // namespace

TEST_P(badgrid, TruncatedInTheHeader) {
  const auto [filetype, wide] = GetParam();
  const auto ends = writelayout(zt::refgrid(3), "full.dat", filetype, wide);
  zt::writefile("bad.dat",
                zt::readfile("full.dat").substr(0, static_cast<std::size_t>(endof(ends, "grid header") / 2)));
  zt::grid r;
  r.ndim = -5;
  r.read("bad.dat", filetype, wide);
  expectreported("grid header", truncation(filetype), filetype, 13);
  EXPECT_FALSE(r.nptsz.allocated());  // nothing allocated before the header is read
  EXPECT_FALSE(r.x.allocated());

  io::close(13);
  zt::services().clear();
  int ndim = 0, nzones = 0, ngridaux = 0;
  farray<int, 1> nptsz, ncellsz;
  readzelmgridheader("bad.dat", filetype, ndim, nzones, ngridaux, nptsz, ncellsz);
  expectreported("grid header", truncation(filetype), filetype, 14);
  EXPECT_FALSE(nptsz.allocated());
}

TEST_P(badgrid, TruncatedInTheZoneCounts) {
  const auto [filetype, wide] = GetParam();
  const auto ends = writelayout(zt::refgrid(3), "full.dat", filetype, wide);
  // Inside zone 2's counts.
  const std::int64_t cut = filetype == formatted
                               ? endof(ends, "zone counts of zone 1") + 20
                               : endof(ends, "grid header") + (filetype == unformatted ? 4 : 0) + 30;
  zt::writefile("bad.dat", zt::readfile("full.dat").substr(0, static_cast<std::size_t>(cut)));
  zt::grid r;
  r.read("bad.dat", filetype, wide);
  expectreported(filetype == formatted ? "zone counts of zone 2" : "zone counts", truncation(filetype),
                 filetype, 13);
  ASSERT_TRUE(r.nptsz.allocated());  // allocated, and filled up to where the file ends
  EXPECT_EQ(r.nptsz.extent(1), 3);
  EXPECT_EQ(r.nptsz(1), 4);
  EXPECT_EQ(r.mfpcz(1), 5);
  EXPECT_TRUE(r.mfpcz.allocated());
  EXPECT_FALSE(r.x.allocated());
  EXPECT_FALSE(r.npf.allocated());

  io::close(13);
  zt::services().clear();
  int ndim = 0, nzones = 0, ngridaux = 0;
  farray<int, 1> nptsz, ncellsz;
  readzelmgridheader("bad.dat", filetype, ndim, nzones, ngridaux, nptsz, ncellsz);
  expectreported("zone counts", truncation(filetype), filetype, 14);
  EXPECT_EQ(nzones, 3);
  ASSERT_TRUE(nptsz.allocated());
  EXPECT_EQ(nptsz(1), 4);
  EXPECT_EQ(ncellsz(1), 1);
}

TEST_P(badgrid, TruncatedInANodeRecord) {
  const auto [filetype, wide] = GetParam();
  const auto g = zt::refgrid(3);
  const auto ends = writelayout(g, "full.dat", filetype, wide);
  const std::int64_t cut = endof(ends, "zone 2 node 1") + (filetype == unformatted ? 4 : 0) + 5;
  zt::writefile("bad.dat", zt::readfile("full.dat").substr(0, static_cast<std::size_t>(cut)));
  zt::grid r;
  r.read("bad.dat", filetype, wide);
  expectreported("zone 2 node 2", truncation(filetype), filetype, 13);
  if (wide && filetype != formatted) {
    EXPECT_FALSE(r.x.allocated());  // the 8-byte temporary is released, x not yet allocated
  } else {
    ASSERT_TRUE(r.x.allocated());
    EXPECT_EQ(r.x(3, 5), g.x(3, 5));  // zone 2's first node
  }
  EXPECT_TRUE(r.npf.allocated());
  EXPECT_EQ(r.npf(3), g.npf(3));  // zone 1's faces were read
  EXPECT_EQ(r.ifcell(2, 3), g.ifcell(2, 3));
}

TEST_P(badgrid, TruncatedInAFaceRecord) {
  const auto [filetype, wide] = GetParam();
  const auto g = zt::refgrid(3);
  const auto ends = writelayout(g, "full.dat", filetype, wide);
  // Zone 2's second face holds 3 nodes: cut after its count and first node.
  const std::int64_t cut = endof(ends, "zone 2 face 1") + (filetype == unformatted ? 4 : 0) + 8;
  zt::writefile("bad.dat", zt::readfile("full.dat").substr(0, static_cast<std::size_t>(cut)));
  zt::grid r;
  r.read("bad.dat", filetype, wide);
  expectreported("zone 2 face 2", truncation(filetype), filetype, 13);
  ASSERT_TRUE(r.npf.allocated());
  if (wide && filetype != formatted) {
    EXPECT_FALSE(r.x.allocated());
  } else {
    ASSERT_TRUE(r.x.allocated());
    EXPECT_EQ(r.x(1, 9), g.x(1, 9));  // zone 2's nodes were read
  }
  EXPECT_EQ(r.npf(4), 0);  // zone 2's first face, a face without nodes
  EXPECT_EQ(r.ifcell(1, 4), 4);
  if (filetype != formatted) {
    EXPECT_EQ(r.npf(5), 3);  // the count was read before the file ended
  }
}

TEST_P(badgrid, AnEmptyFile) {
  const auto [filetype, wide] = GetParam();
  zt::writefile("bad.dat", "");
  zt::grid r;
  r.read("bad.dat", filetype, wide);
  expectreported("grid header", "end of file", filetype, 13);
  int ndim = 0, nzones = 0, ngridaux = 0;
  farray<int, 1> nptsz, ncellsz;
  io::close(13);
  zt::services().clear();
  readzelmgridheader("bad.dat", filetype, ndim, nzones, ngridaux, nptsz, ncellsz);
  expectreported("grid header", "end of file", filetype, 14);
}

// Garbage: whatever the bytes, a read ends normally or in a reported failure, never in a crash, a
// hang or a leak. Without a magic number some garbage is a valid grid file (a negative zone count,
// say), so only garbage behind a header that asks for more than follows must fail.
TEST_P(badgrid, GarbageBytes) {
  const auto [filetype, wide] = GetParam();
  std::mt19937 rng(12345);
  for (int trial = 0; trial < 60; ++trial) {
    std::string junk(static_cast<std::size_t>(rng() % 3000), '\0');
    for (char& c : junk) c = static_cast<char>(rng());
    if (trial % 3 == 1)  // digits, signs and blanks, which the formatted reader takes further
      for (char& c : junk) c = "0123456789 \n-"[rng() % 13];
    if (filetype != formatted) {
      // A zone count of up to 4095: larger ones only make the allocations bigger, which the
      // sanitizers' allocator maps slowly (huge counts have a test of their own).
      const std::size_t at = filetype == unformatted ? 8 : 4;
      if (junk.size() >= at + 4) {
        std::int32_t n;
        std::memcpy(&n, junk.data() + at, 4);
        n %= 4096;
        std::memcpy(junk.data() + at, &n, 4);
      }
    }
    const bool header = trial % 3 == 2;  // two zones of 200 nodes each, then garbage
    if (header) {
      std::string head;
      if (filetype == formatted) {
        head = " 3 2 0\n 200 5 1 4 6\n 200 5 1 4 6\n";
      } else {
        zt::bytes h, c;
        h.i4(3).i4(2).i4(0);
        c.i4(200).i4(5).i4(1).i4(4).i4(6).i4(200).i4(5).i4(1).i4(4).i4(6);
        head = filetype == unformatted ? zt::bytes().record(h).record(c).b : h.then(c).b;
      }
      junk = head + junk.substr(0, 1000);
    }
    zt::writefile("bad.dat", junk);
    zt::services().clear();
    zt::grid r;
    r.read("bad.dat", filetype, wide);
    if (header) {
      EXPECT_EQ(zt::services().readerrors, 1) << "trial " << trial;
    }
    if (zt::services().readerrors > 0) {
      EXPECT_NE(zt::services().lastdetail.find("\"bad.dat\" (" + std::string(encodingword(filetype))),
                std::string::npos)
          << zt::services().lastdetail;
    }
    io::close(13);
    zt::services().clear();
    int ndim = 0, nzones = 0, ngridaux = 0;
    farray<int, 1> nptsz, ncellsz;
    readzelmgridheader("bad.dat", filetype, ndim, nzones, ngridaux, nptsz, ncellsz);
    io::close(14);
  }
}

// A zone count of two thousand million in a file of a few bytes: the count arrays are allocated
// (or their allocation fails and is reported), and the read of the counts fails, in both readers.
TEST_P(badgrid, AHugeZoneCountInAShortFile) {
  const auto [filetype, wide] = GetParam();
  const std::int32_t huge = 2'000'000'000;
  if (filetype == formatted)
    zt::writefile("bad.dat", " 3 2000000000 0\n 4 3 1 3 5\n");
  else if (filetype == unformatted)
    zt::writefile("bad.dat",
                  zt::bytes().record(zt::bytes().i4(3).i4(huge).i4(0)).record(zt::bytes().i4(4)).b);
  else
    zt::writefile("bad.dat", zt::bytes().i4(3).i4(huge).i4(0).i4(4).b);
  zt::grid r;
  r.read("bad.dat", filetype, wide);
  EXPECT_EQ(r.nzones, huge);
  EXPECT_EQ(zt::services().readerrors, 1);
  EXPECT_NE(zt::services().lastdetail.find("\"bad.dat\" (" + std::string(encodingword(filetype))),
            std::string::npos)
      << zt::services().lastdetail;
  EXPECT_FALSE(r.x.allocated());
  r = zt::grid();  // release the counts before the next read
  io::close(13);
  zt::services().clear();
  int ndim = 0, nzones = 0, ngridaux = 0;
  farray<int, 1> nptsz, ncellsz;
  readzelmgridheader("bad.dat", filetype, ndim, nzones, ngridaux, nptsz, ncellsz);
  EXPECT_EQ(nzones, huge);
  EXPECT_EQ(zt::services().readerrors, 1);
}

INSTANTIATE_TEST_SUITE_P(encodings, badgrid,
                         ::testing::Values(badcase{unformatted, false}, badcase{unformatted, true},
                                           badcase{binary, false}, badcase{binary, true},
                                           badcase{formatted, false}),
                         badcasename);

static void readheader(const fortran::char40& name, int filetype) {
  int ndim = 0, nzones = 0, ngridaux = 0;
  farray<int, 1> nptsz, ncellsz;
  readzelmgridheader(name, filetype, ndim, nzones, ngridaux, nptsz, ncellsz);
}

class gridmisread : public zt::zelmtest {
 protected:
  void SetUp() override {
    zt::zelmtest::SetUp();
    io::setstdout(nullptr);
  }
};

// 8-byte coordinates read as 4-byte ones: each node record is read in part, so the coordinates are
// the halves of the doubles; the framed records keep every later record in place.
TEST_F(gridmisread, FramedEightByteCoordinatesReadAsFourByte) {
  const auto g = zt::refgrid(3);
  g.write("bad.dat", unformatted, 1);
  zt::grid r;
  r.read("bad.dat", unformatted, 0);
  EXPECT_EQ(zt::services().readerrors, 0) << zt::services().lastdetail;
  const double first = g.x(1, 1);
  float halves[2];
  std::memcpy(halves, &first, 8);
  EXPECT_EQ(std::memcmp(&r.x(1, 1), &halves[0], 4), 0);
  EXPECT_EQ(std::memcmp(&r.x(2, 1), &halves[1], 4), 0);
  EXPECT_NE(r.x(1, 1), g.x(1, 1));
  for (int f = 1; f <= g.npf.extent(1); ++f) {
    EXPECT_EQ(r.npf(f), g.npf(f));
    EXPECT_EQ(r.ifcell(2, f), g.ifcell(2, f));
  }
}

// 4-byte coordinates read as 8-byte ones: a node record is shorter than the read.
TEST_F(gridmisread, FramedFourByteCoordinatesReadAsEightByte) {
  zt::refgrid(3).write("bad.dat", unformatted, 0);
  zt::grid r;
  r.read("bad.dat", unformatted, 1);
  EXPECT_EQ(zt::services().readerrors, 1);
  EXPECT_EQ(
      zt::services().lastdetail,
      "\"bad.dat\" (unformatted, unit 13), record 3 (zone 1 node 1) at byte 88: the record holds fewer data "
      "than the statement reads (8 bytes read, 16 more wanted)");
  EXPECT_FALSE(r.x.allocated());
}

// Unframed, a wrong width shifts every later value: the reads go on until a value makes no sense
// or the file ends.
TEST_F(gridmisread, BinaryWithTheWrongPrecisionFlag) {
  for (const bool wrotewide : {false, true}) {
    zt::refgrid(3).write("bad.dat", binary, wrotewide);
    zt::services().clear();
    zt::grid r;
    r.read("bad.dat", binary, !wrotewide);
    EXPECT_EQ(zt::services().readerrors, 1) << wrotewide;
    EXPECT_NE(zt::services().lastdetail.find("\"bad.dat\" (binary, unit 13)"), std::string::npos)
        << zt::services().lastdetail;
    io::close(13);
  }
}

// A formatted file ignores the precision flag.
TEST_F(gridmisread, FormattedIgnoresThePrecisionFlag) {
  const auto g = zt::refgrid(1);
  g.write("g.txt", formatted, 1);
  zt::grid r4, r8;
  r4.read("g.txt", formatted, 0);
  r8.read("g.txt", formatted, 1);
  EXPECT_EQ(zt::services().readerrors, 0);
  EXPECT_EQ(zt::dump(r4, false), zt::dump(g, false));
  EXPECT_EQ(zt::dump(r8, false), zt::dump(g, false));
}

// Each encoding read as another.
TEST_F(gridmisread, WrongEncoding) {
  const auto g = zt::refgrid(2);
  const int codes[] = {unformatted, binary, formatted};
  for (int wrote : codes) {
    for (int read : codes) {
      if (wrote == read) continue;
      if (wrote == formatted)
        writelayout(g, "bad.dat", formatted, false);
      else
        g.write("bad.dat", wrote, 0);
      zt::services().clear();
      zt::grid r;
      r.read("bad.dat", read, 0);
      EXPECT_EQ(zt::services().readerrors, 1) << encodingword(wrote) << " read as " << encodingword(read);
      EXPECT_NE(
          zt::services().lastdetail.find("\"bad.dat\" (" + std::string(encodingword(read)) + ", unit 13)"),
          std::string::npos)
          << zt::services().lastdetail;
      io::close(13);
    }
  }
}

// A "binary" file read as "unformatted": its first value, 3, is taken for a record length.
TEST_F(gridmisread, BinaryReadAsFramedFailsAtTheHeader) {
  zt::refgrid(2).write("bad.dat", binary, 0);
  zt::grid r;
  r.read("bad.dat", unformatted, 0);
  EXPECT_EQ(zt::services().lastdetail,
            "\"bad.dat\" (unformatted, unit 13), record 1 (grid header) at byte 0: the record holds fewer "
            "data than "
            "the statement reads (0 bytes read, 4 more wanted)");
}

// A missing file ends the run at the open, with the I/O layer's message and exit status 2.
TEST_F(gridmisread, AMissingFileEndsTheRunWithStatusTwo) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        io::setfailurehandler(nullptr);
        io::setstophandler(nullptr);
        zt::grid r;
        r.read("nothere.dat", unformatted, 0);
      },
      ::testing::ExitedWithCode(2),
      "zelmgrid: I/O error: cannot open \"nothere\\.dat\" on unit 13 as unformatted \\(status \"old\"\\): No "
      "such "
      "file or directory");
  EXPECT_EXIT(
      {
        io::setfailurehandler(nullptr);
        readheader("nothere.dat", formatted);
      },
      ::testing::ExitedWithCode(2),
      "zelmgrid: I/O error: cannot open \"nothere\\.dat\" on unit 14 as formatted \\(status \"old\"\\): No "
      "such "
      "file or directory");
}
