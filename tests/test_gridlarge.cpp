// Grid files larger than a file buffer: records that cross the buffer's end, and irregular records
// in the middle of the file (a framed record longer than its items, a node count beyond the width
// of ifnode, a file cut short), which the reader must treat as it treats them in a small file.
#include "gridfixtures.hpp"
#include "gridgen.hpp"

namespace io = mod_zelmgrid::io;
using namespace mod_zelmgrid;
using fortran::farray;
using fortran::index_t;

namespace {

struct encodingcase {
  int filetype;
  logical dblprec;
};

class largegrid : public zt::zelmtest, public ::testing::WithParamInterface<encodingcase> {};
class largegridfiles : public zt::zelmtest {};

// Two zones of tetrahedra and prisms: faces of three and of four nodes, about 4 MB unformatted.
zt::grid sample() {
  const zelmgen::grid z = zelmgen::tetprism(20, 20, 20, 10, 2);
  zt::grid g;
  g.ndim = z.ndim;
  g.nzones = z.nzones;
  g.ngridaux = 5;
  auto copy1 = [](const farray<int, 1>& a, farray<int, 1>& b) {
    b.allocate(a.extent(1));
    for (index_t i = 1; i <= a.extent(1); ++i) b(i) = a(i);
  };
  copy1(z.nptsz, g.nptsz), copy1(z.nfacesz, g.nfacesz), copy1(z.ncellsz, g.ncellsz), copy1(z.mnpfz, g.mnpfz),
      copy1(z.mfpcz, g.mfpcz), copy1(z.npf, g.npf);
  g.x.allocate(z.x.extent(1), z.x.extent(2));
  for (index_t i = 0; i < z.x.size(); ++i) g.x.data()[i] = z.x.data()[i] * 1.0001f;
  g.ifnode.allocate(z.ifnode.extent(1), z.ifnode.extent(2));
  g.ifcell.allocate(2, z.ifcell.extent(2));
  for (index_t i = 0; i < z.ifnode.size(); ++i) g.ifnode.data()[i] = z.ifnode.data()[i];
  for (index_t i = 0; i < z.ifcell.size(); ++i) g.ifcell.data()[i] = z.ifcell.data()[i];
  return g;
}

index_t totalnodes(const zt::grid& g) {
  return g.x.extent(2);
}

void expectsame(const zt::grid& a, const zt::grid& b) {
  ASSERT_EQ(a.nzones, b.nzones);
  ASSERT_EQ(a.x.size(), b.x.size());
  index_t differ = 0;
  for (index_t i = 0; i < a.x.size(); ++i) differ += a.x.data()[i] != b.x.data()[i];
  EXPECT_EQ(differ, 0) << "coordinates that differ";
  ASSERT_EQ(a.npf.extent(1), b.npf.extent(1));
  differ = 0;
  for (index_t f = 1; f <= a.npf.extent(1); ++f) {
    differ += a.npf(f) != b.npf(f) || a.ifcell(1, f) != b.ifcell(1, f) || a.ifcell(2, f) != b.ifcell(2, f);
    for (int i = 1; i <= a.npf(f); ++i) differ += a.ifnode(i, f) != b.ifnode(i, f);
  }
  EXPECT_EQ(differ, 0) << "faces that differ";
}

// The byte offset of each record of a framed file (a record of several sub-records counts once).
std::vector<std::size_t> recordstarts(const std::string& file) {
  std::vector<std::size_t> at;
  for (std::size_t p = 0; p + 4 <= file.size();) {
    at.push_back(p);
    for (;;) {  // its sub-records: every leading length but the last is negative
      std::int32_t lead;
      std::memcpy(&lead, file.data() + p, 4);
      p += 8 + static_cast<std::size_t>(lead < 0 ? -static_cast<std::int64_t>(lead) : lead);
      if (lead >= 0 || p + 4 > file.size()) break;
    }
  }
  return at;
}

}  // namespace

TEST_P(largegrid, RoundTripsAcrossManyBufferFills) {
  const auto [filetype, dblprec] = GetParam();
  const zt::grid g = sample();
  g.write("g.dat", filetype, dblprec);
  ASSERT_GT(std::filesystem::file_size("g.dat"), std::uintmax_t{3} << 20);
  zt::grid r;
  r.read("g.dat", filetype, dblprec);
  EXPECT_EQ(zt::services().readerrors, 0) << zt::services().lastdetail;
  expectsame(g, r);
}

TEST_P(largegrid, WithoutConnectivityReadsTheFirstZonesNodes) {
  const auto [filetype, dblprec] = GetParam();
  const zt::grid g = sample();
  g.write("g.dat", filetype, dblprec);
  zt::grid r;
  r.read("g.dat", filetype, dblprec, 0);
  EXPECT_EQ(zt::services().readerrors, 0) << zt::services().lastdetail;
  ASSERT_EQ(r.x.extent(2), totalnodes(g));
  for (index_t n = 1; n <= g.nptsz(1); ++n)
    for (int d = 1; d <= 3; ++d) ASSERT_EQ(r.x(d, n), g.x(d, n)) << n;
}

// Formatted files of several zones do not read back by design (the zone counts): unformatted and
// binary only.
INSTANTIATE_TEST_SUITE_P(encodings, largegrid,
                         ::testing::Values(encodingcase{unformatted, 0}, encodingcase{unformatted, 1},
                                           encodingcase{binary, 0}, encodingcase{binary, 1}));

