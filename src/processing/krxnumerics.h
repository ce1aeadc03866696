// Dense kernels of the model processing: LU decomposition with partial pivoting, solution and
// inversion (row-pointer matrices, used on the 6 x 6 rigid-body matrices), and the four stages of
// the Moler-Stewart QZ algorithm for A x = lambda B x (column-major, leading dimension nm).
#pragma once

#include <cstdint>

namespace krx {

// LU with partial pivoting in place: multipliers below the diagonal, U on and above it. perm[k] is
// the original row now at position k. 0 when a pivot column (other than the last) is all zero.
int lu_decompose(double **rows, int n, int32_t *perm);
// Solves with a decomposition; rhs is overwritten by the solution. 0 on a zero pivot of U.
int lu_solve(double *const *rows, int n, const int32_t *perm, double *rhs);
// Inverse of a decomposed matrix into result (n x n, row by row).
int invert_matrix(double *const *rows, int n, const int32_t *perm, double *result);

// QZ stage 1: B upper triangular (Householder from the left), A upper Hessenberg (plane
// reflections), Z the right transformations (starting from the identity) when want_vectors.
void qz_reduce(int nm, int n, double *a, double *b, bool want_vectors, double *z);
// QZ stage 2: double-shift sweeps to quasi-triangular A. tolerance 0 selects machine precision
// times the norms. error is 0, or the index (1-based) of the eigenvalue sought when the budget of
// 30 n sweeps ran out. Leaves the B tolerance in b(n, 1) for stages 3 and 4.
void qz_iterate(int nm, int n, double *a, double *b, double tolerance, bool want_vectors,
                double *z, int *error);
// QZ stage 3: splits the 2 x 2 blocks; eigenvalue j is (alpha_re + i alpha_im) / beta, beta 0 for
// an infinite one.
void qz_values(int nm, int n, double *a, double *b, double *alpha_re, double *alpha_im,
               double *beta, bool want_vectors, double *z);
// QZ stage 4: back substitution and transformation by Z; Z becomes the eigenvectors, each scaled
// so that its largest component has modulus 1 (a complex pair in two columns, real and imaginary).
void qz_vectors(int nm, int n, double *a, double *b, const double *alpha_re,
                const double *alpha_im, const double *beta, double *z);

}  // namespace krx
