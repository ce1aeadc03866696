// The static shapes of the interface rows on CalculiX's path where its .dat cannot give them: with
// shells and beams its *NODE PRINT lists the original nodes, not the expanded rows the shapes need.
#include <cstdio>

#include "solver.h"

namespace ccx {

bool write_static_shapes(const Deck &deck, const DofMap &map, const Matrices &m,
                         const std::string &path) {
  std::vector<int> held;
  if (!interface_rows(deck, map, held)) return false;
  std::vector<char> is_held(static_cast<size_t>(m.n), 0);
  for (int row : held) is_held[static_cast<size_t>(row)] = 1;
  std::vector<int> keep;
  for (int r = 0; r < m.n; ++r)
    if (!is_held[static_cast<size_t>(r)]) keep.push_back(r);
  Matrices free_rows;
  restrict_rows(m, keep, free_rows);
  FactorHandle factor;
  std::vector<double> shapes;
  show_stage("static shapes of the interfaces");
  if (!factor_shifted(free_rows, 0.0, factor) || !constraint_modes(m, held, *factor, shapes))
    return false;
  std::FILE *file = std::fopen(path.c_str(), "wb");
  bool ok =
      file && std::fwrite(shapes.data(), sizeof(double), shapes.size(), file) == shapes.size();
  if (file && std::fclose(file) != 0) ok = false;
  if (!ok) return failed("cannot write %s", path.c_str());
  return true;
}

}  // namespace ccx
