/* krxlib: reading a KRX file from C, C++ or Fortran.
 *
 * Open a file, ask its counts, fetch arrays into memory the caller owns, close it:
 *
 *   krx_file *file;
 *   if (krx_open("body.krx", &file) != KRX_OK) { puts(krx_error_message(file)); ... }
 *   int64_t nodes;
 *   krx_count(file, KRX_COUNT_NODES, &nodes);
 *   double *xyz = malloc(3 * nodes * sizeof *xyz);
 *   krx_read_coordinates(file, xyz);
 *   krx_close(file);
 *
 * Every function returns KRX_OK (0) or one of the KRX_ERROR_* codes, and never prints. The text
 * of the calling thread's last failure on a handle is krx_error_message(file). krx_open hands
 * back a handle even when it fails (so that the message can be fetched), or NULL when not even
 * that could be allocated; krx_close releases either.
 *
 * Opening reads the version code, the header, the content summary and the leading counts of
 * every block: every count is checked against the size of the file before anything is read
 * or allocated from it. Arrays are read when asked for; mode shapes, modal stresses and modal
 * strains one mode at a time.
 *
 * Threads: every function but krx_close may be called on one handle from several threads at
 * once (reads are positioned; the handle holds no file position), and any number of handles
 * may be open at once. krx_close must wait until no other call on its handle runs.
 *
 * Nodes are listed in the file's node order (krx_read_node_ids); modes in the file's mode order,
 * 0-based mode indices. Reals are returned as doubles whatever the file's precision. */
#ifndef KRX_KRX_READ_H
#define KRX_KRX_READ_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(KRX_BUILDING_LIBRARY)
#define KRX_READ_API __attribute__((visibility("default")))
#else
#define KRX_READ_API
#endif

typedef struct krx_file krx_file;

/* Return codes. */
#define KRX_OK 0
#define KRX_ERROR_OPEN 1     /* the file cannot be opened or read */
#define KRX_ERROR_FORMAT 2   /* not a KRX file, or a block that does not fit its layout */
#define KRX_ERROR_ABSENT 3   /* the file does not hold what was asked for */
#define KRX_ERROR_ARGUMENT 4 /* a null pointer, an unknown selector or an index out of range */
#define KRX_ERROR_MEMORY 5   /* out of memory */

/* Counts for krx_count; a count of an absent block is 0. */
#define KRX_COUNT_NODES 1              /* nodes with coordinates */
#define KRX_COUNT_MODES 2              /* eigenvalue records (else mode-shape records) */
#define KRX_COUNT_MODE_SHAPE_NODES 3   /* nodes in each mode-shape record */
#define KRX_COUNT_STRESS_NODES 4       /* nodes in each modal-stress record */
#define KRX_COUNT_STRAIN_NODES 5       /* nodes in each modal-strain record */
#define KRX_COUNT_FACES 6
#define KRX_COUNT_FACE_WORDS 7         /* length of the face list of krx_read_faces */
#define KRX_COUNT_INTERFACE_NODES 8
#define KRX_COUNT_MASS_NODES 9         /* nodes that carry a nodal mass */
#define KRX_COUNT_INERTIA_ENTRIES 10   /* entries of the nodal inertia matrix */
#define KRX_COUNT_MATRIX_ORDER 11      /* order of the generalized matrices (modes written) */
#define KRX_COUNT_TRANSFORMATION_ORDER 12
#define KRX_COUNT_INVARIANT_MODES 13   /* modes of the inertia invariants 3, 4, 5, 8, 9 */

/* Blocks for krx_has_block, and the generalized matrices of krx_read_generalized_matrix. */
#define KRX_BLOCK_NODAL_COORDS 4
#define KRX_BLOCK_ELEMENT_TOPOLOGY 5
#define KRX_BLOCK_BODY_PROPERTIES 6
#define KRX_BLOCK_EIGENVALUES 7
#define KRX_BLOCK_MODE_SHAPES 8
#define KRX_BLOCK_NODAL_MASSES 9
#define KRX_BLOCK_NODAL_INERTIAS 10
#define KRX_BLOCK_UNITS 11
#define KRX_BLOCK_GENERALIZED_STIFFNESS 12
#define KRX_BLOCK_GENERALIZED_MASS 13
#define KRX_BLOCK_ELEMENT_FACES 14
#define KRX_BLOCK_GENERALIZED_DAMPING 15
#define KRX_BLOCK_TRANSFORMATION 16
#define KRX_BLOCK_INTERFACE_NODES 17
#define KRX_BLOCK_MODAL_STRESS 18
#define KRX_BLOCK_INVARIANT_1 19 /* 19 to 26: invariants 1, 2, 3, 4, 5, 7, 8, 9 */
#define KRX_BLOCK_MODAL_STRAIN 29

