// A rank's rows of CalculiX's matrix files. Both files list the upper triangle column by column;
// a rank scans them whole but parses the value of its own entries only, and keeps nothing else.
#include <sys/types.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "parallel.h"

namespace ccx {

namespace {

struct LineReader {
  std::FILE *file = nullptr;
  char *line = nullptr;
  size_t capacity = 0;
  ~LineReader() {
    std::free(line);
    if (file) std::fclose(file);
  }
};

const char *skip_blanks(const char *p) {
  while (*p == ' ' || *p == '\t') ++p;
  return p;
}

// The entries that a rank keeps of one file, in the file's order.
struct Kept {
  std::vector<int> row;  // local row
  std::vector<int> column;
  std::vector<double> value;
  std::vector<int> coupling_row, coupling_held;
  std::vector<double> coupling;
};

struct Numbering {
  int n = 0;
  std::vector<int> problem;  // the problem's row of each row, -1 for a held row
  std::vector<int> held_at;  // the index into held of each held row, -1 for the others
  int first = 0, count = 0;
  bool owns(int row) const { return row >= first && row < first + count; }
};

bool scan_file(const std::string &path, const Numbering &at, bool couplings, Kept &kept) {
  LineReader in;
  in.file = std::fopen(path.c_str(), "rb");
  if (!in.file) return failed("cannot open %s: %s", path.c_str(), std::strerror(errno));
  long long entry = 0;
  long last_col = 1;
  ssize_t length = 0;
  while ((length = getline(&in.line, &in.capacity, in.file)) > 0) {
    const char *p = skip_blanks(in.line), *end = in.line + length;
    if (*p == '\n' || *p == '\r' || *p == 0) continue;
    ++entry;
    long r = 0, c = 0;
    auto a = std::from_chars(p, end, r);
    auto b = a.ec == std::errc() ? std::from_chars(skip_blanks(a.ptr), end, c) : a;
    if (a.ec != std::errc() || b.ec != std::errc())
      return failed("%s: entry %lld is not \"row column value\"", path.c_str(), entry);
    if (r < 1 || c < r || c > at.n || c < last_col)
      return failed(
          "%s: entry %lld (%ld, %ld) is outside the upper triangle of %d rows taken "
          "column by column",
          path.c_str(), entry, r, c, at.n);
    last_col = c;
    int pr = at.problem[r - 1], pc = at.problem[c - 1];
    bool mine = pr >= 0 && pc >= 0 && at.owns(pr);
    int coupled_row = -1, coupled_held = -1;
    if (couplings && pr >= 0 && pc < 0 && at.owns(pr)) {
      coupled_row = pr;
      coupled_held = at.held_at[c - 1];
    } else if (couplings && pc >= 0 && pr < 0 && at.owns(pc)) {
      coupled_row = pc;
      coupled_held = at.held_at[r - 1];
    }
    if (!mine && coupled_row < 0) continue;
    double v = 0.0;
    if (std::from_chars(skip_blanks(b.ptr), end, v).ec != std::errc())
      return failed("%s: entry %lld is not \"row column value\"", path.c_str(), entry);
    if (mine) {
      kept.row.push_back(pr - at.first);
      kept.column.push_back(pc);
      kept.value.push_back(v);
    } else {
      kept.coupling_row.push_back(coupled_row - at.first);
      kept.coupling_held.push_back(coupled_held);
      kept.coupling.push_back(-v);
    }
  }
  if (std::ferror(in.file)) return failed("cannot read %s: %s", path.c_str(), std::strerror(errno));
  return true;
}

// The stiffness must hold the mass matrix's entries in the same places (CalculiX writes both
// from one structure); a rank sees only its own, so each rank checks those.
bool same_places(const Kept &mass, const Kept &stiffness, const std::string &sti) {
  if (mass.row.size() != stiffness.row.size())
    return failed(
        "%s differs in its entries from the mass matrix (%zu against %zu in one rank's "
        "rows)",
        sti.c_str(), stiffness.row.size(), mass.row.size());
  for (size_t k = 0; k < mass.row.size(); ++k)
    if (mass.row[k] != stiffness.row[k] || mass.column[k] != stiffness.column[k])
      return failed("%s: an entry differs in place from the mass matrix", sti.c_str());
  return true;
}

}  // namespace

bool read_row_block(const std::string &mas, const std::string &sti, int n,
                    const std::vector<int> &held, int first, int count, RowBlock &block) {
  Numbering at;
  at.n = n;
  at.problem.assign(static_cast<size_t>(n), 0);
  at.held_at.assign(static_cast<size_t>(n), -1);
  for (size_t k = 0; k < held.size(); ++k) {
    at.problem[held[k]] = -1;
    at.held_at[held[k]] = static_cast<int>(k);
  }
  int rows = 0;
  for (int &p : at.problem)
    if (p >= 0) p = rows++;
  at.first = first;
  at.count = count;
  Kept mass, stiffness;
  if (!scan_file(mas, at, false, mass) || !scan_file(sti, at, !held.empty(), stiffness) ||
      !same_places(mass, stiffness, sti))
    return false;
  // Rows in order of the file's columns: a stable count sort keeps each row's columns increasing.
  block.rows = rows;
  block.first = first;
  block.count = count;
  block.start.assign(static_cast<size_t>(count) + 1, 0);
  for (int r : mass.row) ++block.start[static_cast<size_t>(r) + 1];
  for (int r = 0; r < count; ++r) block.start[r + 1] += block.start[r];
  std::vector<int> next(block.start.begin(), block.start.end() - 1);
  size_t entries = mass.row.size();
  block.column.resize(entries);
  block.stiffness.resize(entries);
  block.mass.resize(entries);
  for (size_t k = 0; k < entries; ++k) {
    int to = next[mass.row[k]]++;
    block.column[to] = mass.column[k];
    block.mass[to] = mass.value[k];
    block.stiffness[to] = stiffness.value[k];
  }
  block.coupling_row = std::move(stiffness.coupling_row);
  block.coupling_held = std::move(stiffness.coupling_held);
  block.coupling = std::move(stiffness.coupling);
  return true;
}

}  // namespace ccx
