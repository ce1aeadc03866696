// A free-free chain of equal masses joined by equal axial springs, laid along x, whose modes are
// known in closed form: six rigid-body modes (zero eigenvalues) and the axial modes
//   lambda_j = 4 k / m sin^2(j pi / (2 N)),  shape u_i = cos(j pi (i + 1/2) / N).
// The host hands them over as non-orthogonal combinations psi = phi C with a full generalized
// mass C^T C and stiffness C^T Lambda C, so the library must solve the eigenproblem to recover
// them. Units: MEGAGRAM, MILLIMETER, SECOND, NEWTON (force-consistent).
#pragma once

#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "krx/krx.h"

namespace chain {

constexpr int kNodes = 300;
constexpr int kElastic = 14;
constexpr int kModes = 6 + kElastic;
constexpr double kSpacing = 10.0;      // mm
constexpr double kMass = 0.001;        // Mg per node (1 kg)
constexpr double kNodeInertia = 0.05;  // Mg mm^2 per node, about each axis
constexpr double kSpring = 1000.0;     // N/mm
constexpr double kYoung = 210000.0;    // MPa, for the axial stress of a mode
constexpr double kPi = 3.14159265358979323846;
constexpr double kTwoPi = 6.28318530718;

// Eigenvalue of exact mode j (0..5 rigid, 6.. axial mode j - 5).
inline double eigenvalue(int j) {
  if (j < 6) return 0.0;
  double s = std::sin((j - 5) * kPi / (2.0 * kNodes));
  return 4.0 * kSpring / kMass * s * s;
}
inline double hertz(int j) { return std::sqrt(eigenvalue(j)) / kTwoPi; }

inline double node_x(int i) { return i * kSpacing; }
inline double centre_x() { return (kNodes - 1) * kSpacing / 2.0; }

// Six values (dx, dy, dz, ax, ay, az) of mass-orthonormal exact mode j at node i.
inline void exact_shape(int j, int i, double v[6]) {
  for (int c = 0; c < 6; ++c) v[c] = 0.0;
  double total = kNodes * kMass;
  double r = node_x(i) - centre_x();
  double sum_r2 = 0.0;
  for (int n = 0; n < kNodes; ++n) sum_r2 += (node_x(n) - centre_x()) * (node_x(n) - centre_x());
  double bending = kMass * sum_r2 + kNodes * kNodeInertia;  // about y or z through the centre
  double torsion = kNodes * kNodeInertia;                    // about x
  if (j < 3) {
    v[j] = 1.0 / std::sqrt(total);
  } else if (j == 3) {
    v[3] = 1.0 / std::sqrt(torsion);
  } else if (j == 4) {  // rotation about y: dz = -r theta
    double t = 1.0 / std::sqrt(bending);
    v[2] = -r * t;
    v[4] = t;
  } else if (j == 5) {  // rotation about z: dy = r theta
    double t = 1.0 / std::sqrt(bending);
    v[1] = r * t;
    v[5] = t;
  } else {
    int a = j - 5;
    v[0] = std::cos(a * kPi * (i + 0.5) / kNodes) * std::sqrt(2.0 / (kNodes * kMass));
  }
}

// The mixing matrix C (kModes x kModes, row-major): the identity plus a small dense coupling.
inline double mixing(int r, int c) {
  return (r == c ? 1.0 : 0.0) + 0.05 * std::sin(1.0 + r * 0.7 + c * 1.3);
}

// Builds the model through the exported entries and writes it; returns the write's status.
inline int build_and_write(const char *path) {
  int status = 0, nodes = kNodes, modes = kModes;
  KRX_CREATE(&nodes, &modes, &status);
  if (status) return status;
  const char title[] = "Free-free spring-mass chain, 300 nodes";
  KRX_SET_HEADER(title, "chain.dat", "SYNTHETIC", "closed-form eigenvalues", "", "", &status,
                 int(sizeof title - 1), 9, 9, 23, 0, 0);
  double multipliers[4] = {1000.0, 0.001, 1.0, 1.0};
  KRX_UNITS_SI_MULTIPLIERS(&multipliers[0], &multipliers[1], &multipliers[2], &multipliers[3],
                           &status);
  for (int i = 0; i < kNodes; ++i) {
    int id = 1001 + i;
    double xyz[3] = {node_x(i), 0.0, 0.0}, m = kMass, in = kNodeInertia, zero = 0.0;
    KRX_SET_NODE_COORDINATES_VEC(&id, xyz, &status);
    KRX_SET_NODAL_MASS(&id, &m, &status);
    KRX_SET_NODAL_INERTIA(&id, &in, &in, &in, &zero, &zero, &zero, &status);
  }
  // Mode shapes psi_c = sum_r phi_r C[r][c], and an axial stress at every third node.
  std::vector<double> exact(6 * kModes);
  for (int i = 0; i < kNodes; ++i) {
    int id = 1001 + i;
    for (int j = 0; j < kModes; ++j) exact_shape(j, i, &exact[6 * j]);
    for (int c = 0; c < kModes; ++c) {
      double v[6] = {0, 0, 0, 0, 0, 0};
      for (int r = 0; r < kModes; ++r) {
        for (int k = 0; k < 6; ++k) v[k] += exact[6 * r + k] * mixing(r, c);
      }
      int number = c + 1;
      KRX_SET_MODE_SHAPE_VEC(&number, &id, v, &status);
      if (status) return status;
      if (i % 3 == 0 && i > 0 && i < kNodes - 1) {
        double left[6], right[6], stress[6] = {0, 0, 0, 0, 0, 0};
        for (int r = 6; r < kModes; ++r) {
          exact_shape(r, i - 1, left);
          exact_shape(r, i + 1, right);
          stress[0] += kYoung * (right[0] - left[0]) / (2.0 * kSpacing) * mixing(r, c);
        }
        KRX_SET_MODAL_STRESS_VEC(&number, &id, stress, &status);
      }
    }
  }
  // Generalized mass C^T C and stiffness C^T Lambda C, every entry.
  for (int a = 0; a < kModes; ++a) {
    for (int b = 0; b < kModes; ++b) {
      double g = 0.0, k = 0.0;
      for (int r = 0; r < kModes; ++r) {
        g += mixing(r, a) * mixing(r, b);
        k += mixing(r, a) * eigenvalue(r) * mixing(r, b);
      }
      int ra = a + 1, rb = b + 1;
      KRX_SET_GENERALIZED_MASS(&ra, &rb, &g, &status);
      KRX_SET_GENERALIZED_STIFFNESS(&ra, &rb, &k, &status);
    }
  }
  // Faces: the chain's segments; interface nodes at both ends.
  for (int i = 0; i + 1 < kNodes; ++i) {
    int count = 2, ids[2] = {1001 + i, 1002 + i};
    KRX_SET_FACE(&count, ids, &status);
  }
  int first = 1001, last = 1000 + kNodes;
  KRX_SET_INTERFACE_NODE(&first, &status);
  KRX_SET_INTERFACE_NODE(&last, &status);
  int path_len = int(std::char_traits<char>::length(path));
  KRX_WRITE_KRX(path, &status, path_len);
  int write_status = status;
  KRX_TERMINATE(&status);
  return write_status;
}

}  // namespace chain
