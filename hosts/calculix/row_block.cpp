// A rank's rows of CalculiX's matrix files. Both files list the upper triangle column by column;
// a rank scans them whole but parses the value of its own entries only, and keeps nothing else.
// An entry is the rank's that owns its upper row among the free rows (or its free row, when the
// other is held); the entries among held rows are the block's at row 0.
#include <sys/types.h>

#include <algorithm>
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
  std::vector<int> held_row, held_column;  // indices into held
  std::vector<double> held;
  double sums[3] = {0.0, 0.0, 0.0};
  int64_t parsed = 0, entries = 0;
};

struct Numbering {
  int n = 0;
  std::vector<int> problem;  // the problem's row of each row, -1 for a held row
  std::vector<int> held_at;  // the index into held of each held row, -1 for the others
  const std::vector<signed char> *direction = nullptr;
  int first = 0, count = 0;
  bool keeps_held = false;
  bool owns(int row) const { return row >= first && row < first + count; }
};

enum Owner { kOther, kBlock, kCoupling, kHeld };

// Whose entry (r, c) of the files is (0-based rows); for a coupling, its free and held row.
Owner owner(const Numbering &at, int r, int c, int &free_row, int &held) {
  int pr = at.problem[r], pc = at.problem[c];
  if (pr >= 0 && pc >= 0) return at.owns(pr) ? kBlock : kOther;
  if (pr < 0 && pc < 0) return at.keeps_held ? kHeld : kOther;
  free_row = pr >= 0 ? pr : pc;
  held = at.held_at[pr >= 0 ? c : r];
  return at.owns(free_row) ? kCoupling : kOther;
}

void keep(const Numbering &at, int r, int c, double v, Owner whose, int free_row, int held,
          Kept &kept) {
  if (at.direction) {
    int d = (*at.direction)[r];
    if (d >= 0 && d < 3 && (*at.direction)[c] == d) kept.sums[d] += r == c ? v : 2.0 * v;
  }
  if (whose == kBlock) {
    kept.row.push_back(at.problem[r] - at.first);
    kept.column.push_back(at.problem[c]);
    kept.value.push_back(v);
  } else if (whose == kCoupling) {
    kept.coupling_row.push_back(free_row - at.first);
    kept.coupling_held.push_back(held);
    kept.coupling.push_back(v);
  } else {
    kept.held_row.push_back(at.held_at[r]);
    kept.held_column.push_back(at.held_at[c]);
    kept.held.push_back(v);
  }
}

bool scan_file(const std::string &path, const Numbering &at, Kept &kept) {
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
    int free_row = -1, held = -1;
    Owner whose = owner(at, static_cast<int>(r - 1), static_cast<int>(c - 1), free_row, held);
    if (whose == kOther) continue;
    double v = 0.0;
    if (std::from_chars(skip_blanks(b.ptr), end, v).ec != std::errc())
      return failed("%s: entry %lld is not \"row column value\"", path.c_str(), entry);
    ++kept.parsed;
    keep(at, static_cast<int>(r - 1), static_cast<int>(c - 1), v, whose, free_row, held, kept);
  }
  if (std::ferror(in.file)) return failed("cannot read %s: %s", path.c_str(), std::strerror(errno));
  kept.entries = entry;
  count_matrix_values(kept.parsed);
  return true;
}

// The stiffness must hold the mass matrix's entries in the same places (CalculiX writes both
// from one structure); a rank sees only its own, so each rank checks those.
bool same_places(const Kept &mass, const Kept &stiffness, const std::string &sti) {
  if (stiffness.parsed != mass.parsed)
    return failed(
        "%s differs in its entries from the mass matrix (%lld against %lld in one rank's "
        "rows)",
        sti.c_str(), static_cast<long long>(stiffness.parsed),
        static_cast<long long>(mass.parsed));
  if (mass.row != stiffness.row || mass.column != stiffness.column ||
      mass.coupling_row != stiffness.coupling_row ||
      mass.coupling_held != stiffness.coupling_held || mass.held_row != stiffness.held_row ||
      mass.held_column != stiffness.held_column)
    return failed("%s: an entry differs in place from the mass matrix", sti.c_str());
  return true;
}

