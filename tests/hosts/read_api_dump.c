/* Reads every block of a file through krx_read.h and writes each array raw (native int32 or
 * double) into a directory, for tests that compare the read API with another reader:
 *   read_api_dump FILE.krx DIR
 * DIR/blocks.txt lists the present blocks, DIR/header.txt and DIR/units.txt hold one text a line,
 * and every other array is DIR/<name>.i4 or DIR/<name>.f8, named as the Python reader names it
 * where it has one array of that name. Exit status 1 at the first failure. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <krx/krx_read.h>

static krx_file *file;
static const char *dir;

static void check(int code, const char *what) {
  if (code == KRX_OK) return;
  fprintf(stderr, "read_api_dump: %s: %s\n", what, krx_error_message(file));
  exit(1);
}

static FILE *create(const char *name) {
  char path[4096];
  snprintf(path, sizeof path, "%s/%s", dir, name);
  FILE *out = fopen(path, "wb");
  if (!out) {
    fprintf(stderr, "read_api_dump: cannot write %s\n", path);
    exit(1);
  }
  return out;
}

static void save(const char *name, const void *data, size_t bytes) {
  FILE *out = create(name);
  if (bytes && fwrite(data, 1, bytes, out) != bytes) exit(1);
  fclose(out);
}

static int64_t count(int which) {
  int64_t n;
  check(krx_count(file, which, &n), "count");
  return n;
}

static void *room(int64_t items, size_t size) { return calloc((size_t)items + 1, size); }

static void dump_modes(int block, int kind, int which) {
  if (!krx_has_block(file, block)) return;
  int64_t nodes = count(which), modes = count(KRX_COUNT_MODES);
  int32_t *ids = room(nodes > modes ? nodes : modes, 4);
  double *values = room(6 * nodes * modes, 8);
  char name[32];
  check(krx_read_mode_node_ids(file, kind, ids), "mode node ids");
  snprintf(name, sizeof name, "mode_ids_%d.i4", kind);
  save(name, ids, 4 * (size_t)nodes);
  for (int64_t j = 0; j < modes; ++j)
    check(krx_read_mode(file, kind, j, &ids[j], values + 6 * nodes * j), "mode");
  snprintf(name, sizeof name, "mode_numbers_%d.i4", kind);
  save(name, ids, 4 * (size_t)modes);
  snprintf(name, sizeof name, "modes_%d.f8", kind);
  save(name, values, 8 * (size_t)(6 * nodes * modes));
  free(ids), free(values);
}

int main(int argc, char **argv) {
  if (argc != 3) return 2;
  dir = argv[2];
  if (krx_open(argv[1], &file) != KRX_OK) check(1, "open");
  FILE *out = create("blocks.txt");
  for (int b = 4; b <= 32; ++b)
    if (krx_has_block(file, b)) fprintf(out, "%d\n", b);
  fclose(out);
  out = create("header.txt");
  for (int field = KRX_HEADER_TITLE; field <= KRX_HEADER_INPUT_TYPE; ++field) {
    char text[128];
    check(krx_read_header(file, field, text, sizeof text), "header");
    fprintf(out, "%s\n", text);
  }
  fclose(out);

  int64_t n = count(KRX_COUNT_NODES), m = count(KRX_COUNT_MODES);
  int32_t *ints = room(n + m + count(KRX_COUNT_FACE_WORDS) + count(KRX_COUNT_INTERFACE_NODES), 4);
  int64_t order = count(KRX_COUNT_MATRIX_ORDER), k = count(KRX_COUNT_INVARIANT_MODES);
  double *reals = room(9 * n + 5 * m + order * order + 9 * k * k + 13, 8);
  if (krx_has_block(file, 4)) {
    check(krx_read_node_ids(file, ints), "node ids");
    save("node_ids.i4", ints, 4 * (size_t)n);
    check(krx_read_coordinates(file, reals), "coordinates");
    save("coords.f8", reals, 24 * (size_t)n);
  }
  if (krx_has_block(file, 6)) {
    check(krx_read_body_properties(file, reals), "body properties");
    save("body.f8", reals, 13 * 8);
  }
  if (krx_has_block(file, 7)) {
    check(krx_read_eigenvalues(file, ints, reals), "eigenvalues");
    save("mode_numbers.i4", ints, 4 * (size_t)m);
    save("eigen_records.f8", reals, 40 * (size_t)m);
  }
  dump_modes(8, KRX_MODE_SHAPE, KRX_COUNT_MODE_SHAPE_NODES);
  dump_modes(18, KRX_MODE_STRESS, KRX_COUNT_STRESS_NODES);
  dump_modes(29, KRX_MODE_STRAIN, KRX_COUNT_STRAIN_NODES);
  if (krx_has_block(file, 9)) {
    check(krx_read_nodal_masses(file, reals), "nodal masses");
    save("masses.f8", reals, 8 * (size_t)n);
  }
  if (krx_has_block(file, 10)) {
    check(krx_read_nodal_inertias(file, reals), "nodal inertias");
    save("inertias.f8", reals, 72 * (size_t)n);
  }
  if (krx_has_block(file, 11)) {
    char units[4][16];
    check(krx_read_units(file, units), "units");
    out = create("units.txt");
    for (int u = 0; u < 4; ++u) fprintf(out, "%s\n", units[u]);
    fclose(out);
  }
  static const char *matrices[4] = {"generalized_stiffness.f8", "generalized_mass.f8", NULL,
                                     "generalized_damping.f8"};
  for (int block = 12; block <= 15; ++block) {
    if (!matrices[block - 12] || !krx_has_block(file, block)) continue;
    check(krx_read_generalized_matrix(file, block, reals), "generalized matrix");
    save(matrices[block - 12], reals, 8 * (size_t)(order * order));
  }
  if (krx_has_block(file, 16)) {
    int64_t t = count(KRX_COUNT_TRANSFORMATION_ORDER);
    int32_t *numbers = room(t, 4);
    double *matrix = room(t * t, 8);
    check(krx_read_transformation(file, numbers, matrix), "transformation");
    save("transformation_numbers.i4", numbers, 4 * (size_t)t);
    save("transformation.f8", matrix, 8 * (size_t)(t * t));
    free(numbers), free(matrix);
  }
  if (krx_has_block(file, 17)) {
    check(krx_read_interface_nodes(file, ints), "interface nodes");
    save("interface_nodes.i4", ints, 4 * (size_t)count(KRX_COUNT_INTERFACE_NODES));
  }
  if (krx_has_block(file, 5) || krx_has_block(file, 14)) {
    check(krx_read_faces(file, ints), "faces");
    save("faces.i4", ints, 4 * (size_t)count(KRX_COUNT_FACE_WORDS));
  }
  static const int invariants[8] = {1, 2, 3, 4, 5, 7, 8, 9};
  static const int values[8] = {1, 3, -3, -3, -33, 9, -9, -99};  /* -p: p per mode, -pp: per pair */
  for (int i = 0; i < 8; ++i) {
    char name[32];
    if (!krx_has_block(file, 19 + i)) continue;
    int64_t size = values[i] > 0 ? values[i] : values[i] == -33 ? 3 * k * k
                   : values[i] == -99 ? 9 * k * k : -values[i] * k;
    check(krx_read_invariant(file, invariants[i], reals), "invariant");
    snprintf(name, sizeof name, "invariant_%d.f8", invariants[i]);
    save(name, reals, 8 * (size_t)size);
  }
  free(ints), free(reals);
  krx_close(file);
  return 0;
}
