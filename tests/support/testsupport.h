// Test support: a host that records every message it is sent, and a fresh current model.
#pragma once
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace krx {
struct KRXDATA;
}

namespace krxtest {

struct Message {
  int level;  // 0 note, 2 warning, 3 error
  std::string text;
  bool operator==(const Message &) const = default;
};

// Installs recording callbacks for its lifetime; quiet sets the answer to the quiet inquiry.
struct RecordingHost {
  explicit RecordingHost(int quiet_answer = 0);
  ~RecordingHost();
  std::vector<Message> messages;
  int quiet = 0;
  int inquiries = 0;
  void clear() { messages.clear(); }
  bool has(int level, const std::string &text) const;
  std::vector<std::string> texts(int level) const;
};

// KRX_CREATE with the given capacities; asserts success.
void create_model(int nodes, int modes);
// KRX_TERMINATE when there is a current model, leaving no model behind.
void terminate_model();
// A fixture whose model, made by fresh(), is the current one until the test ends.
struct ModelTest : ::testing::Test {
  krx::KRXDATA *model = nullptr;
  void fresh(int nodes, int modes);
  void TearDown() override { terminate_model(); }
};

// A fresh directory under the test binary directory, removed at destruction.
struct TempDir {
  TempDir();
  ~TempDir();
  std::string path;
  std::string file(const std::string &name) const { return path + "/" + name; }
};

// Sets the writer's option text for its lifetime (nullptr: unset).
struct OptionsGuard {
  explicit OptionsGuard(const char *text);
  ~OptionsGuard();
};

// Sets an environment variable for its lifetime (nullptr: unset) and puts back what was there.
struct EnvGuard {
  EnvGuard(const char *name, const char *value);
  ~EnvGuard();
  std::string name, saved;
  bool had = false;
};

// Unsets the names of the temporary vector files (QOR_TMP_MOD, _STR, _STN).
void unset_store_names();

// Runs body in a forked child, with SIGXFSZ ignored so that a write past a file-size limit
// fails with EFBIG; the child's exit status, or 100 + the signal that ended it.
int in_child(const std::function<int()> &body);

// What list_block prints for one block.
std::string listing(krx::KRXDATA *model, int block);

// KRX_WRITE_KRX on the current model; returns the status.
int write_krx(const std::string &path);
// The whole file, empty when it cannot be read.
std::vector<char> file_bytes(const std::string &path);
// The face list as node ids, face by face.
std::vector<std::vector<int32_t>> face_ids(const krx::KRXDATA *model);

}  // namespace krxtest
