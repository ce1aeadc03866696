/* A host that cannot export symbols: it registers its callbacks as function pointers and links
 * the library at build time. Checks that the registered callbacks receive every message and that
 * clearing them falls back to standard output and standard error. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "krx/krx.h"

static int notes, warnings, errors, quiet_asked;
static char last_error[1024];

static int on_message(const char *text) {
  (void)text;
  notes += 1;
  return 0;
}

static int on_error(int level, const char *text) {
  if (level == 2) warnings += 1;
  if (level == 3) errors += 1;
  snprintf(last_error, sizeof last_error, "%s", text);
  return 0;
}

static int on_inquiry(int *key) {
  quiet_asked += *key == 4;
  return 1;
}

static void expect(int condition, const char *what) {
  if (condition) return;
  fprintf(stderr, "registering host: unexpected result: %s\n", what);
  exit(1);
}

int main(void) {
  krx_register_host_callbacks(on_message, on_error, on_inquiry);
  int status = -1;
  KRX_TERMINATE(&status);
  expect(status == 1 && errors == 1, "KRX_TERMINATE before KRX_CREATE");
  expect(strcmp(last_error, "No KRXDATA object.  Call KRX_CREATE first") == 0, "the error text");

  int nodes = 10, modes = 2;
  KRX_CREATE(&nodes, &modes, &status);
  expect(status == 0, "KRX_CREATE");
  int node = 7;
  double mass = 2.0;
  KRX_SET_NODAL_MASS(&node, &mass, &status);
  expect(status == 0, "KRX_SET_NODAL_MASS");
  int ids[1] = {7}, count = 1;
  KRX_SET_FACE(&count, ids, &status);
  expect(status == 0 && errors == 2, "KRX_SET_FACE with 1 vertex");
  expect(strcmp(last_error, "Unable to create a face with 1 vertices") == 0, "the face error");
  KRX_SET_HEADER("t", "n", "y", "1", "2", "3", &status, 1, 1, 1, 1, 1, 1);
  expect(status == 0 && notes == 6, "KRX_SET_HEADER and its six notes");

  krx_register_host_callbacks(NULL, NULL, NULL);
  KRX_SET_FACE(&count, ids, &status);
  expect(errors == 2, "no callback after clearing the registration");
  KRX_TERMINATE(&status);
  expect(status == 0, "KRX_TERMINATE");
  printf("registering host: notes %d, warnings %d, errors %d\n", notes, warnings, errors);
  return 0;
}