TEST_F(largegridfiles, FramedRecordLongerThanItsItemsInTheMiddleIsReadAndItsRestSkipped) {
  const zt::grid g = sample();
  g.write("g.dat", unformatted, 0);
  std::string file = zt::readfile("g.dat");
  const auto at = recordstarts(file);
  // Face 5000 of zone 1: its record gets four more bytes, which the statement leaves unread.
  const std::size_t k = 2 + static_cast<std::size_t>(g.nptsz(1)) + 4999;
  ASSERT_LT(k + 1, at.size());
  std::int32_t len;
  std::memcpy(&len, file.data() + at[k], 4);
  std::string longer = file.substr(at[k], 4 + static_cast<std::size_t>(len));
  const std::int32_t pad = 12345, newlen = len + 4;
  std::memcpy(longer.data(), &newlen, 4);
  longer.append(reinterpret_cast<const char*>(&pad), 4);
  longer.append(reinterpret_cast<const char*>(&newlen), 4);
  file = file.substr(0, at[k]) + longer + file.substr(at[k + 1]);
  zt::writefile("g.dat", file);

  zt::grid r;
  r.read("g.dat", unformatted, 0);
  EXPECT_EQ(zt::services().readerrors, 0) << zt::services().lastdetail;
  expectsame(g, r);
}

TEST_F(largegridfiles, NodeCountBeyondIfnodeInTheMiddleFailsAtItsFaceAndRecord) {
  for (int filetype : {unformatted, binary}) {
    SCOPED_TRACE(filetype);
    zt::services().clear();
    const zt::grid g = sample();
    g.write("g.dat", filetype, 0);
    std::string file = zt::readfile("g.dat");
    // Face 7000 of zone 1 claims one node more than ifnode holds.
    const index_t face = 7000;
    std::size_t off = 0;
    if (filetype == unformatted) {
      off = recordstarts(file)[static_cast<std::size_t>(2 + g.nptsz(1) + face - 1)] + 4;
    } else {
      off = 12 + 20 * static_cast<std::size_t>(g.nzones) + 12 * static_cast<std::size_t>(g.nptsz(1));
      for (index_t f = 1; f < face; ++f) off += 4 * static_cast<std::size_t>(g.npf(f) + 3);
    }
    const auto too = static_cast<std::int32_t>(g.ifnode.extent(1) + 1);
    std::memcpy(file.data() + off, &too, 4);
    zt::writefile("g.dat", file);

    zt::grid r;
    r.read("g.dat", filetype, 0);
    EXPECT_EQ(zt::services().readerrors, 1);
    const std::string record = "record " + std::to_string(2 + g.nptsz(1) + face);
    EXPECT_NE(zt::services().lastdetail.find("zone 1 face 7000"), std::string::npos)
        << zt::services().lastdetail;
    EXPECT_NE(zt::services().lastdetail.find(record), std::string::npos) << zt::services().lastdetail;
    // The faces before it are all in place.
    for (index_t f = 1; f < face; ++f) {
      ASSERT_EQ(r.npf(f), g.npf(f)) << f;
      ASSERT_EQ(r.ifcell(2, f), g.ifcell(2, f)) << f;
    }
    io::close(13);
  }
}

TEST_F(largegridfiles, FileCutInsideAFaceFailsAtThatFace) {
  for (int filetype : {unformatted, binary}) {
    SCOPED_TRACE(filetype);
    zt::services().clear();
    const zt::grid g = sample();
    g.write("g.dat", filetype, 0);
    std::string file = zt::readfile("g.dat");
    const index_t face = 9000;  // the file ends two bytes into this face's record
    std::size_t off = 0;
    if (filetype == unformatted) {
      off = recordstarts(file)[static_cast<std::size_t>(2 + g.nptsz(1) + face - 1)];
    } else {
      off = 12 + 20 * static_cast<std::size_t>(g.nzones) + 12 * static_cast<std::size_t>(g.nptsz(1));
      for (index_t f = 1; f < face; ++f) off += 4 * static_cast<std::size_t>(g.npf(f) + 3);
    }
    zt::writefile("g.dat", file.substr(0, off + 2));
    zt::grid r;
    r.read("g.dat", filetype, 0);
    EXPECT_EQ(zt::services().readerrors, 1);
    EXPECT_NE(zt::services().lastdetail.find("zone 1 face 9000"), std::string::npos)
        << zt::services().lastdetail;
    for (index_t f = 1; f < face; ++f) ASSERT_EQ(r.ifcell(1, f), g.ifcell(1, f)) << f;
    io::close(13);
  }
}

TEST_F(largegridfiles, ShortSubrecordsWrittenAndReadAcrossBufferFills) {
  // Face records are longer than the largest sub-record (they are split), node records are not.
  io::setmaxsubrecord(14);
  const zt::grid g = sample();
  g.write("g.dat", unformatted, 0);
  zt::grid r;
  r.read("g.dat", unformatted, 0);
  io::setmaxsubrecord(0);
  EXPECT_EQ(zt::services().readerrors, 0) << zt::services().lastdetail;
  expectsame(g, r);
  // The first face record is split into sub-records of 14 bytes at most.
  const std::string file = zt::readfile("g.dat");
  const std::size_t first = recordstarts(file)[static_cast<std::size_t>(2 + g.nptsz(1))];
  std::int32_t lead;
  std::memcpy(&lead, file.data() + first, 4);
  EXPECT_EQ(lead, -14);
}
