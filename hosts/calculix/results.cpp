// CalculiX's output files: the .dof row map and the .mas/.sti matrices of the matrix run, the
// double-precision eigenvectors of the .eig file, and the stress blocks of the ASCII .frd.
#include <charconv>
#include <cstdlib>
#include <cstring>

#include "ccx2krx.h"

namespace ccx {

namespace {

// fgets into a string that grows as long lines need; false at the end of the file.
bool next_line(std::FILE *file, std::string &line) {
  line.clear();
  char chunk[4096];
  while (std::fgets(chunk, sizeof chunk, file)) {
    line += chunk;
    if (!line.empty() && line.back() == '\n') return true;
  }
  return !line.empty();
}

const char *skip_blanks(const char *p) {
  while (*p == ' ' || *p == '\t') ++p;
  return p;
}

// One "row col value" line: 1-based indices, any blank separation.
bool parse_triplet(const char *p, const char *end, long &r, long &c, double &v) {
  p = skip_blanks(p);
  auto a = std::from_chars(p, end, r);
  if (a.ec != std::errc()) return false;
  p = skip_blanks(a.ptr);
  auto b = std::from_chars(p, end, c);
  if (b.ec != std::errc()) return false;
  p = skip_blanks(b.ptr);
  auto d = std::from_chars(p, end, v);
  return d.ec == std::errc();
}

std::FILE *open_for_reading(const std::string &path) {
  std::FILE *file = std::fopen(path.c_str(), "rb");
  if (!file) failed("CalculiX wrote no %s", path.c_str());
  return file;
}

bool open_named(const std::string &path, std::FILE *&file, std::string &name) {
  name = path;
  file = open_for_reading(path);
  return file != nullptr;
}

void close_file(std::FILE *&file) {
  if (file) std::fclose(file);
  file = nullptr;
}

}  // namespace

bool parse_dof_map(std::FILE *file, const std::string &name, const Deck &deck, DofMap &map) {
  std::string line;
  map.row_node.clear();
  map.row_dir.clear();
  map.row_id.clear();
  while (next_line(file, line)) {
    const char *p = skip_blanks(line.c_str());
    if (*p == '\n' || *p == 0) continue;
    char *dot = nullptr;
    long node = std::strtol(p, &dot, 10);
    if (dot == p || *dot != '.')
      return failed("%s: line %zu is not node.direction", name.c_str(), map.row_node.size() + 1);
    long dir = std::strtol(dot + 1, nullptr, 10);
    int index = node_index(deck, static_cast<int>(node));
    int first = 0;
    // A rotation node's three rows are the rotations of its reference node.
    for (const Interface &point : deck.interfaces)
      if (node == point.rot) {
        index = node_index(deck, point.ref);
        first = 3;
      }
    map.row_node.push_back(index);
    map.row_id.push_back(static_cast<int>(node));
    map.row_dir.push_back(index >= 0 && dir >= 1 && dir <= 3 ? first + static_cast<int>(dir) - 1
                                                             : -1);
  }
  if (map.row_node.empty()) return failed("%s lists no degree of freedom", name.c_str());
  return true;
}

bool read_dof_map(const std::string &path, const Deck &deck, DofMap &map) {
  std::FILE *file = open_for_reading(path);
  if (!file) return false;
  bool ok = parse_dof_map(file, path, deck, map);
  std::fclose(file);
  return ok;
}

// The first file read lays down the pattern; the second must list the same entries in the same
// order (CalculiX writes both from one structure).
bool parse_matrix(std::FILE *file, const std::string &name, bool pattern_known, Matrices &m,
                  std::vector<double> &values) {
  std::string line;
  int64_t k = 0;
  long last_col = 1;
  if (!pattern_known) {
    m.start.assign(static_cast<size_t>(m.n) + 1, 0);
    m.row.clear();
  }
  values.clear();
  values.reserve(m.row.size());
  while (next_line(file, line)) {
    long r = 0, c = 0;
    double v = 0.0;
    const char *p = skip_blanks(line.c_str());
    if (*p == '\n' || *p == 0) continue;
    if (!parse_triplet(p, line.c_str() + line.size(), r, c, v))
      return failed("%s: entry %lld is not \"row column value\"", name.c_str(),
                    static_cast<long long>(k + 1));
    if (r < 1 || c < r || c > m.n || c < last_col)
      return failed(
          "%s: entry %lld (%ld, %ld) is outside the upper triangle of %d rows taken "
          "column by column",
          name.c_str(), static_cast<long long>(k + 1), r, c, m.n);
    if (pattern_known) {
      if (k >= static_cast<int64_t>(m.row.size()) || m.row[k] != r - 1 ||
          k < m.start[static_cast<size_t>(c) - 1] || k >= m.start[c])
        return failed("%s: entry %lld differs in place from the mass matrix", name.c_str(),
                      static_cast<long long>(k + 1));
    } else {
      m.row.push_back(static_cast<int>(r - 1));
      m.start[c] = k + 1;
    }
    values.push_back(v);
    last_col = c;
    ++k;
  }
  if (pattern_known) {
    if (k != static_cast<int64_t>(m.row.size()))
      return failed("%s has %lld entries, the mass matrix %zu", name.c_str(),
                    static_cast<long long>(k), m.row.size());
    return true;
  }
  // Columns without entries start where the column before them ended.
  for (size_t c = 1; c < m.start.size(); ++c)
    if (m.start[c] < m.start[c - 1]) m.start[c] = m.start[c - 1];
  return true;
}

namespace {
int64_t values_parsed = 0;
}

int64_t matrix_values_parsed() { return values_parsed; }

void count_matrix_values(int64_t values) { values_parsed += values; }

bool read_matrices(const std::string &mas, const std::string &sti, int n, Matrices &m) {
  m.n = n;
  const std::string *paths[2] = {&mas, &sti};
  std::vector<double> *values[2] = {&m.mass, &m.stiffness};
  for (int k = 0; k < 2; ++k) {
    std::FILE *file = open_for_reading(*paths[k]);
    if (!file) return false;
    bool ok = parse_matrix(file, *paths[k], k == 1, m, *values[k]);
    count_matrix_values(static_cast<int64_t>(values[k]->size()));
    std::fclose(file);
    if (!ok) return false;
  }
  return true;
}

// The file begins with four integers (the last is the number of modes) and the eigenvalues; then
// come the stiffness and the mass matrix (diagonal, then the off-diagonal entries) and last the
// eigenvectors, one after the other, each one value per row of the .dof map. With *BOUNDARY the
// stiffness holds more entries than the pattern of the matrix run, so the eigenvectors are found
// from the end of the file, and the file must hold at least the layout with the pattern's count.
bool open_eigen_file(const std::string &path, int rows, int64_t off_diagonal, EigenFile &eig) {
  eig.name = path;
  eig.file = open_for_reading(path);
  if (!eig.file) return false;
  int32_t head[4] = {0, 0, 0, 0};
  if (std::fread(head, sizeof head, 1, eig.file) != 1 || head[3] < 1)
    return failed("%s: no eigenvalue count at its start", path.c_str());
  if (head[1] != 1) return failed("%s holds complex modes, which cannot be exported", path.c_str());
  eig.modes = head[3];
  eig.rows = rows;
  // The size is checked before the count sizes anything.
  if (std::fseek(eig.file, 0, SEEK_END) != 0) return failed("cannot seek in %s", path.c_str());
  int64_t size = std::ftell(eig.file);
  int64_t vectors = 8 * static_cast<int64_t>(rows) * eig.modes;
  int64_t least = 16 + 8 * (eig.modes + 2 * (static_cast<int64_t>(rows) + off_diagonal)) + vectors;
  if (size < least)
    return failed("%s has %lld bytes; %d modes of %d rows need at least %lld", path.c_str(),
                  static_cast<long long>(size), eig.modes, rows, static_cast<long long>(least));
  eig.eigenvalues.resize(static_cast<size_t>(eig.modes));
  if (std::fseek(eig.file, 16, SEEK_SET) != 0 ||
      std::fread(eig.eigenvalues.data(), sizeof(double), eig.eigenvalues.size(), eig.file) !=
          eig.eigenvalues.size())
    return failed("%s is cut short in its eigenvalues", path.c_str());
  eig.vectors_at = size - vectors;
  return true;
}

bool read_eigenvector(EigenFile &eig, int mode, std::vector<double> &vector) {
  vector.resize(static_cast<size_t>(eig.rows));
  int64_t at = eig.vectors_at + 8 * static_cast<int64_t>(eig.rows) * (mode - 1);
  if (std::fseek(eig.file, at, SEEK_SET) != 0 ||
      std::fread(vector.data(), sizeof(double), vector.size(), eig.file) != vector.size())
    return failed("%s: cannot read mode %d", eig.name.c_str(), mode);
  return true;
}

void close_eigen_file(EigenFile &eig) { close_file(eig.file); }

bool open_dat(const std::string &path, DatReader &dat) {
  return open_named(path, dat.file, dat.name);
}

void close_dat(DatReader &dat) { close_file(dat.file); }

// A table starts with a line " displacements (vx,vy,vz) for set ..." and a blank line; its rows
// follow up to the next blank line.
bool read_dat_displacements(DatReader &dat, const Deck &deck, std::vector<double> &by_node) {
  by_node.assign(6 * deck.node_ids.size(), 0.0);
  int table = dat.table + 1;
  bool inside = false;
  size_t rows = 0;
  while (next_line(dat.file, dat.line)) {
    const char *l = skip_blanks(dat.line.c_str());
    if (!inside) {
      inside = std::strncmp(l, "displacements (vx,vy,vz)", 24) == 0;
      continue;
    }
    if (*l == '\n' || *l == '\r' || *l == 0) {
      if (rows == 0) continue;
      break;
    }
    const char *end = dat.line.c_str() + dat.line.size();
    long id = 0;
    double v[3];
    auto n = std::from_chars(l, end, id);
    const char *p = n.ptr;
    bool ok = n.ec == std::errc();
    for (int k = 0; ok && k < 3; ++k) {
      auto r = std::from_chars(skip_blanks(p), end, v[k]);
      ok = r.ec == std::errc();
      p = r.ptr;
    }
    if (!ok) return failed("%s: unreadable line in displacement table %d", dat.name.c_str(), table);
    ++rows;
    int index = node_index(deck, static_cast<int>(id)), first = 0;
    for (const Interface &point : deck.interfaces)
      if (id == point.rot) {
        index = node_index(deck, point.ref);
        first = 3;
      }
    if (index < 0) continue;
    for (int k = 0; k < 3; ++k) by_node[6 * static_cast<size_t>(index) + first + k] = v[k];
  }
  if (rows == 0) return failed("%s holds no displacement table %d", dat.name.c_str(), table);
  dat.table = table;
  return true;
}

bool open_frd(const std::string &path, FrdReader &frd) {
  return open_named(path, frd.file, frd.name);
}

void close_frd(FrdReader &frd) { close_file(frd.file); }

// Values are fixed-width fields of 12 characters that may touch ("-1.23450E+02-2.00000E-01").
bool parse_frd_values(const char *line, int node_width, int &node, double *values, int count) {
  size_t length = std::strlen(line);
  while (length > 0 && (line[length - 1] == '\n' || line[length - 1] == '\r')) --length;
  size_t need = 3 + static_cast<size_t>(node_width) + 12 * static_cast<size_t>(count);
  if (std::strncmp(line, " -1", 3) != 0 || length < need) return false;
  const char *p = skip_blanks(line + 3);
  auto n = std::from_chars(p, line + 3 + node_width, node);
  if (n.ec != std::errc()) return false;
  for (int k = 0; k < count; ++k) {
    const char *field = line + 3 + node_width + 12 * k;
    const char *end = field + 12;
    field = skip_blanks(field);
    auto v = std::from_chars(field, end, values[k]);
    if (v.ec != std::errc() || v.ptr != end) return false;
  }
  return true;
}

bool read_frd_stresses(FrdReader &frd, int mode, std::vector<int> &nodes,
                       std::vector<double> &values) {
  nodes.clear();
  values.clear();
  bool in_block = false;
  while (next_line(frd.file, frd.line)) {
    const char *l = frd.line.c_str();
    if (std::strncmp(l, "  100CL", 7) == 0) {
      // The last field of the line is the format: 0 short, 1 long, 2 binary.
      size_t end = frd.line.find_last_not_of(" \r\n");
      char format = end == std::string::npos ? '1' : frd.line[end];
      if (format == '2')
        return failed("%s is a binary .frd; an ASCII one is needed", frd.name.c_str());
      frd.width = format == '0' ? 5 : 10;
    } else if (std::strncmp(l, " -4  STRESS", 11) == 0) {
      in_block = ++frd.blocks == mode;
    } else if (std::strncmp(l, " -3", 3) == 0) {
      if (in_block) return true;
    } else if (in_block && std::strncmp(l, " -1", 3) == 0) {
      int node = 0;
      double v[6];
      if (!parse_frd_values(l, frd.width, node, v, 6))
        return failed("%s: unreadable stress line of mode %d", frd.name.c_str(), mode);
      nodes.push_back(node);
      values.insert(values.end(), v, v + 6);
    }
  }
  return failed("%s holds no stresses of mode %d", frd.name.c_str(), mode);
}

}  // namespace ccx
