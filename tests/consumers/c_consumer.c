/* A C program built against an installed krxlib through `pkg-config krxlib` only. It writes a
 * four-node plate with two modes to the file named by its argument and reads it back through
 * krx_read.h; usage: c_consumer <out.krx>. */
#include <stdio.h>
#include <string.h>

#include <krx/krx.h>
#include <krx/krx_read.h>

int main(int argc, char **argv) {
  if (argc != 2) return 2;
  int status = 0, failed = 0, nodes = 4, modes = 2, ids[4] = {1, 2, 3, 4};
  KRX_CREATE(&nodes, &modes, &status);
  if (status) return 1;
  const char title[] = "C consumer", blank[] = " ";
  KRX_SET_HEADER(title, blank, blank, blank, blank, blank, &status, (int)strlen(title), 1, 1, 1, 1,
                 1);
  failed |= status;
  double corners[4][3] = {{1, 1, 0}, {2, 1, 0}, {2, 2, 0}, {1, 2, 0}}, mass = 4.0;
  double shapes[2][6] = {{1, 0, 0, 0, 0, 0}, {0, 1, 0, 0, 0, 0}}, stiffness[2] = {0.0, 100.0};
  for (int k = 0; k < 4; ++k) {
    KRX_SET_NODE_COORDINATES_VEC(&ids[k], corners[k], &status);
    failed |= status;
    for (int mode = 1; mode <= 2; ++mode) {
      KRX_SET_MODE_SHAPE_VEC(&mode, &ids[k], shapes[mode - 1], &status);
      failed |= status;
    }
  }
  for (int mode = 1; mode <= 2; ++mode) {
    KRX_SET_GENERALIZED_MASS(&mode, &mode, &mass, &status);
    failed |= status;
    KRX_SET_GENERALIZED_STIFFNESS(&mode, &mode, &stiffness[mode - 1], &status);
    failed |= status;
  }
  KRX_SET_FACE(&nodes, ids, &status);
  failed |= status;
  KRX_WRITE_KRX(argv[1], &status, (int)strlen(argv[1]));
  failed |= status;
  KRX_TERMINATE(&status);
  if (failed || status) return fprintf(stderr, "c consumer: an entry failed\n"), 1;

  /* The file just written: its counts, its title and its second mode. */
  krx_file *file;
  int64_t node_count = 0, mode_count = 0;
  char read_title[32] = "";
  double values[6 * 4];
  int ok = krx_open(argv[1], &file) == KRX_OK &&
           krx_count(file, KRX_COUNT_NODES, &node_count) == KRX_OK &&
           krx_count(file, KRX_COUNT_MODES, &mode_count) == KRX_OK &&
           krx_read_header(file, KRX_HEADER_TITLE, read_title, sizeof read_title) == KRX_OK &&
           krx_read_mode(file, KRX_MODE_SHAPE, 1, NULL, values) == KRX_OK;
  if (!ok) fprintf(stderr, "c consumer: %s\n", krx_error_message(file));
  krx_close(file);
  return ok && node_count == 4 && mode_count == 2 && strcmp(read_title, title) == 0 ? 0 : 1;
}
