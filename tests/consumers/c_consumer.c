/* A C program built against an installed krxlib through `pkg-config krxlib` only. It writes a
 * four-node plate with two modes to the file named by its argument and reads it back through
 * krx_read.h; usage: c_consumer <out.krx>. */
#include <stdio.h>
#include <string.h>

#include <krx/krx.h>
#include <krx/krx_read.h>

/* The file just written: its counts, its title and its second mode. */
static int read_back(const char *path) {
  krx_file *file;
  int64_t nodes = 0, modes = 0;
  char title[32] = "";
  double values[6 * 4];
  int ok = krx_open(path, &file) == KRX_OK && krx_count(file, KRX_COUNT_NODES, &nodes) == KRX_OK &&
           krx_count(file, KRX_COUNT_MODES, &modes) == KRX_OK &&
           krx_read_header(file, KRX_HEADER_TITLE, title, sizeof title) == KRX_OK &&
           krx_read_mode(file, KRX_MODE_SHAPE, 1, NULL, values) == KRX_OK;
  if (!ok) fprintf(stderr, "c consumer: %s\n", krx_error_message(file));
  krx_close(file);
  return ok && nodes == 4 && modes == 2 && strcmp(title, "C consumer") == 0;
}

static int check(const char *entry, int status) {
  if (status != 0) fprintf(stderr, "c consumer: %s failed\n", entry);
  return status == 0;
}

int main(int argc, char **argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: c_consumer <out.krx>\n");
    return 2;
  }
  int status = 0, nodes = 4, modes = 2;
  KRX_CREATE(&nodes, &modes, &status);
  if (!check("KRX_CREATE", status)) return 1;
  const char title[] = "C consumer", blank[] = " ";
  KRX_SET_HEADER(title, blank, blank, blank, blank, blank, &status, (int)strlen(title), 1, 1, 1, 1,
                 1);
  int ok = check("KRX_SET_HEADER", status);
  double corners[4][3] = {{1, 1, 0}, {2, 1, 0}, {2, 2, 0}, {1, 2, 0}};
  int ids[4] = {1, 2, 3, 4};
  for (int k = 0; k < 4; ++k) {
    double mass = 1.0, shapes[2][6] = {{1, 0, 0, 0, 0, 0}, {0, 1, 0, 0, 0, 0}};
    KRX_SET_NODE_COORDINATES_VEC(&ids[k], corners[k], &status);
    ok = ok && check("KRX_SET_NODE_COORDINATES_VEC", status);
    KRX_SET_NODAL_MASS(&ids[k], &mass, &status);
    ok = ok && check("KRX_SET_NODAL_MASS", status);
    for (int mode = 1; mode <= 2; ++mode) {
      KRX_SET_MODE_SHAPE_VEC(&mode, &ids[k], shapes[mode - 1], &status);
      ok = ok && check("KRX_SET_MODE_SHAPE_VEC", status);
    }
  }
  for (int mode = 1; mode <= 2; ++mode) {
    double mass = 4.0, stiffness = mode == 1 ? 0.0 : 100.0;
    KRX_SET_GENERALIZED_MASS(&mode, &mode, &mass, &status);
    ok = ok && check("KRX_SET_GENERALIZED_MASS", status);
    KRX_SET_GENERALIZED_STIFFNESS(&mode, &mode, &stiffness, &status);
    ok = ok && check("KRX_SET_GENERALIZED_STIFFNESS", status);
  }
  KRX_SET_FACE(&nodes, ids, &status);
  ok = ok && check("KRX_SET_FACE", status);
  KRX_WRITE_KRX(argv[1], &status, (int)strlen(argv[1]));
  ok = ok && check("KRX_WRITE_KRX", status);
  KRX_TERMINATE(&status);
  ok = ok && check("KRX_TERMINATE", status);
  ok = ok && check("reading back", !read_back(argv[1]));
  return ok ? 0 : 1;
}
