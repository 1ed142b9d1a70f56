// Reads a grid file through zelmgrid's typed interface and prints its counts.
#include <cstdio>
#include <exception>

#include "zelmgrid/files.hpp"
#include "zelmgrid/mod_zelmgrid.hpp"  // every public header compiles in a host program

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: gridcounts GRIDFILE (unformatted, 4-byte reals)\n");
    return 2;
  }
  try {
    const zelm::grid g = zelm::readgrid(argv[1], zelm::format{});
    std::printf("%d dimensions, %zu zones, %lld nodes, %lld faces, %lld cells\n", g.ndim, g.zones.size(),
                static_cast<long long>(g.totalnodes()), static_cast<long long>(g.totalfaces()),
                static_cast<long long>(g.totalcells()));
  } catch (const std::exception& e) {
    std::fprintf(stderr, "gridcounts: %s\n", e.what());
    return 1;
  }
  return 0;
}