/* Header fields for krx_read_header. */
#define KRX_HEADER_TITLE 0      /* up to 127 characters */
#define KRX_HEADER_DATE 1       /* up to 31 */
#define KRX_HEADER_INPUT_NAME 2 /* up to 127 */
#define KRX_HEADER_INPUT_TYPE 3 /* up to 15 */
#define KRX_HEADER_COMMENT_1 4  /* 4, 5, 6: up to 79 each */

/* Per-mode data for krx_read_mode and krx_read_mode_node_ids. */
#define KRX_MODE_SHAPE 0  /* dx, dy, dz, ax, ay, az per node */
#define KRX_MODE_STRESS 1 /* sigma_x, sigma_y, sigma_z, tau_xy, tau_xz, tau_yz per node */
#define KRX_MODE_STRAIN 2 /* epsilon_x, epsilon_y, epsilon_z, gamma_xy, gamma_xz, gamma_yz */

KRX_READ_API int krx_open(const char *path, krx_file **file);
KRX_READ_API void krx_close(krx_file *file);
/* The text of the calling thread's last failure on file ("" when there is none). */
KRX_READ_API const char *krx_error_message(const krx_file *file);

/* Generation (10, 20, ..., 60), encoding (1 XDR, 0 native) and precision (8 or 4 bytes a real);
 * any pointer may be NULL. */
KRX_READ_API int krx_read_version(const krx_file *file, int *generation, int *xdr, int *real_bytes);
KRX_READ_API int krx_count(const krx_file *file, int which, int64_t *count);
/* 1 when the file holds block (KRX_BLOCK_*), else 0. */
KRX_READ_API int krx_has_block(const krx_file *file, int block);
/* A header field (KRX_HEADER_*) without its trailing blanks, NUL-terminated, cut to size. */
KRX_READ_API int krx_read_header(const krx_file *file, int field, char *text, size_t size);
/* The mass, length, time and force units: 16 characters each, NUL-terminated. */
KRX_READ_API int krx_read_units(const krx_file *file, char units[4][16]);

/* ids[nodes] and xyz[3 * nodes], in the file's node order. */
KRX_READ_API int krx_read_node_ids(const krx_file *file, int32_t *ids);
KRX_READ_API int krx_read_coordinates(const krx_file *file, double *xyz);
/* masses[nodes], by the file's node order: a node's mass (the mean when the file gives several
 * values), 0 for a node without mass. */
KRX_READ_API int krx_read_nodal_masses(const krx_file *file, double *masses);
/* inertias[9 * nodes]: each node's 3 x 3 rotational inertia row by row, by the file's node
 * order; a term given on one side of the diagonal stands for both. */
KRX_READ_API int krx_read_nodal_inertias(const krx_file *file, double *inertias);
/* Mass, centre of mass x, y, z, inertia tensor row by row. */
KRX_READ_API int krx_read_body_properties(const krx_file *file, double values[13]);

/* Per mode: its number in numbers[modes], and in records[5 * modes] the eigenvalue, the
 * frequency in hertz and in radians per second, the generalized mass and stiffness; either
 * pointer may be NULL. */
KRX_READ_API int krx_read_eigenvalues(const krx_file *file, int32_t *numbers, double *records);
/* matrix[order * order] row by row, dense; block is KRX_BLOCK_GENERALIZED_STIFFNESS, _MASS or
 * _DAMPING. */
KRX_READ_API int krx_read_generalized_matrix(const krx_file *file, int block, double *matrix);
/* numbers[order] and matrix[order * order] row by row (column j: new mode j in the old ones). */
KRX_READ_API int krx_read_transformation(const krx_file *file, int32_t *numbers, double *matrix);
/* Inertia invariant 1, 2, 3, 4, 5, 7, 8 or 9; values holds 1, 3, 3 M, 3 M, 3 M M, 9, 9 M and
 * 9 M M reals for them (M: KRX_COUNT_INVARIANT_MODES), as the file lists them. */
KRX_READ_API int krx_read_invariant(const krx_file *file, int invariant, double *values);

KRX_READ_API int krx_read_interface_nodes(const krx_file *file, int32_t *ids);
/* The face list, words[KRX_COUNT_FACE_WORDS]: per face its vertex count, then the 0-based
 * positions of its vertices in the file's node order. */
KRX_READ_API int krx_read_faces(const krx_file *file, int32_t *words);

/* The node ids of the records of kind (KRX_MODE_*), ids[KRX_COUNT_*_NODES of that kind]. */
KRX_READ_API int krx_read_mode_node_ids(const krx_file *file, int kind, int32_t *ids);
/* One mode (0-based index) of kind, read from the file now: values[6 * nodes of that kind];
 * number, when not NULL, receives the mode's number. */
KRX_READ_API int krx_read_mode(const krx_file *file, int kind, int64_t mode, int32_t *number,
                               double *values);

#ifdef __cplusplus
}
#endif

#endif
