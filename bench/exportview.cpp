// The viewer export at scale: writes a generated grid of about N cells with its pix and restart files,
// times building the cells and writing .vtu and Tecplot in this process, and leaves the built mesh
// as raw arrays for bench/exportview.py, which times meshio and VTK on the same mesh.
//
// usage: zelmbench_export DIR [CELLS]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>

#include "gridgen.hpp"
#include "zelmgrid/export.hpp"

namespace {

// Wall and processor seconds of a call (the machine may be shared: both tell).
struct timing {
  double wall, cpu;
};
template <class F>
timing seconds(F&& f) {
  const auto t = std::chrono::steady_clock::now();
  const std::clock_t c = std::clock();
  f();
  return {std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count(),
          static_cast<double>(std::clock() - c) / CLOCKS_PER_SEC};
}

template <class T>
void rawfile(const std::string& path, const T* p, std::size_t n) {
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(p), static_cast<std::streamsize>(n * sizeof(T)));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: zelmbench_export DIR [CELLS]\n");
    return 2;
  }
  const std::string dir = argv[1];
  const std::int64_t cells = argc > 2 ? std::atoll(argv[2]) : 1000000;
  std::filesystem::create_directories(dir);
  const int n = zelmgen::edgeforcells(cells);
  const auto gen = zelmgen::tetprism(n, n, n, n / 2);
  zelm::grid g;
  g.ndim = 3;
  g.zones.push_back({gen.nptsz(1), gen.nfacesz(1), gen.ncellsz(1), gen.mnpfz(1), gen.mfpcz(1)});
  g.x.allocate(3, gen.x.extent(2));
  for (fortran::index_t i = 0; i < gen.x.size(); ++i) g.x.data()[i] = gen.x.data()[i];
  g.npf.allocate(gen.npf.extent(1));
  g.ifnode.allocate(gen.ifnode.extent(1), gen.ifnode.extent(2));
  g.ifcell.allocate(2, gen.ifcell.extent(2));
  for (fortran::index_t i = 0; i < gen.npf.size(); ++i) g.npf.data()[i] = gen.npf.data()[i];
  for (fortran::index_t i = 0; i < gen.ifnode.size(); ++i) g.ifnode.data()[i] = gen.ifnode.data()[i];
  for (fortran::index_t i = 0; i < gen.ifcell.size(); ++i) g.ifcell.data()[i] = gen.ifcell.data()[i];
  zelm::pix p;
  p.text = "bench";
  p.labels = {"speed"};
  const auto pv = zelmgen::nodesolution(gen, 1);
  p.values.allocate(pv.extent(1), pv.extent(2));
  for (fortran::index_t i = 0; i < pv.size(); ++i) p.values.data()[i] = pv.data()[i];
  zelm::restart r;
  const auto qv = zelmgen::cellsolution(gen, 5);
  r.q.allocate(qv.extent(1), qv.extent(2));
  for (fortran::index_t i = 0; i < qv.size(); ++i) r.q.data()[i] = qv.data()[i];
  zelm::writegrid(dir + "/grid.unf", {}, g);
  zelm::writepix(dir + "/pix.unf", {}, p, g.nodesperzone());
  zelm::writerestart(dir + "/restart.unf", {}, r, g.cellsperzone());

  zelm::mesh m;
  const timing build = seconds([&] { m = zelm::buildmesh(g); });
  zelm::exportdata d;
  d.g = &g, d.p = &p, d.r = &r;
  const timing vtu =
      seconds([&] { zelm::writevtu(dir + "/zelm.vtu", m, m.zones[0], d, zelm::vtuencoding::raw); });
  const timing tec = seconds([&] { zelm::writetecplot(dir + "/zelm.dat", m, d); });
  std::printf("cells %zu points %zu\n", m.zones[0].types.size(), m.zones[0].nodes.size());
  for (const auto& [name, t] : {std::pair{"build", build}, {"writevtu", vtu}, {"writetecplot", tec}})
    std::printf("RESULT %s %.3f wall %.3f cpu\n", name, t.wall, t.cpu);
  // The built mesh for meshio: points, cells by type, node and cell values, all as 4-byte reals.
  const auto& pc = m.zones[0];
  std::vector<float> xyz, pd, cd;
  for (auto v : pc.nodes)
    for (int c = 0; c < 3; ++c) xyz.push_back(static_cast<float>(g.x.data()[v * 3 + c]));
  for (fortran::index_t k = 0; k < p.values.extent(1); ++k)
    for (auto v : pc.nodes) pd.push_back(static_cast<float>(p.values.data()[v * p.values.extent(1) + k]));
  for (fortran::index_t k = 0; k < r.q.extent(1); ++k)
    for (auto c : pc.cells) cd.push_back(static_cast<float>(r.q.data()[c * r.q.extent(1) + k]));
  rawfile(dir + "/points.f32", xyz.data(), xyz.size());
  rawfile(dir + "/pointdata.f32", pd.data(), pd.size());
  rawfile(dir + "/celldata.f32", cd.data(), cd.size());
  rawfile(dir + "/connectivity.i64", pc.connectivity.data(), pc.connectivity.size());
  rawfile(dir + "/offsets.i64", pc.offsets.data(), pc.offsets.size());
  rawfile(dir + "/types.u8", pc.types.data(), pc.types.size());
  return 0;
}