// Both triangles of the entries among held rows.
std::vector<double> held_square(const Kept &kept, size_t held) {
  std::vector<double> square(held * held, 0.0);
  for (size_t k = 0; k < kept.held.size(); ++k) {
    size_t a = static_cast<size_t>(kept.held_row[k]), b = static_cast<size_t>(kept.held_column[k]);
    square[a * held + b] = kept.held[k];
    square[b * held + a] = kept.held[k];
  }
  return square;
}

}  // namespace

std::vector<int> split_rows(const std::string &mas, const RowLayout &layout, int ranks) {
  int held = static_cast<int>(layout.held.size()), rows = layout.n - held;
  std::vector<int> first(static_cast<size_t>(ranks) + 1);
  for (int k = 0; k <= ranks; ++k)
    first[k] = k * (rows / ranks) + std::min(k, rows % ranks);
  if (ranks == 1) return first;
  // Each free row's entries in the upper triangle and its couplings, one pass over the .mas.
  std::vector<int> problem(static_cast<size_t>(layout.n), 0);
  for (int h : layout.held) problem[h] = -1;
  int next = 0;
  for (int &p : problem)
    if (p >= 0) p = next++;
  std::vector<int64_t> weight(static_cast<size_t>(rows) + 1, 0);
  LineReader in;
  in.file = std::fopen(mas.c_str(), "rb");
  if (!in.file) return first;
  ssize_t length = 0;
  while ((length = getline(&in.line, &in.capacity, in.file)) > 0) {
    const char *p = skip_blanks(in.line), *end = in.line + length;
    long r = 0, c = 0;
    auto a = std::from_chars(p, end, r);
    if (a.ec != std::errc() || std::from_chars(skip_blanks(a.ptr), end, c).ec != std::errc() ||
        r < 1 || c < r || c > layout.n)
      continue;  // the reading proper refuses it
    int owner = problem[r - 1] >= 0 ? problem[r - 1] : problem[c - 1];
    if (owner >= 0) ++weight[static_cast<size_t>(owner) + 1];
  }
  for (int r = 0; r < rows; ++r) weight[r + 1] += weight[r];
  int row = 0;
  for (int k = 1; k < ranks; ++k) {
    int64_t share = weight[rows] / ranks * k + std::min<int64_t>(k, weight[rows] % ranks);
    while (row < rows && weight[row] < share) ++row;
    first[k] = row;
  }
  return first;
}

bool read_row_block(const std::string &mas, const std::string &sti, const RowLayout &layout,
                    int first, int count, RowBlock &block) {
  Numbering at;
  at.n = layout.n;
  at.problem.assign(static_cast<size_t>(layout.n), 0);
  at.held_at.assign(static_cast<size_t>(layout.n), -1);
  const std::vector<int> &held = layout.held;
  for (size_t k = 0; k < held.size(); ++k) {
    at.problem[held[k]] = -1;
    at.held_at[held[k]] = static_cast<int>(k);
  }
  int rows = 0;
  for (int &p : at.problem)
    if (p >= 0) p = rows++;
  if (!layout.direction.empty()) at.direction = &layout.direction;
  at.first = first;
  at.count = count;
  at.keeps_held = first == 0;
  Kept mass, stiffness;
  if (!scan_file(mas, at, mass) || !scan_file(sti, at, stiffness) ||
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
  block.mass_diagonal.assign(static_cast<size_t>(count), 0.0);
  for (int r = 0; r < count; ++r)
    for (int k = block.start[r]; k < block.start[r + 1]; ++k)
      if (block.column[k] == first + r) block.mass_diagonal[r] = block.mass[k];
  block.coupling_row = std::move(stiffness.coupling_row);
  block.coupling_held = std::move(stiffness.coupling_held);
  block.coupling_stiffness = std::move(stiffness.coupling);
  block.coupling_mass = std::move(mass.coupling);
  if (at.keeps_held) {
    block.held_stiffness = held_square(stiffness, held.size());
    block.held_mass = held_square(mass, held.size());
  }
  std::copy(mass.sums, mass.sums + 3, block.mass_sums);
  block.parsed = mass.parsed + stiffness.parsed;
  block.entries = mass.entries + stiffness.entries;
  return true;
}

}  // namespace ccx
