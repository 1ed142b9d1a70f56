// The typed, zone-exact file interface.
#include "gridgen.hpp"
#include "testsupport.hpp"
#include "zelmgrid/files.hpp"

using zelm::encoding;
using zelm::format;

namespace {

class typedfiles : public zt::zelmtest, public ::testing::WithParamInterface<format> {};
class typedfile : public zt::zelmtest {};

// A generated grid as the typed interface holds it.
zelm::grid typedgrid(int zones) {
  const auto g = zelmgen::tetprism(2, 2, 2, 1, zones);
  zelm::grid t;
  t.ndim = g.ndim;
  t.aux = 7;
  for (int k = 1; k <= g.nzones; ++k)
    t.zones.push_back({g.nptsz(k), g.nfacesz(k), g.ncellsz(k), g.mnpfz(k), g.mfpcz(k)});
  t.x.allocate(g.ndim, g.x.extent(2));
  for (fortran::index_t i = 0; i < g.x.size(); ++i)
    t.x.data()[i] = g.x.data()[i] + 1e-9 * static_cast<double>(i);  // not a float
  t.npf.allocate(g.npf.extent(1));
  t.ifnode.allocate(g.ifnode.extent(1), g.ifnode.extent(2));
  t.ifcell.allocate(2, g.ifcell.extent(2));
  for (fortran::index_t f = 1; f <= g.npf.extent(1); ++f) {
    t.npf(f) = g.npf(f);
    for (int s = 1; s <= g.ifnode.extent(1); ++s) t.ifnode(s, f) = g.ifnode(s, f);
    t.ifcell(1, f) = g.ifcell(1, f);
    t.ifcell(2, f) = g.ifcell(2, f);
  }
  return t;
}

double expected(double v, format f) {
  return f.dblprec ? v : static_cast<double>(static_cast<float>(v));
}

}  // namespace

TEST_P(typedfiles, GridRoundTripKeepsEveryZone) {
  const format f = GetParam();
  const auto g = typedgrid(3);
  zelm::writegrid("g.dat", f, g);
  const auto r = zelm::readgrid("g.dat", f);
  ASSERT_EQ(r.zones.size(), 3u);
  EXPECT_EQ(r.aux, 7);
  EXPECT_EQ(r.zones[2].cells, g.zones[2].cells);
  ASSERT_EQ(r.x.size(), g.x.size());
  for (fortran::index_t i = 0; i < g.x.size(); ++i) EXPECT_EQ(r.x.data()[i], expected(g.x.data()[i], f)) << i;
  for (fortran::index_t fc = 1; fc <= g.npf.extent(1); ++fc) {
    ASSERT_EQ(r.npf(fc), g.npf(fc));
    for (int s = 1; s <= g.npf(fc); ++s) EXPECT_EQ(r.ifnode(s, fc), g.ifnode(s, fc));
    EXPECT_EQ(r.ifcell(2, fc), g.ifcell(2, fc));
  }
}

TEST_P(typedfiles, RestartZonesKeepTheirPlaces) {
  const format f = GetParam();
  const std::vector<int> cells = {3, 5, 2};
  zelm::restart r;
  r.dtime = 0.1, r.lastcyc = 12, r.rstype = 3, r.dgamma = 1.4, r.drgas = 287.05, r.dr0 = 1.2, r.drm0 = 0.3,
  r.dp0 = 1e5;
  r.q.allocate(4, 10);
  for (int v = 1; v <= 4; ++v)
    for (int c = 1; c <= 10; ++c) r.q(v, c) = v * 100 + c + 1.0 / 3;
  zelm::writerestart("r.dat", f, r, cells);
  const auto b = zelm::readrestart("r.dat", f, cells, 4);
  EXPECT_EQ(b.lastcyc, 12);
  EXPECT_EQ(b.rstype, 3);
  EXPECT_EQ(b.dgamma, expected(1.4, f.enc == encoding::formatted ? format{f.enc, true} : f));
  for (int v = 1; v <= 4; ++v)
    for (int c = 1; c <= 10; ++c) EXPECT_EQ(b.q(v, c), expected(r.q(v, c), f)) << v << " " << c;
}

TEST_P(typedfiles, PixWithAndWithoutFreeVariables) {
  const format f = GetParam();
  const std::vector<int> nodes = {4, 2};
  for (int nfree : {0, 2}) {
    zelm::pix p;
    p.dvar = 2.5, p.dgamma = 1.4, p.text = "run 7";
    for (int k = 1; k <= nfree; ++k) p.labels.push_back("label " + std::to_string(k));
    p.values.allocate(6 + nfree, 6);
    for (int v = 1; v <= 6 + nfree; ++v)
      for (int n = 1; n <= 6; ++n) p.values(v, n) = v + n / 7.0;
    zelm::writepix("p.dat", f, p, nodes);
    const auto b = zelm::readpix("p.dat", f, nodes);
    EXPECT_EQ(b.text, "run 7" + std::string(20, ' '));
    ASSERT_EQ(b.labels.size(), static_cast<std::size_t>(nfree));
    if (nfree > 0) {
      EXPECT_EQ(b.labels[1], "label 2" + std::string(18, ' '));
    }
    ASSERT_EQ(b.values.extent(1), 6 + nfree);
    for (int v = 1; v <= 6 + nfree; ++v)
      for (int n = 1; n <= 6; ++n) EXPECT_EQ(b.values(v, n), expected(p.values(v, n), f));
  }
}

INSTANTIATE_TEST_SUITE_P(formats, typedfiles,
                         ::testing::Values(format{encoding::unformatted, false},
                                           format{encoding::unformatted, true},
                                           format{encoding::binary, false}, format{encoding::binary, true},
                                           format{encoding::formatted, false},
                                           format{encoding::formatted, true}));

TEST_F(typedfile, TypedReadOfATruncatedGridThrowsWithTheRecord) {
  zelm::writegrid("g.dat", {encoding::unformatted, false}, typedgrid(1));
  const auto b = zt::readfile("g.dat");
  zt::writefile("g.dat", b.substr(0, b.size() - 30));
  try {
    zelm::readgrid("g.dat", {encoding::unformatted, false});
    FAIL() << "no error";
  } catch (const zelm::error& e) {
    EXPECT_NE(std::string(e.what()).find("face"), std::string::npos) << e.what();
    EXPECT_NE(std::string(e.what()).find("g.dat"), std::string::npos) << e.what();
  }
}

TEST_F(typedfile, TypedReadWithTheWrongPrecisionThrows) {
  zelm::writegrid("g.dat", {encoding::binary, true}, typedgrid(1));
  EXPECT_THROW(zelm::readgrid("g.dat", {encoding::binary, false}), zelm::error);
  EXPECT_THROW(zelm::readgrid("missing.dat", {encoding::binary, false}), mod_zelmgrid::io::ioerror);
}

TEST_F(typedfile, TypedInterfaceLeavesTheUnitTableAlone) {
  zelm::writegrid("g.dat", {encoding::unformatted, false}, typedgrid(1));
  zelm::readgrid("g.dat", {encoding::unformatted, false});
  for (int n : {4, 13, 14, 15, 16}) EXPECT_FALSE(mod_zelmgrid::io::isconnected(n));
}
