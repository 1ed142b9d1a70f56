#include "measure.hpp"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "baselines.hpp"

namespace zelmbench {

const char* encname(int enc) {
  return enc == 0 ? "unformatted" : enc == 2 ? "binary" : "formatted";
}
std::string suffix(int enc, int dbl) {
  return std::string(enc == 0 ? "u" : enc == 2 ? "b" : "f") + (enc == 1 ? "" : dbl ? "8" : "4");
}

fortran::char40 name40(const std::string& s) {
  if (s.size() > 40) die("file name longer than 40 characters: " + s);
  return fortran::char40(s);
}

void setheader() {
  zm::dtime = 0.125;
  zm::lastcyc = 4000;
  zm::rstype = 3;
  zm::dgamma = 1.375;
  zm::drgas = 287.0;
  zm::dr0 = 1.25;
  zm::drm0 = 0.5;
  zm::dp0 = 101325.0;
  zm::dvar = 0.75;
  zm::string = fortran::char25("zelmbench pix file");
  zm::nfree = nfreevars;
  for (int k = 1; k <= 20; ++k)
    zm::strfree(k) = fortran::char25(k <= nfreevars ? "free variable " + std::to_string(6 + k) : "");
  mod_gridvars::numrstrtvar = nvar;
  mod_gridvars::npixvar = 6 + nfreevars;
}

void prefaultinputs(const data& d) {
  const auto& g = d.g;
  prefault(g.x), prefault(g.npf), prefault(g.ifnode), prefault(g.ifcell);
  for (const auto* a : {&g.nptsz, &g.nfacesz, &g.ncellsz, &g.mnpfz, &g.mfpcz}) prefault(*a);
  prefault(d.q), prefault(d.pix), prefault(d.x8), prefault(d.qnode);
}

sample bench::ours(const measurement& m, int reps, bool huge) {
  return inchild([&] {
    fortran::hugepages = huge;
    zm::resetstate();
    // Writers write the benchmark's header values; readers start from zero, as the Fortran
    // path's module variables do.
    setheader();
    if (m.reader) {
      zm::resetstate();
      mod_gridvars::npixvar = 0;
    }
    mod_gridvars::readerrordetail.clear();
    if (!m.reader) prefaultinputs(d);
    if (m.setup) m.setup();
    sample s;
    s.basekb = resetpeak();
    tmark = {};
    const std::int64_t f0 = faultsnow();
    const double w0 = wallnow(), c0 = cpunow();
    for (int k = 0; k < reps; ++k) s.checksum = m.call(k == reps - 1);
    double w1 = wallnow(), c1 = cpunow();
    std::int64_t f1 = faultsnow();
    s.peakkb = statuskb("VmHWM:");
    if (tmark.set) {
      w1 = tmark.wall;
      c1 = tmark.cpu;
      f1 = tmark.faults;
      s.peakkb = tmark.peakkb;
    }
    s.faults = (f1 - f0) / reps;
    s.wall = (w1 - w0) / reps;
    s.cpu = (c1 - c0) / reps;
    s.ok = mod_gridvars::readerrordetail.empty() ? 1 : 0;
    if (!s.ok)
      std::fprintf(stderr, "zelmbench: %s: %s\n", m.name.c_str(), mod_gridvars::readerrordetail.c_str());
    return s;
  });
}

row& bench::addrow(const measurement& m, const std::string& impl, int reps) {
  row r;
  r.name = m.name;
  r.impl = impl;
  r.enc = m.enc < 0 ? "-" : encname(m.enc);
  r.prec = m.enc == 1 || m.enc < 0 ? 0 : (m.dbl ? 8 : 4);
  r.records = m.records;
  r.musthold = m.musthold;
  r.reps = reps;
  r.note = m.note;
  rows.push_back(r);
  return rows.back();
}

void bench::skip(const measurement& m, const std::string& why) {
  if (!d.opt.only.empty() && m.name.find(d.opt.only) == std::string::npos) return;
  row& r = addrow(m, "zelmgrid", 0);
  r.note = why;
  std::printf("%-40s n/a\n", (m.name + " " + suffix(m.enc, m.dbl)).c_str());
}

void bench::run(const measurement& m) {
  if (!d.opt.only.empty() && m.name.find(d.opt.only) == std::string::npos) return;
  const std::string label = m.name + " " + (m.enc < 0 ? "" : suffix(m.enc, m.dbl));
  std::printf("%-40s", label.c_str());
  std::fflush(stdout);
  // Calls short enough to drown in the clock's and the process's noise are repeated.
  // The probe makes ten calls, so that the first call's one-time costs in a new process do not
  // decide the count alone.
  int reps = 1;
  if (d.opt.mintime > 0 && m.repeatable) {
    const sample probe = ours(m, 10, true);
    if (probe.ok && probe.wall > 0 && 10 * probe.wall < d.opt.mintime)
      reps = static_cast<int>(std::min(100000.0, std::ceil(d.opt.mintime / probe.wall)));
  }
  if (d.opt.inprocess) {
    std::vector<double> w;
    for (int r = 0; r < d.opt.runs; ++r) w.push_back(ours(m, reps, true).wall);
    std::printf(" %12.6f s\n", median(w));
    return;
  }
  const bool fortran = !d.opt.fortran.empty() && !m.fop.empty();
  const bool raw = m.enc == 0 || m.enc == 2;
  const std::size_t base = rows.size();
  const std::size_t io = base, i4k = base + 1;
  addrow(m, "zelmgrid", reps);
  if (m.reader) addrow(m, "zelmgrid-4k", reps);
  const std::size_t ifo = rows.size();
  if (fortran) addrow(m, "fortran", reps);
  const std::size_t ifl = rows.size();
  if (m.reader) {
    addrow(m, "floor", 1);
    addrow(m, "floor-4k", 1);
  } else if (!raw) {
    if (m.tochars) addrow(m, "tochars", 1);
  } else {
    addrow(m, "write2", 1);
  }
  const std::string keep = m.file + ".zelmgrid";
  for (int r = 0; r < std::max(d.opt.runs, fortran ? d.opt.fruns : 0); ++r) {
    if (m.reader) warmfile(m.file);
    if (r < d.opt.runs) {
      if (!m.reader) ::unlink(m.file.c_str());
      rows[io].samples.push_back(ours(m, reps, true));
      rows[io].bytes = filesize(m.file);
      // The library's output is kept for comparison with the Fortran path's.
      if (!m.reader && fortran && r == 0) ::rename(m.file.c_str(), keep.c_str());
      if (m.reader) {
        rows[i4k].samples.push_back(ours(m, reps, false));
        rows[i4k].bytes = filesize(m.file);
      }
    }
    if (fortran && r < d.opt.fruns) {
      rows[ifo].samples.push_back(fortranpath(d, m, reps));
      rows[ifo].bytes = filesize(m.file);
      if (!m.reader && r == 0) {
        // The same records: the two files agree byte for byte in the unformatted and binary
        // encodings, and token for token (numbers to their printed precision) in text.
        rows[ifo].note = raw ? samebytes(m.file, keep) : sametokens(m.file, keep);
        ::unlink(keep.c_str());
      }
    }
    if (r < d.opt.runs) {
      if (m.reader) {
        rows[ifl].samples.push_back(readfloor(m, true));
        rows[ifl].bytes = filesize(m.file);
        rows[ifl + 1].samples.push_back(readfloor(m, false));
        rows[ifl + 1].bytes = filesize(m.file);
      } else if (!raw) {
        if (m.tochars) rows[ifl].samples.push_back(tocharsfloor(d, m));
      } else {
        rows[ifl].samples.push_back(writefloor(m, rows[io].bytes));
        rows[ifl].bytes = rows[io].bytes;
      }
    }
  }
  // Agreement of what the library and the Fortran path read.
  if (fortran && m.reader) {
    row& o = rows[io];
    row& f = rows[ifo];
    bool agree = !o.samples.empty() && !f.samples.empty();
    for (const auto& s : o.samples) agree = agree && s.ok && s.checksum == o.samples.front().checksum;
    for (const auto& s : f.samples) agree = agree && s.ok && s.checksum == o.samples.front().checksum;
    f.note = agree ? "same values read" : "VALUES DIFFER from the library's";
  }
  std::vector<double> w;
  for (const auto& s : rows[io].samples) w.push_back(s.wall);
  std::vector<double> c;
  for (const auto& s : rows[io].samples) c.push_back(s.cpu);
  std::vector<double> fl;
  for (const auto& s : rows[io].samples) fl.push_back(static_cast<double>(s.faults));
  std::printf(" %11.6f s (cpu %.6f, %.0f faults)", median(w), median(c), median(fl));
  if (fortran) {
    std::vector<double> fw;
    for (const auto& s : rows[ifo].samples) fw.push_back(s.wall);
    if (!fw.empty() && median(w) > 0)
      std::printf("   fortran %11.6f s  x%.1f", median(fw), median(fw) / median(w));
    if (rows[ifo].note.find("DIFFER") != std::string::npos) std::printf("   %s", rows[ifo].note.c_str());
  }
  for (std::size_t i = base; i < rows.size(); ++i)
    for (const auto& s : rows[i].samples)
      if (!s.ok) {
        std::printf("   FAILED (%s)", rows[i].impl.c_str());
        i = rows.size();
        break;
      }
  std::printf("\n");
}

}  // namespace zelmbench
