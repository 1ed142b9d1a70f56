// Writes the seed corpus of one fuzz target: makeseeds TARGET DIR.
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "fuzzentries.hpp"
#include "seeds.hpp"

int main(int argc, char** argv) {
  if (argc != 3 || zelmfuzz::findentry(argv[1]) == nullptr) {
    std::fprintf(stderr, "usage: makeseeds gridheader|grid|restart|pix|listdirected DIR\n");
    return 2;
  }
  std::filesystem::create_directories(argv[2]);
  int n = 0;
  for (const auto& [name, input] : zelmfuzz::seeds(argv[1])) {
    std::ofstream out(std::filesystem::path(argv[2]) / name, std::ios::binary | std::ios::trunc);
    out.write(input.data(), static_cast<std::streamsize>(input.size()));
    ++n;
  }
  std::printf("%d seeds for %s in %s\n", n, argv[1], argv[2]);
  return 0;
}
