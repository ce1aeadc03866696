#include "testsupport.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "host/krx_fortran.h"
#include "inspect/krxlist.h"
#include "krx/krx.h"

namespace krxtest {
namespace {

RecordingHost *active = nullptr;

int on_message(const char *text) {
  if (active) active->messages.push_back({0, text});
  return 0;
}
int on_error(int level, const char *text) {
  if (active) active->messages.push_back({level, text});
  return 0;
}
int on_inquiry(int *key) {
  if (!active) return 0;
  active->inquiries += 1;
  return *key == 4 ? active->quiet : 0;
}

}  // namespace

RecordingHost::RecordingHost(int quiet_answer) : quiet(quiet_answer) {
  active = this;
  krx_register_host_callbacks(on_message, on_error, on_inquiry);
}

RecordingHost::~RecordingHost() {
  active = nullptr;
  krx_register_host_callbacks(nullptr, nullptr, nullptr);
}

bool RecordingHost::has(int level, const std::string &text) const {
  for (const Message &m : messages)
    if (m.level == level && m.text == text) return true;
  return false;
}

std::vector<std::string> RecordingHost::texts(int level) const {
  std::vector<std::string> out;
  for (const Message &m : messages)
    if (m.level == level) out.push_back(m.text);
  return out;
}

void create_model(int nodes, int modes) {
  int status = -1;
  KRX_CREATE(&nodes, &modes, &status);
  ASSERT_EQ(status, 0);
}

void terminate_model() {
  if (krx::current_model()) {
    int status = -1;
    KRX_TERMINATE(&status);
  }
  krx::current_model() = nullptr;
}

void ModelTest::fresh(int nodes, int modes) {
  terminate_model();
  create_model(nodes, modes);
  model = krx::current_model();
}

TempDir::TempDir() {
  std::string base = std::filesystem::temp_directory_path().string();
  if (const char *tmp = std::getenv("TMP")) base = tmp;
  std::string pattern = base + "/krxtest_XXXXXX";
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  char *made = mkdtemp(name.data());
  path = made ? made : base;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path, ignored);
}

OptionsGuard::OptionsGuard(const char *text) {
  if (text) setenv("QOR_KRXWRITE_OPTIONS", text, 1);
  else unsetenv("QOR_KRXWRITE_OPTIONS");
}

OptionsGuard::~OptionsGuard() { unsetenv("QOR_KRXWRITE_OPTIONS"); }

EnvGuard::EnvGuard(const char *variable, const char *value) : name(variable) {
  if (const char *old = std::getenv(variable)) had = true, saved = old;
  if (value) setenv(variable, value, 1);
  else unsetenv(variable);
}

EnvGuard::~EnvGuard() {
  if (had) setenv(name.c_str(), saved.c_str(), 1);
  else unsetenv(name.c_str());
}

void unset_store_names() {
  for (const char *name : {"QOR_TMP_MOD", "QOR_TMP_STR", "QOR_TMP_STN"}) unsetenv(name);
}

int in_child(const std::function<int()> &body) {
  std::fflush(stdout);
  pid_t pid = fork();
  if (pid == 0) {
    std::signal(SIGXFSZ, SIG_IGN);
    _exit(body());
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 100 + WTERMSIG(status);
}

std::string listing(krx::KRXDATA *model, int block) {
  char *text = nullptr;
  std::size_t size = 0;
  FILE *out = open_memstream(&text, &size);
  krx::list_block(model, block, out);
  std::fclose(out);
  std::string listed(text, size);
  std::free(text);
  return listed;
}

int write_krx(const std::string &path) {
  int status = -1;
  KRX_WRITE_KRX(path.c_str(), &status, int(path.size()));
  return status;
}

std::vector<char> file_bytes(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::vector<std::vector<int32_t>> face_ids(const krx::KRXDATA *model) {
  std::vector<std::vector<int32_t>> faces;
  for (std::size_t at = 0; at < model->faces.size(); at += std::size_t(model->faces[at]) + 1) {
    std::vector<int32_t> ids;
    for (int32_t j = 1; j <= model->faces[at]; ++j) ids.push_back(model->nodes[std::size_t(model->faces[at + j])].id);
    faces.push_back(ids);
  }
  return faces;
}

}  // namespace krxtest
