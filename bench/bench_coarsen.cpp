// Coarsening of a 1,000 x 1,000 quadrilateral plate: seconds per run and the face reduction.
#include <chrono>
#include <cstdio>
#include <string>

#include "krx/krx.h"
#include "mesh/krxcoarse.h"
#include "mesh/krxfaces.h"
#include "model/krxdata.h"

namespace {

std::string last_note;
int keep_note(const char *text) {
  last_note = text;
  return 0;
}
int print_error(int level, const char *text) {
  std::fprintf(stderr, "[%d] %s\n", level, text);
  return 0;
}
int answer_quiet(int *key) { return *key == 4 ? 1 : 0; }

krx::KRXDATA *make_plate(int n) {
  krx::KRXDATA *model = krx::create_model(0, 0);
  // Reserved ahead: the node table's own growth in steps of 1000 is not what is measured here.
  size_t total = size_t(n + 1) * size_t(n + 1);
  model->nodes.reserve(total);
  krx::reserve_ids(model->node_index, total);
  for (int r = 0; r <= n; ++r)
    for (int c = 0; c <= n; ++c) {
      int32_t position = krx::add_node(model, r * (n + 1) + c + 1);
      model->nodes[size_t(position)].x = c;
      model->nodes[size_t(position)].y = r;
    }
  for (int r = 0; r < n; ++r)
    for (int c = 0; c < n; ++c) {
      int32_t a = r * (n + 1) + c + 1;
      int32_t ids[4] = {a, a + 1, a + n + 2, a + n + 1};
      krx::add_face(model, 4, ids);
    }
  return model;
}

void run(int n, const char *arguments) {
  krx::KRXDATA *model = make_plate(n);
  int32_t before = model->face_count;
  auto start = std::chrono::steady_clock::now();
  krx::coarsen(model, arguments);
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::printf("plate %d x %d, coarsen(%s): %.3f s, faces %d -> %d (%s)\n", n, n, arguments, seconds,
              before, model->face_count, last_note.c_str() + 1);
  krx::release_model(model);
}

}  // namespace

int main(int argc, char **argv) {
  krx_register_host_callbacks(keep_note, print_error, answer_quiet);
  int n = argc > 1 ? std::stoi(argv[1]) : 1000;
  for (const char *arguments : {"0.02,10,0", "0.005,10,1", "0.1,10,0"}) run(n, arguments);
  return 0;
}
