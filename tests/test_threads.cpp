// The typed interface from many threads at once: every call owns its unit, buffer and error text,
// so that threads reading and writing different files get exactly what one thread gets.
#include <array>
#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "testsupport.hpp"
#include "zelmgrid/files.hpp"

using zelm::encoding;
using zelm::format;

namespace {

const std::array<format, 6> formats = {{{encoding::unformatted, false},
                                        {encoding::unformatted, true},
                                        {encoding::binary, false},
                                        {encoding::binary, true},
                                        {encoding::formatted, false},
                                        {encoding::formatted, true}}};

zelm::grid makegrid(int seed) {
  zelm::grid g;
  g.ndim = 2;
  g.aux = seed;
  g.zones = {{4 + seed % 3, 3, 2, 2, 3}, {5, 2, 1, 2, 3}};
  const auto nodes = g.totalnodes(), faces = g.totalfaces();
  g.x.allocate(2, nodes);
  for (fortran::index_t i = 0; i < g.x.size(); ++i) g.x.data()[i] = seed + 0.125 * static_cast<double>(i);
  g.npf.allocate(faces);
  g.ifnode.allocate(2, faces);
  g.ifcell.allocate(2, faces);
  for (fortran::index_t f = 1; f <= faces; ++f) {
    g.npf(f) = 2;
    g.ifnode(1, f) = static_cast<int>(f);
    g.ifnode(2, f) = static_cast<int>(f + 1);
    g.ifcell(1, f) = seed;
    g.ifcell(2, f) = -1;
  }
  return g;
}

// One job: write a grid, restart and pix file in one format, read them back, and read a damaged
// copy; the result is a text holding every value read and every error message.
std::string job(const std::string& dir, int seed, format f) {
  std::string out;
  const std::string stem =
      dir + "/" + std::to_string(seed) + "-" + zelm::encodingname(f.enc) + (f.dblprec ? "8" : "4");
  const auto g = makegrid(seed);
  zelm::writegrid(stem + ".grid", f, g);
  zelm::restart r;
  r.dtime = seed;
  r.q.allocate(2, g.totalcells());
  for (fortran::index_t i = 0; i < r.q.size(); ++i) r.q.data()[i] = 0.5 * static_cast<double>(i + seed);
  zelm::writerestart(stem + ".rst", f, r, g.cellsperzone());
  zelm::pix p;
  p.text = "pix " + std::to_string(seed);
  p.labels = {"free"};
  p.values.allocate(7, g.totalnodes());
  for (fortran::index_t i = 0; i < p.values.size(); ++i) p.values.data()[i] = 0.25 * static_cast<double>(i);
  zelm::writepix(stem + ".pix", f, p, g.nodesperzone());

  const auto gb = zelm::readgrid(stem + ".grid", f);
  for (fortran::index_t i = 0; i < gb.x.size(); ++i) out += std::to_string(gb.x.data()[i]) + " ";
  const auto rb = zelm::readrestart(stem + ".rst", f, gb.cellsperzone(), 2);
  for (fortran::index_t i = 0; i < rb.q.size(); ++i) out += std::to_string(rb.q.data()[i]) + " ";
  const auto pb = zelm::readpix(stem + ".pix", f, gb.nodesperzone());
  out += pb.text + pb.labels.at(0);
  // Damaged: each file cut short, and a missing one.
  for (const char* kind : {".grid", ".rst", ".pix"}) {
    const std::string whole = zt::readfile(stem + kind);
    zt::writefile(stem + kind + ".cut", whole.substr(0, whole.size() * 2 / 3));
    try {
      if (kind[1] == 'g') zelm::readgrid(stem + kind + ".cut", f);
      if (kind[1] == 'r') zelm::readrestart(stem + kind + ".cut", f, gb.cellsperzone(), 2);
      if (kind[1] == 'p') zelm::readpix(stem + kind + ".cut", f, gb.nodesperzone());
      out += "|no error";
    } catch (const zelm::error& e) {
      out += std::string("|") + e.what();
    }
  }
  try {
    zelm::readgrid(stem + ".missing", f);
  } catch (const zelm::error& e) {
    out += std::string("|") + e.what();
  }
  return out;
}

class threads : public zt::zelmtest {};

TEST_F(threads, EightThreadsGetWhatOneThreadGets) {
  constexpr int nthreads = 8;
  const int rounds = std::getenv("ZELM_THREAD_ROUNDS") ? std::atoi(std::getenv("ZELM_THREAD_ROUNDS")) : 2;
  std::filesystem::create_directory("one");
  std::filesystem::create_directory("many");
  // Every (seed, format) job once on this thread: the expected results.
  std::vector<std::string> expected;
  for (int t = 0; t < nthreads; ++t)
    for (const auto& f : formats) expected.push_back(job("one", t, f));
  std::atomic<int> wrong{0}, calls{0};
  std::vector<std::thread> pool;
  for (int t = 0; t < nthreads; ++t)
    pool.emplace_back([&, t] {
      for (int round = 0; round < rounds; ++round)
        for (std::size_t i = 0; i < formats.size(); ++i) {
          // Each thread's files are its own; the names differ in the folder only.
          std::string got = job("many", t, formats[i]);
          std::string want = expected[static_cast<std::size_t>(t) * formats.size() + i];
          for (auto* s : {&got, &want}) {
            for (std::size_t at; (at = s->find("many/")) != std::string::npos;) s->replace(at, 5, "X/");
            for (std::size_t at; (at = s->find("one/")) != std::string::npos;) s->replace(at, 4, "X/");
          }
          ++calls;
          if (got != want) ++wrong;
        }
    });
  for (auto& th : pool) th.join();
  std::printf("%d jobs of 11 typed calls each on %d threads: %d wrong\n", calls.load(), nthreads,
              wrong.load());
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(calls.load(), nthreads * rounds * static_cast<int>(formats.size()));
}

}  // namespace
