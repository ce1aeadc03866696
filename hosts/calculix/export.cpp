// Hands the model to the library through the exported entries: header, units, nodes with their
// lumped masses, the interface nodes, the skin, then mode after mode the shape, the stresses and
// the generalized mass and stiffness, and last the write.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "ccx2krx.h"
#include "krx/krx.h"
#include "solver.h"

namespace ccx {

namespace {

bool entry(int status, const char *what) {
  if (status != 0) return failed("the library refused %s", what);
  return true;
}

// Six static shapes per interface point come before the normal modes.
int static_modes(const ExportJob &job) {
  return 6 * static_cast<int>(job.deck->interfaces.size());
}

bool set_header(const ExportJob &job) {
  const std::string &title = job.deck->heading.empty() ? job.deck_name : job.deck->heading;
  const char *type = "CalculiX";
  int statics = static_modes(job);
  const char *by = job.own_solver ? "from CalculiX's matrices" : "of CalculiX";
  std::string c1 = "ccx2krx: " + std::to_string(job.eig->modes) + " modes " + by;
  if (statics > 0)
    c1 = "ccx2krx: " + std::to_string(statics) + " static and " + std::to_string(job.eig->modes) +
         " fixed-interface modes " + by;
  std::string c2 = "units " + job.units_name;
  const char *c3 = "";
  int status = 1;
  KRX_SET_HEADER(title.c_str(), job.deck_name.c_str(), type, c1.c_str(), c2.c_str(), c3, &status,
                 static_cast<int>(title.size()), static_cast<int>(job.deck_name.size()),
                 static_cast<int>(std::strlen(type)), static_cast<int>(c1.size()),
                 static_cast<int>(c2.size()), 0);
  return entry(status, "the header");
}

bool set_nodes(const ExportJob &job) {
  const Deck &deck = *job.deck;
  for (size_t i = 0; i < deck.node_ids.size(); ++i) {
    int id = deck.node_ids[i];
    double xyz[3] = {deck.xyz[3 * i], deck.xyz[3 * i + 1], deck.xyz[3 * i + 2]};
    double mass = (*job.nodal_mass)[i];
    int status = 1;
    KRX_SET_NODE_COORDINATES_VEC(&id, xyz, &status);
    if (!entry(status, "a node")) return false;
    KRX_SET_NODAL_MASS(&id, &mass, &status);
    if (!entry(status, "a nodal mass")) return false;
    if (!job.nodal_inertia) continue;
    double J[6];
    std::copy(&(*job.nodal_inertia)[6 * i], &(*job.nodal_inertia)[6 * i] + 6, J);
    if (std::all_of(J, J + 6, [](double v) { return v == 0.0; })) continue;
    KRX_SET_NODAL_INERTIA(&id, &J[0], &J[1], &J[2], &J[3], &J[4], &J[5], &status);
    if (!entry(status, "a nodal inertia")) return false;
  }
  return true;
}

bool set_faces(const std::vector<Face> &faces) {
  for (const Face &f : faces) {
    int count = f.count;
    int ids[4] = {f.ids[0], f.ids[1], f.ids[2], f.ids[3]};
    int status = 1;
    KRX_SET_FACE(&count, ids, &status);
    if (!entry(status, "a face")) return false;
  }
  return true;
}

// The six values of each node, as by_node holds them.
bool set_shape(const ExportJob &job, int mode, const std::vector<double> &by_node) {
  for (size_t i = 0; i < job.deck->node_ids.size(); ++i) {
    int id = job.deck->node_ids[i];
    double values[6];
    std::copy(&by_node[6 * i], &by_node[6 * i] + 6, values);
    int status = 1;
    KRX_SET_MODE_SHAPE_VEC(&mode, &id, values, &status);
    if (!entry(status, "a mode shape")) return false;
  }
  return true;
}

// Each row's value at its node and direction; the nodes of an interface set, which have no rows,
// follow their interface point; the rotations of solid nodes stay zero.
void rows_to_nodes(const ExportJob &job, const std::vector<double> &rows,
                   std::vector<double> &by_node) {
  if (job.expansion) {
    project_rows(*job.expansion, *job.map, rows.data(), by_node);
    return expand_rigid_ties(*job.deck, by_node);
  }
  by_node.assign(6 * job.deck->node_ids.size(), 0.0);
  for (size_t r = 0; r < rows.size(); ++r) {
    int node = job.map->row_node[r], dir = job.map->row_dir[r];
    if (node >= 0 && dir >= 0)
      by_node[6 * static_cast<size_t>(node) + static_cast<size_t>(dir)] = rows[r];
  }
  expand_rigid_ties(*job.deck, by_node);
}

bool is_interface_row(const ExportJob &job, size_t r) {
  return job.map->row_node[r] >= job.deck->solid_nodes;
}

// Mode j as rows of the matrices: a static shape from scratch, a normal mode from the .eig, whose
// vectors leave out the interface rows when there are interfaces (they are held, so zero).
bool read_rows(ExportJob &job, int j, std::vector<double> &rows, std::vector<double> &held) {
  int statics = static_modes(job);
  size_t n = job.map->row_node.size();
  if (j <= statics) {
    rows.resize(n);
    if (std::fseek(job.scratch_file, static_cast<long>(8 * n * (j - 1)), SEEK_SET) != 0 ||
        std::fread(rows.data(), sizeof(double), n, job.scratch_file) != n)
      return failed("cannot read static shape %d back from %s", j, job.scratch.c_str());
    return true;
  }
  if (statics == 0) return read_eigenvector(*job.eig, j, rows);
  if (!read_eigenvector(*job.eig, j - statics, held)) return false;
  rows.assign(n, 0.0);
  size_t k = 0;
  for (size_t r = 0; r < n && k < held.size(); ++r)
    if (!is_interface_row(job, r)) rows[r] = held[k++];
  return true;
}

// Static shape j from the .dat: its rows are appended to scratch for read_rows.
bool read_static_shape(ExportJob &job, int j, std::vector<double> &rows,
                       std::vector<double> &by_node) {
  if (!read_dat_displacements(*job.dat, *job.deck, by_node)) return false;
  size_t n = job.map->row_node.size();
  rows.assign(n, 0.0);
  for (size_t r = 0; r < n; ++r) {
    int node = job.map->row_node[r], dir = job.map->row_dir[r];
    if (node >= 0 && dir >= 0) rows[r] = by_node[6 * static_cast<size_t>(node) + dir];
  }
  if (std::fseek(job.scratch_file, static_cast<long>(8 * n * (j - 1)), SEEK_SET) != 0 ||
      std::fwrite(rows.data(), sizeof(double), n, job.scratch_file) != n)
    return failed("cannot write %s", job.scratch.c_str());
  return true;
}

// Stresses of every node of an element, recovered from the shape.
void recovered_stresses(const ExportJob &job, const std::vector<double> &by_node,
                        std::vector<int> &nodes, std::vector<double> &values) {
  std::vector<double> all;
  recover_stresses(*job.stress_model, *job.deck, by_node, all);
  nodes.clear();
  values.clear();
  for (size_t i = 0; i < job.stress_model->sharing.size(); ++i)
    if (job.stress_model->sharing[i] > 0) {
      nodes.push_back(job.deck->node_ids[i]);
      values.insert(values.end(), &all[6 * i], &all[6 * i] + 6);
    }
}

// CalculiX lists SXX SYY SZZ SXY SYZ SZX; the library takes sigma x, y, z, tau xy, xz, yz.
bool set_projected_stresses(ExportJob &job, int mode, const std::vector<int> &nodes,
                            const std::vector<double> &values) {
  std::vector<double> by_node;
  std::vector<unsigned char> has;
  project_stresses(*job.expansion, *job.deck, job.shell_surface, nodes, values, by_node, has);
  for (size_t i = 0; i < has.size(); ++i) {
    if (!has[i]) continue;
    const double *s = &by_node[6 * i];
    double ours[6] = {s[0], s[1], s[2], s[3], s[5], s[4]};
    int id = job.deck->node_ids[i];
    int status = 1;
    KRX_SET_MODAL_STRESS_VEC(&mode, &id, ours, &status);
    if (!entry(status, "a modal stress")) return false;
  }
  return true;
}

bool set_stresses(ExportJob &job, int mode, const std::vector<double> &by_node) {
  std::vector<int> nodes;
  std::vector<double> values;
  if (job.stress_model)
    recovered_stresses(job, by_node, nodes, values);
  else if (!read_frd_stresses(*job.frd, mode, nodes, values))
    return false;
  if (job.expansion) return set_projected_stresses(job, mode, nodes, values);
  for (size_t k = 0; k < nodes.size(); ++k) {
    if (node_index(*job.deck, nodes[k]) < 0) continue;
    const double *s = &values[6 * k];
    double ours[6] = {s[0], s[1], s[2], s[3], s[5], s[4]};
    int status = 1;
    KRX_SET_MODAL_STRESS_VEC(&mode, &nodes[k], ours, &status);
    if (!entry(status, "a modal stress")) return false;
  }
  return true;
}

bool set_generalized(int i, int j, double mass, double stiffness) {
  int status = 1;
  for (int pass = 0; pass < (i == j ? 1 : 2); ++pass) {
    int r = pass == 0 ? i : j, c = pass == 0 ? j : i;
    KRX_SET_GENERALIZED_MASS(&r, &c, &mass, &status);
    if (!entry(status, "a generalized mass")) return false;
    KRX_SET_GENERALIZED_STIFFNESS(&r, &c, &stiffness, &status);
    if (!entry(status, "a generalized stiffness")) return false;
  }
  return true;
}

// Mode j's products with M and K are formed once; the modes before it are read back (from the
// .eig file or scratch) for the entries (i, j), so that only two modes are held at a time.
bool set_modes(ExportJob &job) {
  EigenFile &eig = *job.eig;
  int statics = static_modes(job), modes = statics + eig.modes;
  std::vector<double> phi, other, m_phi, k_phi, by_node, held;
  const char *mode = job.statics_written ? "rb" : "w+b";
  if (statics > 0 && !(job.scratch_file = std::fopen(job.scratch.c_str(), mode)))
    return failed("cannot open %s", job.scratch.c_str());
  show_stage("handing the modes to the library");
  for (int j = 1; j <= modes; ++j) {
    show_count("mode", j, modes);
    if (j <= statics && !job.statics_written) {
      if (!read_static_shape(job, j, phi, by_node)) return false;
    } else {
      if (!read_rows(job, j, phi, held)) return false;
      rows_to_nodes(job, phi, by_node);
    }
    if (!set_shape(job, j, by_node)) return false;
    if (job.stress && !set_stresses(job, j, by_node)) return false;
    if (job.generalized_mass) {
      // Formed beforehand: by the ranks of a parallel run, or by the own path during its count.
      size_t at = static_cast<size_t>(j - 1) * static_cast<size_t>(modes);
      for (int i = 1; i <= j; ++i)
        if (!set_generalized(i, j, (*job.generalized_mass)[at + i - 1],
                             (*job.generalized_stiffness)[at + i - 1]))
          return false;
      continue;
    }
    m_phi.resize(phi.size());
    k_phi.resize(phi.size());
    multiply(*job.matrices, job.matrices->mass, phi.data(), m_phi.data());
    multiply(*job.matrices, job.matrices->stiffness, phi.data(), k_phi.data());
    // CalculiX scales its modes to unit generalized mass: a mode far from it was read from the
    // wrong place of the file.
    double own_mass = dot(phi, m_phi);
    if (j > statics && !(std::fabs(own_mass - 1.0) < 1e-3))
      return failed(
          "%s: mode %d has generalized mass %g where CalculiX writes 1%s",
          eig.name.c_str(), j - statics, own_mass,
          eig.eigenvalues[j - statics - 1] < 0.0 && own_mass < 0.0
              ? ": its eigenvalue is negative too: CalculiX's mass matrix is not positive definite "
                "for this model"
              : "; the file's layout is not the one expected");
    for (int i = 1; i <= j; ++i) {
      const std::vector<double> *left = &phi;
      if (i != j) {
        if (!read_rows(job, i, other, held)) return false;
        left = &other;
      }
      if (!set_generalized(i, j, dot(*left, m_phi), dot(*left, k_phi))) return false;
    }
  }
  return true;
}

bool set_interface_nodes(const Deck &deck) {
  for (const Interface &point : deck.interfaces) {
    int id = point.ref;
    int status = 1;
    KRX_SET_INTERFACE_NODE(&id, &status);
    if (!entry(status, "an interface node")) return false;
  }
  return true;
}

int report_error(int level, const char *text) {
  end_progress_line();
  std::string line;
  for (const char *p = text;; ++p) {
    if (*p == '\n' || *p == 0) {
      if (!line.empty())
        std::fprintf(stderr, "ccx2krx: krxlib %s: %s\n", level >= 3 ? "error" : "warning",
                     line.c_str());
      line.clear();
      if (*p == 0) break;
    } else {
      line += *p;
    }
  }
  return 0;
}

}  // namespace

bool export_model(ExportJob &job) {
  krx_register_host_callbacks(nullptr, report_error, nullptr);
  int nodes = static_cast<int>(job.deck->node_ids.size());
  int modes = static_modes(job) + job.eig->modes;
  int status = 1;
  KRX_CREATE(&nodes, &modes, &status);
  if (!entry(status, "to create a model")) return false;
  bool ok = set_header(job);
  if (ok) {
    double u[4] = {job.units[0], job.units[1], job.units[2], job.units[3]};
    KRX_UNITS_SI_MULTIPLIERS(&u[0], &u[1], &u[2], &u[3], &status);
    ok = entry(status, "the units");
  }
  ok = ok && set_nodes(job) && set_interface_nodes(*job.deck) && set_faces(*job.faces) &&
       set_modes(job);
  if (job.scratch_file) std::fclose(job.scratch_file);
  job.scratch_file = nullptr;
  if (ok) {
    show_stage("writing the file");
    KRX_WRITE_KRX(job.output.c_str(), &status, static_cast<int>(job.output.size()));
    ok = entry(status, "to write the file");
  }
  int end = 0;
  KRX_TERMINATE(&end);
  return ok;
}

}  // namespace ccx
